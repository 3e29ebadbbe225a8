#include "OurJson.h"

#include <map>
#include <vector>

#include "CanonicalJson.h"
#include "platform/values/Json.h"
#include "platform/values/JsonDocument.h"
#include "platform/values/NSError.h"

namespace kestrune::second_opinion {

namespace {

using simdjson::dom::element_type;

std::string canonicalElement(simdjson::dom::element element);

std::string canonicalElements(simdjson::dom::array array) {
  std::vector<std::string> elements;
  for (const auto element : array) elements.push_back(canonicalElement(element));
  return canonicalArray(elements);
}

std::string canonicalMembers(simdjson::dom::object object) {
  std::map<std::string, std::string> members;
  for (const auto member : object)
    members.try_emplace(std::string(member.key), canonicalElement(member.value));
  return canonicalObject(members);
}

std::string canonicalElement(simdjson::dom::element element) {
  switch (element.type()) {
    case element_type::ARRAY:
      return canonicalElements(element.get_array().value());
    case element_type::OBJECT:
      return canonicalMembers(element.get_object().value());
    case element_type::INT64:
      return canonicalNumber(element.get_int64().value());
    case element_type::UINT64:
      return canonicalNumber(element.get_uint64().value());
    case element_type::DOUBLE:
      return canonicalNumber(element.get_double().value());
    case element_type::STRING:
      return canonicalText(element.get_string().value());
    case element_type::BOOL:
      return element.get_bool().value() ? "true" : "false";
    case element_type::NULL_VALUE:
      break;
  }
  return "null";
}

}  // namespace

std::string canonicalJson(const nlohmann::json& value) {
  if (value.is_string()) return canonicalText(value.get_ref<const std::string&>());
  if (value.is_number_unsigned()) return canonicalNumber(value.get<std::uint64_t>());
  if (value.is_number_integer()) return canonicalNumber(value.get<std::int64_t>());
  if (value.is_number_float()) return canonicalNumber(value.get<double>());
  if (value.is_boolean()) return value.get<bool>() ? "true" : "false";
  if (value.is_null()) return "null";
  if (value.is_array()) {
    std::vector<std::string> elements;
    for (const auto& element : value) elements.push_back(canonicalJson(element));
    return canonicalArray(elements);
  }
  std::map<std::string, std::string> members;
  for (const auto& [key, member] : value.items()) members[key] = canonicalJson(member);
  return canonicalObject(members);
}

Answer recordAnswer(std::string_view text) {
  try {
    return canonicalJson(platform::decodeJson(text));
  } catch (const platform::NSError&) {
    return std::nullopt;
  }
}

Answer listingAnswer(std::string_view text) {
  try {
    const platform::JsonDocument document(text);
    return canonicalElement(document.root());
  } catch (const platform::NSError&) {
    return std::nullopt;
  }
}

}  // namespace kestrune::second_opinion
