// `kestrune restart`: the program of a running mount is replaced by the one that is installed now, without the folder going away.
//
// Threads: one, which it blocks. Fails: CommandError.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

#include "companion/control/HostFinder.h"

namespace kestrune {

struct RestartOptions {
  /// Somewhere in the mounted folder; empty: the domain's.
  std::string path;
  std::string domainIdentifier = "main";
  /// For programs: {"mountPoint":"…","version":"…","restarts":1,"standstillMilliseconds":40}.
  bool asJson = false;
  /// For how long the new host is waited for.
  std::chrono::seconds patience{120};
};

/// Returns when the new host serves, and says so in one line.
void restartHost(const HostFinder& finder, const RestartOptions& options, std::ostream& output);

}  // namespace kestrune
