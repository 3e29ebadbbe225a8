// Memory that two processes have mapped. The one that makes it seals its length, so that nobody can take mapped pages away from
// under the other.
//
// Threads: what is in it is the users' to arrange. Fails: throws NSPOSIXError.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace kestrune::boundary {

class SharedMemory {
 public:
  /// New memory, zeros, without a name in any file system.
  static std::shared_ptr<SharedMemory> make(std::size_t bytes);
  /// The memory behind a descriptor, which stays the caller's. Throws where it is not sealed as `make` seals it, or absurdly long.
  static std::shared_ptr<SharedMemory> map(int descriptor);
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  std::span<char> bytes() const { return bytes_; }
  /// To be handed on; -1 where it was mapped from one.
  int descriptor() const { return descriptor_; }

 private:
  SharedMemory(int descriptor, std::span<char> bytes) : descriptor_(descriptor), bytes_(bytes) {}

  const int descriptor_;
  const std::span<char> bytes_;
};

}  // namespace kestrune::boundary
