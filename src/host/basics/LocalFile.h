// Descriptors and open local files as values that are shared and close themselves.
#pragma once

#include <cstdint>
#include <memory>

namespace kestrune::host {

/// A descriptor that is closed when nobody holds it any more.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  const int number_;
};

/// An open file with the bytes of one version of an item, and how many they were when it was opened.
class LocalFile {
 public:
  LocalFile(int descriptor, std::int64_t sizeBytes)
      : descriptor_(descriptor), sizeBytes_(sizeBytes) {}
  int descriptor() const { return descriptor_.number(); }
  std::int64_t sizeBytes() const { return sizeBytes_; }

 private:
  Descriptor descriptor_;
  const std::int64_t sizeBytes_;
};

using LocalFilePtr = std::shared_ptr<const LocalFile>;

}  // namespace kestrune::host
