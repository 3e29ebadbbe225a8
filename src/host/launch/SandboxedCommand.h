// How the extension's program is started: by bubblewrap where that can run, else as it is; it confines itself in both.
//
// Threads: one at a time.
#pragma once

#include <optional>
#include <string>

#include "host/launch/Program.h"
#include "sandbox/SandboxRules.h"

namespace kestrune::host {

class SandboxedCommand {
 public:
  explicit SandboxedCommand(sandbox::SandboxPaths paths) : paths_(std::move(paths)) {}

  /// For the next start: what may be reached is looked up each time, since name servers and programs are replaced. The first call
  /// tries bubblewrap, all say why it is not used. Throws NSPOSIXError where a path is not there.
  ProgramCommand next();

 private:
  const sandbox::SandboxPaths paths_;
  bool isTried_ = false;
  std::optional<std::string> whyNoBubblewrap_;
};

}  // namespace kestrune::host
