#include "host/out/ConflictName.h"

#include <algorithm>

#include "host/basics/ItemName.h"
#include "platform/files/Paths.h"
#include "platform/values/UTF8.h"

namespace kestrune::host {

namespace {

constexpr std::size_t kLongestMachine = 32;
// A longer one is no extension but a sentence with a dot in it.
constexpr std::size_t kLongestExtension = 32;

/// The beginning of `text` with at most `bytes` bytes, no character cut in two.
std::string_view cut(std::string_view text, std::size_t bytes) {
  if (text.size() <= bytes) return text;
  std::size_t end = bytes;
  const auto continues = [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
  };
  while (end > 0 && continues(text[end])) --end;
  return text.substr(0, end);
}

/// What of a machine's name may stand in a file's.
std::string cleaned(std::string_view machine) {
  if (!platform::isValidUTF8(machine)) return {};
  std::string text(machine);
  std::erase_if(text, [](char byte) {
    const auto value = static_cast<unsigned char>(byte);
    return value < 0x20 || value == 0x7F || byte == '/' || byte == '(' || byte == ')';
  });
  return std::string(cut(text, kLongestMachine));
}

/// "2026-11-22 04.15": a colon in names troubles other systems.
std::string minuteText(platform::Date time) {
  std::string text = platform::formatISO8601(time).substr(0, 16);
  std::replace(text.begin(), text.end(), 'T', ' ');
  std::replace(text.begin(), text.end(), ':', '.');
  return text;
}

}  // namespace

std::string conflictName(std::string_view name, std::string_view machine, platform::Date time,
                         const std::function<bool(const std::string&)>& isTaken) {
  std::string extension = platform::pathExtension(name);
  if (!extension.empty()) extension.insert(0, 1, '.');
  if (extension.size() > kLongestExtension) extension.clear();
  const std::string_view stem = name.substr(0, name.size() - extension.size());
  const std::string place = cleaned(machine);
  const std::string what = "conflict " + (place.empty() ? "" : place + " ") + minuteText(time);
  for (std::uint64_t count = 1;; ++count) {
    const std::string number = count == 1 ? "" : " " + std::to_string(count);
    const std::string end = " (" + what + number + ")" + extension;
    std::string candidate = std::string(cut(stem, kLongestNameBytes - end.size())) + end;
    if (!isTaken(candidate)) return candidate;
  }
}

bool isConflictName(std::string_view name) {
  constexpr std::string_view kBegin = " (conflict ";
  constexpr std::string_view kMinute = "0000-00-00 00.00";
  const std::size_t begin = name.rfind(kBegin);
  if (begin == std::string_view::npos) return false;
  const std::size_t end = name.find(')', begin);
  if (end == std::string_view::npos) return false;
  if (end + 1 < name.size() && name[end + 1] != '.') return false;
  // A machine's name before the time and a number after it, either of which may be missing.
  std::string_view inner = name.substr(begin + kBegin.size(), end - begin - kBegin.size());
  const auto hasMinuteAt = [&](std::size_t at) {
    for (std::size_t i = 0; i < kMinute.size(); ++i) {
      const char wanted = kMinute[i];
      const char found = inner[at + i];
      if (wanted == '0' ? found < '0' || found > '9' : found != wanted) return false;
    }
    return true;
  };
  for (std::size_t at = 0; at + kMinute.size() <= inner.size(); ++at) {
    if ((at == 0 || inner[at - 1] == ' ') && hasMinuteAt(at)) return true;
  }
  return false;
}

}  // namespace kestrune::host
