// `kestrune console`: the system console on this process's standard input and output, with the real
// extension.
#pragma once

#include <string>

namespace kestrune {

struct ConsoleOptions {
  std::string domainIdentifier = "main";
  bool showsPrivateArguments = false;
};

/// Returns at the end of the input, when every call has ended. Where nobody reads the output any
/// more it ends the process, quietly, with status 0.
void runConsole(const ConsoleOptions& options);

}  // namespace kestrune
