// `kestrune configure` at a terminal: asks for what was not given.
//
// Threads: one. REQUIRES that no other thread runs. Fails: CommandError, Interrupted (terminal/Prompt.h).
#pragma once

#include <iostream>
#include <string>

#include "companion/configuration/ConfigureCommand.h"

namespace kestrune {

/// Whether there is somebody to ask: standard input is a terminal.
bool mayAsk();

/// As `configure`, after what is missing of the address and the token was asked for. REQUIRES: nothing is missing, or mayAsk().
std::string configureByDialog(ConfigureOptions options, std::istream& standardInput);

}  // namespace kestrune
