// Reading folders, and emptying those of the service's own.
//
// Threads: callable from any thread; blocks on the disk.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "service/FileDescriptor.h"

namespace kestrune::service {

/// All names in `folder` but "." and "..". Throws ServiceError.
std::vector<std::string> namesIn(int folder);

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

/// Reads the names of the folders in a folder, one by one; on file systems that do not tell what a name stands for also
/// others.
class SubfolderReader {
 public:
  /// Of an open folder. Throws ServiceError.
  explicit SubfolderReader(FileDescriptor folder);
  /// The next name, valid until the next call; null at the end. Throws ServiceError.
  const char* next();
  /// The folder itself.
  int descriptor() const { return ::dirfd(directory_.get()); }

 private:
  Directory directory_;
};

/// Removes everything in `folder`, to any depth, with a constant number of open files: subfolders
/// are first moved up into `folder`. Links are removed, never followed; nothing on another file
/// system is touched. Returns how many items directly in it could not be removed.
/// `goOn` is asked before each folder; when it says no, the rest stays and is not counted.
std::size_t removeContents(int folder, const std::function<bool()>& goOn);

}  // namespace kestrune::service
