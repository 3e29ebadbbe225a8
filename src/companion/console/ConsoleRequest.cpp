#include "companion/console/ConsoleRequest.h"

#include <limits>

#include "platform/values/NSError.h"

namespace kestrune {

using platform::Json;

namespace {

constexpr std::size_t kQuotedBytes = 80;

[[noreturn]] void wrongType(std::string_view name, std::string_view expected) {
  throw InvalidCall("\"" + std::string(name) + "\" must be " + std::string(expected));
}

std::string textOf(const Json& value, std::string_view name) {
  if (!value.is_string()) wrongType(name, "a text");
  return value.get<std::string>();
}

std::int64_t integerOf(const Json& value, std::string_view name) {
  const bool isBeyond =
      value.is_number_unsigned() &&
      value.get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()};
  if (!value.is_number_integer() || isBeyond)
    wrongType(name, "an integer of at most 64 bits, signed");
  return value.get<std::int64_t>();
}

std::vector<std::string> textsOf(const Json& value, std::string_view name) {
  if (!value.is_array()) wrongType(name, "an array of texts");
  std::vector<std::string> texts;
  texts.reserve(value.size());
  for (const Json& element : value) {
    if (!element.is_string()) wrongType(name, "an array of texts");
    texts.push_back(element.get<std::string>());
  }
  return texts;
}

}  // namespace

std::string abbreviated(std::string_view text) {
  if (text.size() <= kQuotedBytes) return std::string(text);
  std::size_t end = kQuotedBytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
    --end;  // whole characters only
  return std::string(text.substr(0, end)) + "…";
}

ConsoleRequest ConsoleRequest::parse(std::string_view line) {
  Json value;
  try {
    value = platform::decodeJson(line);
  } catch (const platform::NSError& error) {
    throw InvalidCall("the line is not a JSON object: " + error.localizedDescription());
  }
  if (!value.is_object())
    throw InvalidCall(std::string("the line is not a JSON object but of type ") +
                      value.type_name());
  return ConsoleRequest(std::move(value));
}

const Json& ConsoleRequest::idOrNull() const {
  static const Json null;
  const Json* id = find("id");
  return id ? *id : null;
}

std::string ConsoleRequest::text(std::string_view name) const {
  return textOf(required(name), name);
}

std::int64_t ConsoleRequest::integer(std::string_view name) const {
  return integerOf(required(name), name);
}

double ConsoleRequest::number(std::string_view name) const {
  const Json& value = required(name);
  if (!value.is_number()) wrongType(name, "a number");
  return value.get<double>();
}

std::vector<std::string> ConsoleRequest::texts(std::string_view name) const {
  return textsOf(required(name), name);
}

const Json& ConsoleRequest::required(std::string_view name) const {
  const Json* value = find(name);
  if (!value) throw InvalidCall("\"" + std::string(name) + "\" is missing");
  return *value;
}

std::optional<std::string> ConsoleRequest::optionalText(std::string_view name) const {
  const Json* value = findGiven(name);
  return value ? std::optional(textOf(*value, name)) : std::nullopt;
}

std::optional<std::int64_t> ConsoleRequest::optionalInteger(std::string_view name) const {
  const Json* value = findGiven(name);
  return value ? std::optional(integerOf(*value, name)) : std::nullopt;
}

std::optional<bool> ConsoleRequest::optionalBoolean(std::string_view name) const {
  const Json* value = findGiven(name);
  if (!value) return std::nullopt;
  if (!value->is_boolean()) wrongType(name, "true or false");
  return value->get<bool>();
}

std::optional<std::vector<std::string>> ConsoleRequest::optionalTexts(std::string_view name) const {
  const Json* value = findGiven(name);
  return value ? std::optional(textsOf(*value, name)) : std::nullopt;
}

const Json* ConsoleRequest::find(std::string_view name) const {
  const auto found = object_.find(name);
  return found == object_.end() ? nullptr : &*found;
}

const Json* ConsoleRequest::findGiven(std::string_view name) const {
  const Json* value = find(name);
  return value && !value->is_null() ? value : nullptr;
}

}  // namespace kestrune
