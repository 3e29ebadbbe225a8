#include "CanonicalJson.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace kestrune::second_opinion {

namespace {

// Beyond 2^53 a double is no count any more: its whole value is not what was written.
constexpr double kExactlyWhole = 9007199254740992.0;

}  // namespace

std::string canonicalText(std::string_view text) {
  // The length in front makes quotes inside harmless.
  return std::to_string(text.size()) + "'" + std::string(text) + "'";
}

std::string canonicalNumber(std::int64_t number) { return std::to_string(number); }

std::string canonicalNumber(std::uint64_t number) { return std::to_string(number); }

std::string canonicalNumber(double number) {
  if (std::trunc(number) == number && std::abs(number) <= kExactlyWhole)
    return std::to_string(static_cast<std::int64_t>(number));
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.17g", number);
  return text.data();
}

std::string canonicalArray(const std::vector<std::string>& elements) {
  std::string result = "[";
  for (const std::string& element : elements) result += element + ",";
  return result + "]";
}

std::string canonicalObject(const std::map<std::string, std::string>& members) {
  std::string result = "{";
  for (const auto& [key, value] : members) result += canonicalText(key) + ":" + value + ",";
  return result + "}";
}

}  // namespace kestrune::second_opinion
