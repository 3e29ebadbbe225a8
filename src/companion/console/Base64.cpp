#include "companion/console/Base64.h"

#include <algorithm>
#include <cstdint>

namespace kestrune {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Encoded(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = (group << 8U) | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      text.push_back(k <= count ? kAlphabet[(group >> (18 - 6 * k)) & 63U] : '=');
    }
  }
  return text;
}

std::optional<std::string> base64Decoded(std::string_view text) {
  std::string bytes;
  std::string_view digits = text;
  while (!digits.empty() && digits.back() == '=') digits.remove_suffix(1);
  std::uint32_t pending = 0;
  unsigned pendingBits = 0;
  for (const char digit : digits) {
    const std::size_t value = kAlphabet.find(digit);
    if (value == std::string_view::npos) return std::nullopt;
    pending = ((pending << 6U) | static_cast<std::uint32_t>(value)) & 0xFFFFU;
    pendingBits += 6;
    if (pendingBits >= 8) {
      pendingBits -= 8;
      bytes.push_back(static_cast<char>((pending >> pendingBits) & 0xFFU));
    }
  }
  // Encoding again settles everything at once: the padding, a stray digit, bits that should be
  // zero.
  if (base64Encoded(bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace kestrune
