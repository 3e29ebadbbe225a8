// What Kestrune needs of the machine: the device and the helper that make mounts, what confines the extension, limits.
//
// Threads: callable from any thread; checkSandbox starts a program and waits for some seconds at most.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <vector>

#include "companion/doctor/Findings.h"

namespace kestrune {

/// Where the system has what is looked at; and who asks.
struct SystemPlaces {
  std::filesystem::path fuseDevice = "/dev/fuse";
  /// Where the mount helper may lie.
  std::vector<std::filesystem::path> programFolders = {"/usr/bin", "/bin", "/usr/local/bin"};
  uid_t user = 0;

  static SystemPlaces here();
};

/// "fuse-device", "fusermount3".
Findings checkMounting(const SystemPlaces& places);

/// "bubblewrap", "landlock". `program`: the extension's. Tries bubblewrap as a mount would.
Findings checkSandbox(const std::filesystem::path& program);

/// "descriptors", "inotify".
Findings checkLimits();

}  // namespace kestrune
