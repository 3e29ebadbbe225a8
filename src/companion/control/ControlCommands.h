// The commands that ask a running host or tell it something: status, pending, sync, pin, unpin, evict, download, link, state,
// allow-deletions, keep-deleted.
//
// Output is for people, or with `asJson` for programs: one JSON object a line, one for each path. What could not be done is
// told by the CommandError at the end, one line for each path; what could be done is done and told all the same.
//
// Threads: one, which they block. Fails: CommandError.
#pragma once

#include <chrono>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "companion/control/ControlText.h"
#include "companion/control/HostFinder.h"
#include "host/control/ControlRequest.h"

namespace kestrune {

struct ControlOutput {
  std::ostream& stream;
  Escaping escaping = Escaping::none;
  bool asJson = false;
  /// Where progress is told; null for nowhere.
  std::ostream* progress = nullptr;
};

struct ControlCommand {
  using Op = host::ControlRequest::Op;
  Op op = Op::status;
  /// Where there are no paths.
  std::string domainIdentifier = "main";
  /// Of `status`, `allowDeletions` and `keepDeleted` one at most, which names the mount.
  std::vector<std::string> paths;
  /// Of `pending`.
  std::size_t most = host::ControlRequest::kDefaultChanges;
  /// Of `sync`.
  bool waits = false;
  std::chrono::seconds timeout = host::ControlRequest::kDefaultTimeout;
  bool asJson = false;
};

/// Runs one command.
void runControl(const HostFinder& finder, const ControlCommand& command,
                const ControlOutput& output);

/// The same with this process's surroundings and standard output; progress goes to standard error if it is a terminal.
void runControl(const ControlCommand& command);

}  // namespace kestrune
