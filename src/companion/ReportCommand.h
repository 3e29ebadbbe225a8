// `kestrune report`: what can be sent with a report of a fault, as one file. Versions, how things are set up, what the doctor finds,
// the status of a host that runs, what is not sent, the host's latest log lines, and what was kept of crashes.
//
// What is sent to strangers names nobody's files: no names, no addresses but their schemes, and never the token. What a host says is
// taken by a list of what may be told; names become hashes (report/Anonymizer.h), and texts that may quote names end before they do.
// With names, all is told but the token.
//
// Threads: one, which it blocks. Fails: CommandError, where `path` does not lie in a mounted folder or the file cannot be written; all
// else is part of the report.
#pragma once

#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "companion/control/HostFinder.h"
#include "companion/report/Archive.h"
#include "host/front/InheritedMount.h"
#include "platform/values/Json.h"

namespace kestrune {

struct ReportOptions {
  /// Somewhere in the mounted folder; empty: the domain's.
  std::string path;
  std::string domainIdentifier = "main";
  /// Where crashes were kept; empty: where the host says, or by default.
  std::filesystem::path replicaDirectory;
  std::string version;
  host::ProgramStart program;
  /// Whether names and the address are told as they are.
  bool withNames = false;
  /// The file; empty: "kestrune-report-" and the time in the working directory. It must not be there yet.
  std::filesystem::path output;
  bool asJson = false;
};

/// The parts of the file.
std::vector<ArchivedFile> gatherReport(const HostFinder& finder, const ReportOptions& options);

/// Writes the file, mode 0600, and prints where it is.
void writeReport(const HostFinder& finder, const ReportOptions& options, std::ostream& output);

/// What is told without names, on one page, for people: the first part of the file.

void printReport(const HostFinder& finder, const ReportOptions& options, std::ostream& output);

/// What a host's status may tell strangers, in the form that statusText reads.
platform::Json statusForStrangers(const platform::Json& status);

/// `text` up to where it begins to quote a name or to name a file that is not the system's.
std::string withoutNames(const std::string& text);

}  // namespace kestrune
