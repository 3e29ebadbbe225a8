// SHA-256 of bytes that come in pieces.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace kestrune::support {

class Digest {
 public:
  Digest();
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(std::string_view bytes);
  /// In lower-case hexadecimal digits. REQUIRES: called last, and once.
  std::string finish();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

/// SHA-256 of `bytes` in lower-case hexadecimal digits.
std::string sha256Hex(std::string_view bytes);

}  // namespace kestrune::support
