// The command line of kestrune-service.
//
// Threads: called once, by main.
#pragma once

#include <filesystem>
#include <optional>

#include "service/Options.h"

namespace kestrune::service {

struct CommandLine {
  Options options;
  std::filesystem::path tokenFile;
};

/// Nothing when the program has to end at once, with `exitCode`: after --help, or after a mistake,
/// which was explained on standard error.
std::optional<CommandLine> parseCommandLine(int argc, char** argv, int& exitCode);

/// The address as it stands in a URL: "127.0.0.1", "[::1]".
std::string urlHost(const std::string& host);

}  // namespace kestrune::service
