// An open descriptor of the operating system and the duty to close it.
//
// Owns: the descriptor.
// Threads: like an int: one thread at a time, or const operations from
// several.
#pragma once

#include <unistd.h>

#include <utility>

namespace kestrune::service {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) noexcept : descriptor_(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : descriptor_(std::exchange(other.descriptor_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  ~FileDescriptor() { reset(); }

  /// -1 when nothing is open.
  int get() const noexcept { return descriptor_; }
  explicit operator bool() const noexcept { return descriptor_ >= 0; }
  /// Hands the descriptor and the duty over.
  int release() noexcept { return std::exchange(descriptor_, -1); }

  void reset() noexcept {
    // Linux has closed the descriptor even where close reports EINTR, so it is never tried twice.
    if (descriptor_ >= 0) ::close(descriptor_);
    descriptor_ = -1;
  }

 private:
  int descriptor_ = -1;
};

}  // namespace kestrune::service
