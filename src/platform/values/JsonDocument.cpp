#include "platform/values/JsonDocument.h"

#include <cmath>

#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

[[noreturn]] void refuse(const std::string& reason) {
  throw NSCocoaError(NSCocoaError::coderInvalidValue,
                     "The data is not in the correct format: " + reason);
}

simdjson::dom::element field(simdjson::dom::object record, const char* key) {
  simdjson::dom::element value;
  if (record.at_key(key).get(value) != simdjson::SUCCESS)
    refuse(std::string("\"") + key + "\" is missing");
  return value;
}

[[noreturn]] void refuseType(const char* key, const char* wanted) {
  refuse(std::string("\"") + key + "\" is not " + wanted);
}

// Doubles from here on are no longer told apart from their neighbours, or do not fit 64 bits.
constexpr double kIntegerLimit = 9223372036854775808.0;

}  // namespace

JsonDocument::JsonDocument(std::string_view text) {
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  // simdjson counts a value inside the innermost container as one level more.
  simdjson::error_code error =
      parser_.allocate(text.size(), static_cast<std::size_t>(kMaxJsonDepth) + 1);
  if (error == simdjson::SUCCESS) error = parser_.parse(text.data(), text.size()).get(root_);
  if (error != simdjson::SUCCESS) refuse(simdjson::error_message(error));
}

simdjson::dom::object jsonObject(simdjson::dom::element value, const char* what) {
  simdjson::dom::object object;
  if (value.get(object) != simdjson::SUCCESS) refuse(std::string(what) + " is not an object");
  return object;
}

simdjson::dom::array jsonArrayField(simdjson::dom::object record, const char* key) {
  simdjson::dom::array array;
  if (field(record, key).get(array) != simdjson::SUCCESS) refuseType(key, "an array");
  return array;
}

std::string_view jsonTextField(simdjson::dom::object record, const char* key) {
  std::string_view text;
  if (field(record, key).get(text) != simdjson::SUCCESS) refuseType(key, "a text");
  return text;
}

std::optional<std::string_view> jsonOptionalTextField(simdjson::dom::object record,
                                                      const char* key) {
  simdjson::dom::element value;
  if (record.at_key(key).get(value) != simdjson::SUCCESS || value.is_null()) return std::nullopt;
  std::string_view text;
  if (value.get(text) != simdjson::SUCCESS) refuseType(key, "a text");
  return text;
}

std::int64_t jsonIntegerField(simdjson::dom::object record, const char* key) {
  const simdjson::dom::element value = field(record, key);
  std::int64_t integer = 0;
  if (value.get(integer) == simdjson::SUCCESS) return integer;
  double number = 0;
  if (!value.is_double() || value.get(number) != simdjson::SUCCESS)
    refuseType(key, "a whole number of 64 bits");
  if (std::trunc(number) != number || number >= kIntegerLimit || number < -kIntegerLimit) {
    refuseType(key, "a whole number of 64 bits");
  }
  return static_cast<std::int64_t>(number);
}

}  // namespace kestrune::platform
