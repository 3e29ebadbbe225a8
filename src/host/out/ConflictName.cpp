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

}  // namespace kestrune::host
