// A compressed archive in memory, as tar and gzip write it: what one file in the place of many is sent as.
//
// Threads: callable from any thread.
#pragma once

#include <string>
#include <vector>

#include "platform/values/Date.h"

namespace kestrune {

struct ArchivedFile {
  /// Of at most 100 bytes, relative.
  std::string name;
  std::string contents;
};

/// A ".tar.gz" (POSIX.1-1988 "ustar", RFC 1952) of the files in their order, mode 0600, all written at `time`.
std::string tarGz(const std::vector<ArchivedFile>& files, platform::Date time);

}  // namespace kestrune
