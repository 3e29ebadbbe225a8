// A temporary directory of this process's own, set as its temporary directory, that goes with it:
// when the object is destroyed, and when SIGINT, SIGTERM or SIGHUP ends the process.
#pragma once

#include <filesystem>

namespace kestrune {

class ScratchDirectory {
 public:
  /// Throws CommandError if it cannot be made. REQUIRES: called on the main thread before any other
  /// thread runs, since it blocks those signals for all threads to come.
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

 private:
  std::filesystem::path directory_;
};

}  // namespace kestrune
