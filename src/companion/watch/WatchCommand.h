// `kestrune status --watch`: how a mounted folder is doing, for as long as somebody looks. On a terminal a page that is drawn again as
// things change; elsewhere a line for each change, for programs a JSON object.
//
// A host that goes away is waited for: it may be replaced, or mounted again.
//
// Threads: one, which it blocks. REQUIRES that no other thread runs. Fails: CommandError where there is no host at the beginning, or
// the output has gone.
#pragma once

#include <string>

#include "companion/control/HostFinder.h"

namespace kestrune {

struct WatchOptions {
  /// In the mounted folder; empty: the domain's.
  std::string path;
  std::string domainIdentifier = "main";
  bool asJson = false;
};

/// Returns the exit code: 0 after "q", 128 and the signal's number after a signal (130 for Ctrl-C).
int runWatch(const HostFinder& finder, const WatchOptions& options);

}  // namespace kestrune
