// `kestrune unmount`: ends a running mount in good order. Nothing is lost by that: what is not at the store stays in the replica and
// is sent after the next mount. But nobody sends it until then, so that must be said, and wanted.
//
// Threads: one, which it blocks. Fails: CommandError; the mount then goes on unless the text says otherwise.
#pragma once

#include <chrono>
#include <ostream>
#include <string>

#include "companion/control/ControlCommands.h"
#include "companion/control/HostFinder.h"

namespace kestrune {

struct UnmountOptions {
  /// Somewhere in the mounted folder; empty: the domain's.
  std::string path;
  std::string domainIdentifier = "main";
  /// Also where changes are not at the store yet.
  bool isForced = false;
  bool asJson = false;
  /// For how long the host's end is waited for.
  std::chrono::seconds patience{60};
};

/// Returns when the folder is gone, and says so. JSON: {"mountPoint":"…","pending":2,"replica":"…"}.
void unmountHost(const HostFinder& finder, const UnmountOptions& options, std::ostream& output);

}  // namespace kestrune
