#include "service/ByteRange.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <optional>

namespace kestrune::service {
namespace {

constexpr std::string_view kUnit = "bytes=";

std::string_view trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// Digits only; beyond 64 bits the largest number, which no file reaches.
std::optional<std::uint64_t> parseNumber(std::string_view digits) {
  if (digits.empty()) return std::nullopt;
  constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    value = value > (kMax - digit) / 10 ? kMax : value * 10 + digit;
  }
  return value;
}

bool hasUnit(std::string_view header) {
  if (header.size() < kUnit.size()) return false;
  return std::equal(kUnit.begin(), kUnit.end(), header.begin(), [](char unit, char c) {
    return unit == std::tolower(static_cast<unsigned char>(c));
  });
}

ByteRange partial(std::uint64_t offset, std::uint64_t length) {
  return {ByteRange::Answer::partial, offset, length};
}

}  // namespace

ByteRange parseByteRange(std::string_view header, std::uint64_t sizeBytes) {
  const ByteRange whole{ByteRange::Answer::whole, 0, sizeBytes};
  const ByteRange unsatisfiable{ByteRange::Answer::unsatisfiable, 0, 0};
  header = trimmed(header);
  if (!hasUnit(header)) return whole;
  const std::string_view range = trimmed(header.substr(kUnit.size()));
  const std::size_t dash = range.find('-');
  if (dash == std::string_view::npos) return whole;
  const std::string_view firstText = range.substr(0, dash);
  const std::string_view lastText = range.substr(dash + 1);
  const auto last = parseNumber(lastText);
  if (firstText.empty()) {
    if (!last) return whole;
    if (*last == 0 || sizeBytes == 0) return unsatisfiable;
    const std::uint64_t length = std::min(*last, sizeBytes);
    return partial(sizeBytes - length, length);
  }
  const auto first = parseNumber(firstText);
  if (!first || (!last && !lastText.empty())) return whole;
  if (last && *last < *first) return whole;
  if (*first >= sizeBytes) return unsatisfiable;
  const std::uint64_t end = last ? std::min(*last, sizeBytes - 1) : sizeBytes - 1;
  return partial(*first, end - *first + 1);
}

}  // namespace kestrune::service
