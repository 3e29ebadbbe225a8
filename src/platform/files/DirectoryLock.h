// Keeps other processes from changing the files of a directory while this one reads, changes and writes one of them: an advisory
// lock (flock) of the directory itself, so that no other file is needed. It is let go with its process, however that ends.
//
// Threads: an object belongs to one thread; two objects of one process wait for each other like those of two. Blocks until the lock
// is free, which for all our uses is short file work. Fails: where the directory cannot be opened or its file system has no locks
// nothing is locked; who writes next finds out about the directory.
#pragma once

#include <filesystem>

namespace kestrune::platform {

class DirectoryLock {
 public:
  explicit DirectoryLock(const std::filesystem::path& directory);
  ~DirectoryLock();
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

 private:
  const int descriptor_;
};

}  // namespace kestrune::platform
