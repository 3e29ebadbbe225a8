// What hosts answer, as people read it. Names and reasons are escaped where they go to a terminal, which they could take
// over; elsewhere they stay as they are.
//
// Threads: plain functions. Fails: InvalidRequest or an exception of the JSON library where an answer is not of the form
// that its description says.
#pragma once

#include <cstdint>
#include <string>

#include "platform/values/Json.h"

namespace kestrune {

enum class Escaping { none, forTerminal };

/// "12 bytes", "1.5 KiB".
std::string sizeText(std::uint64_t bytes);

/// A path of an answer.
std::string pathText(const platform::Json& path, Escaping escaping);
std::string escapedText(const std::string& text, Escaping escaping);

/// Whole lines.
std::string statusText(const platform::Json& status, Escaping escaping);
std::string pendingText(const platform::Json& pending, Escaping escaping);
/// Whole lines, indented: why the contents are here or not, may go or not, and what the upload waits for.
std::string reasonsText(const platform::Json& reasons, Escaping escaping);
/// One line without its end: "5 bytes of 10 are here, pinned, not at the store yet (send)".
std::string stateText(const platform::Json& state, Escaping escaping);

}  // namespace kestrune
