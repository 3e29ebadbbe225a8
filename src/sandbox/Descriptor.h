// A descriptor that closes itself.
#pragma once

#include <unistd.h>

namespace kestrune::sandbox {

class Descriptor {
 public:
  /// Negative: none.
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }
  bool isOpen() const { return number_ >= 0; }

 private:
  const int number_;
};

}  // namespace kestrune::sandbox
