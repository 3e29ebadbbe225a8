// Whether the directories in which Kestrune keeps things are private, on a file system that keeps them, and not full.
//
// Threads: callable from any thread; block for the local disk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "companion/doctor/Findings.h"

namespace kestrune {

/// Of one file system, in bytes.
struct DiskSpace {
  std::uint64_t capacity = 0;
  std::uint64_t available = 0;
};

/// "disk" by these numbers.
Finding checkSpace(const DiskSpace& space);

/// `about`: "replica", "shared". Its mode, owner and file system; that it is not there yet is fine.
Finding checkDirectory(const std::string& about, const std::filesystem::path& directory);

/// "shared"; "replica" and "disk" for each replica.
Findings checkStorage(const std::filesystem::path& shared,
                      const std::vector<std::filesystem::path>& replicas);

}  // namespace kestrune
