#include "platform/files/DirectoryLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace kestrune::platform {

DirectoryLock::DirectoryLock(const std::filesystem::path& directory)
    : descriptor_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (descriptor_ < 0) return;
  while (::flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
  }
}

DirectoryLock::~DirectoryLock() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

}  // namespace kestrune::platform
