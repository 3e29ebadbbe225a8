#include "boundary/SharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/values/NSError.h"

namespace kestrune::boundary {

namespace {

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
constexpr std::size_t kMostBytes = 1U << 30U;

std::span<char> mapped(int descriptor, std::size_t bytes) {
  void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) throw platform::NSPOSIXError(errno, "map shared memory");
  return {static_cast<char*>(memory), bytes};
}

}  // namespace

std::shared_ptr<SharedMemory> SharedMemory::make(std::size_t bytes) {
  const int descriptor = ::memfd_create("kestrune-stream", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (descriptor < 0) throw platform::NSPOSIXError(errno, "make shared memory");
  // From here on it is closed with the object or on the way out.
  struct Closing {
    int descriptor;
    ~Closing() {
      if (descriptor >= 0) ::close(descriptor);
    }
  } closing{descriptor};
  if (::ftruncate(descriptor, static_cast<off_t>(bytes)) != 0 ||
      ::fcntl(descriptor, F_ADD_SEALS, kSeals) != 0)
    throw platform::NSPOSIXError(errno, "give shared memory its length");
  std::shared_ptr<SharedMemory> memory(new SharedMemory(descriptor, mapped(descriptor, bytes)));
  closing.descriptor = -1;
  return memory;
}

std::shared_ptr<SharedMemory> SharedMemory::map(int descriptor) {
  struct stat status {};
  const int seals = ::fcntl(descriptor, F_GET_SEALS);
  if (seals < 0 || ::fstat(descriptor, &status) != 0)
    throw platform::NSPOSIXError(errno, "look at shared memory");
  const auto size = static_cast<std::size_t>(status.st_size);
  if ((seals & kSeals) != kSeals || size == 0 || size > kMostBytes)
    throw platform::NSPOSIXError(EINVAL, "use memory that is not sealed, empty or too long");
  return std::shared_ptr<SharedMemory>(new SharedMemory(-1, mapped(descriptor, size)));
}

SharedMemory::~SharedMemory() {
  ::munmap(bytes_.data(), bytes_.size());
  if (descriptor_ >= 0) ::close(descriptor_);
}

}  // namespace kestrune::boundary
