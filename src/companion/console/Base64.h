// Base 64 as in RFC 4648 section 4. Pure functions; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

std::string base64Encoded(std::string_view bytes);

/// None unless `text` is exactly what base64Encoded gives for some bytes: padded, without white
/// space, and with zero in the bits that carry nothing.
std::optional<std::string> base64Decoded(std::string_view text);

}  // namespace kestrune
