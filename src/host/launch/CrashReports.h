// What is kept of an extension that crashed: when, how, what it knew of itself, and which calls were open by their kinds. No names,
// no contents, no token: the program writes addresses, the host counts.
//
// Threads: any. Fails: a report that cannot be written is lost, with a line in the log.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/basics/HostLog.h"
#include "host/basics/LocalFile.h"

namespace kestrune::host {

class CrashReports {
 public:
  /// In a directory that is made if it is missing, 0700.
  CrashReports(std::filesystem::path directory, std::shared_ptr<HostLog> log)
      : directory_(std::move(directory)), log_(std::move(log)) {}

  /// A file without a name for a program to write to. Throws NSPOSIXError.
  Descriptor open() const;
  /// Keeps what is in the file, under a heading; the oldest of more than ten are removed.
  void keep(const Descriptor& file, const std::string& heading) const;

  /// The reports that are kept in a directory, the newest first, at most kMost; none where there is no such directory. One that cannot
  /// be read is a line that says so.
  static std::vector<std::string> keptIn(const std::filesystem::path& directory);

  static constexpr std::size_t kMost = 10;
  /// More of one program's words are not kept.
  static constexpr std::size_t kMostBytes = 64U << 10U;

 private:
  void removeOldest() const;

  const std::filesystem::path directory_;
  const std::shared_ptr<HostLog> log_;
};

}  // namespace kestrune::host
