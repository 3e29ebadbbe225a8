#include "service/WebText.h"

#include <fmt/format.h>

#include <array>

#include "service/Listing.h"
#include "service/Signing.h"

namespace kestrune::service {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// How many bytes of `text` are one character that visibleName replaces; 0 for another one.
std::size_t deceptiveBytes(std::string_view text) {
  const auto byte = [text](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
  if (byte(0) == 0xC2 && byte(1) >= 0x80 && byte(1) < 0xA0) return 2;  // U+0080 to U+009F
  if (byte(0) != 0xE2) return 0;
  // U+2028 and U+2029 separate, U+202A to U+202E embed and override.
  if (byte(1) == 0x80 && byte(2) >= 0xA8 && byte(2) <= 0xAE) return 3;
  // U+2066 to U+2069 isolate.
  if (byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9) return 3;
  return 0;
}

std::string decodedFormText(std::string_view text) {
  std::string spaced(text);
  for (char& c : spaced) {
    if (c == '+') c = ' ';
  }
  return percentDecode(spaced);
}

}  // namespace

std::string escapedHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string visibleName(std::string_view name) {
  std::string out;
  out.reserve(name.size());
  while (!name.empty()) {
    const std::size_t replaced = deceptiveBytes(name);
    if (replaced > 0) {
      out += kReplacement;
    } else {
      out += name.front();
    }
    name.remove_prefix(replaced > 0 ? replaced : 1);
  }
  return out;
}

std::string readableSize(std::uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  constexpr std::uint64_t kStep = 1000;
  if (bytes < kStep) return fmt::format("{} bytes", bytes);
  constexpr std::array<std::string_view, 6> kUnits{"kB", "MB", "GB", "TB", "PB", "EB"};
  std::size_t unit = 0;
  auto value = static_cast<double>(bytes) / kStep;
  // What would be rounded to 1000 of one unit is 1 of the next.
  while (value >= 999.5 && unit + 1 < kUnits.size()) {
    value /= kStep;
    ++unit;
  }
  return value < 9.95 ? fmt::format("{:.1f} {}", value, kUnits[unit])
                      : fmt::format("{:.0f} {}", value, kUnits[unit]);
}

std::string grouped(std::uint64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) {
    at -= 3;
    digits.insert(at, ",");
  }
  return digits;
}

std::string timeElement(FileTime time) {
  std::string full;
  appendTimestamp(full, time);
  constexpr std::size_t kDay = 10;
  constexpr std::size_t kMinutes = 5;
  return fmt::format("<time datetime=\"{}\">{} {}</time>", full, full.substr(0, kDay),
                     full.substr(kDay + 1, kMinutes));
}

std::optional<std::string> formField(std::string_view body, std::string_view field) {
  while (!body.empty()) {
    const std::size_t end = std::min(body.find('&'), body.size());
    const std::string_view pair = body.substr(0, end);
    body.remove_prefix(std::min(end + 1, body.size()));
    const std::size_t equals = pair.find('=');
    if (equals == std::string_view::npos || pair.substr(0, equals) != field) continue;
    return decodedFormText(pair.substr(equals + 1));
  }
  return std::nullopt;
}

std::string contentDisposition(std::string_view kind, std::string_view name) {
  const std::string shown = visibleName(name);
  std::string ascii;
  for (const char c : shown) {
    const bool plain = c >= 0x20 && c < 0x7F && c != '"' && c != '\\' && c != '%';
    // One sign for each character, not for each of its bytes.
    const bool inner = (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
    if (!inner) ascii += plain ? c : '_';
  }
  std::string encoded = percentEncodePath(shown);
  return fmt::format("{}; filename=\"{}\"; filename*=UTF-8''{}", kind, ascii, encoded);
}

}  // namespace kestrune::service
