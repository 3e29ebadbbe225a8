// Reading and emptying folders of the service's own.
//
// Threads: callable from any thread; blocks on the disk.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kestrune::service {

/// All names in `folder` but "." and "..". Throws ServiceError.
std::vector<std::string> namesIn(int folder);

/// Removes everything in `folder`, to any depth, with a constant number of open files: subfolders
/// are first moved up into `folder`. Links are removed, never followed; nothing on another file
/// system is touched. Returns how many items directly in it could not be removed.
/// `goOn` is asked before each folder; when it says no, the rest stays and is not counted.
std::size_t removeContents(int folder, const std::function<bool()>& goOn);

}  // namespace kestrune::service
