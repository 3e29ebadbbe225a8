// `kestrune report`: what can be sent with a report of a fault. Versions, how things are set up, the status of a host that runs, and
// what was kept of crashes.
//
// What is sent to strangers names nobody's files: no names, no addresses but their schemes, no token. What a host says is taken by a
// list of what may be told, and texts that may quote names end before they do.
//
// Threads: one, which it blocks. Fails: CommandError, where `path` does not lie in a mounted folder; all else is part of the report.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>

#include "companion/control/HostFinder.h"
#include "platform/values/Json.h"

namespace kestrune {

struct ReportOptions {
  /// Somewhere in the mounted folder; empty: the domain's.
  std::string path;
  std::string domainIdentifier = "main";
  /// Where crashes were kept; empty: where the host says, or by default.
  std::filesystem::path replicaDirectory;
  std::string version;
};

void printReport(const HostFinder& finder, const ReportOptions& options, std::ostream& output);

/// What a host's status may tell strangers, in the form that statusText reads.
platform::Json statusForStrangers(const platform::Json& status);

/// `text` up to where it begins to quote a name or to name a file that is not the system's.
std::string withoutNames(const std::string& text);

}  // namespace kestrune
