#include "host/content/EditDescription.h"

#include <array>
#include <charconv>
#include <utility>

namespace kestrune::host {

namespace {

constexpr std::string_view kForm = "kestrune edit 1";
constexpr std::size_t kFields = 7;

std::optional<std::int64_t> length(std::string_view text) {
  std::int64_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
  return isNumber && number >= 0 ? std::optional(number) : std::nullopt;
}

}  // namespace

std::string EditDescription::text() const {
  std::string text;
  const auto add = [&text](std::string_view field) {
    text += field;
    text += '\0';
  };
  add(kForm);
  add(path);
  add(base);
  add(isExecutable ? "1" : "0");
  add(std::to_string(sizeBytes));
  add(std::to_string(fetchableBytes));
  add(present.text());
  return text;
}

std::optional<EditDescription> EditDescription::parse(std::string_view text) {
  std::array<std::string_view, kFields> fields;
  for (std::string_view& field : fields) {
    const auto end = text.find('\0');
    if (end == std::string_view::npos) return std::nullopt;
    field = text.substr(0, end);
    text.remove_prefix(end + 1);
  }
  const auto& [form, path, base, executable, size, fetchable, ranges] = fields;
  const auto sizeBytes = length(size);
  const auto fetchableBytes = length(fetchable);
  auto present = Ranges::parse(ranges);
  const bool isFlag = executable == "0" || executable == "1";
  if (form != kForm || !text.empty() || !path.starts_with('/') || !isFlag || !sizeBytes ||
      !fetchableBytes || !present)
    return std::nullopt;
  return EditDescription{std::string(path), std::string(base), executable == "1",
                         *sizeBytes,        *fetchableBytes,   std::move(*present)};
}

}  // namespace kestrune::host
