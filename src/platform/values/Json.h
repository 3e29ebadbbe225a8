// Small JSON records: how the project writes them and reads them back. Large listings are decoded
// elsewhere, by streaming over the text; this is for records that fit a screen.
//
// Threads: all functions may be called from any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

using Json = nlohmann::json;

/// Nesting beyond this is refused when reading: a record of ours never comes near it, and a
/// parser's stack is finite.
inline constexpr int kMaxJsonDepth = 128;

/// Compact JSON in UTF-8 with "/" written as "\/", as the platform's default encoder writes it.
/// Throws NSCocoaError (coderInvalidValue) if a text in `value` is not valid UTF-8.
std::string encodeJson(const Json& value);

/// Parses one JSON value with nothing but white space around it; a UTF-8 byte-order mark in front
/// is skipped. Of repeated keys the last counts. Throws NSCocoaError (coderInvalidValue) whose
/// description says what is wrong and at which byte: malformed text, invalid UTF-8, nesting beyond
/// kMaxJsonDepth.
Json decodeJson(std::string_view text);

}  // namespace kestrune::platform
