// The one token that opens the service, and the check of what a request presents.
//
// Compared are SHA-256 hashes, in constant time, so neither the token's length nor a common
// beginning shows in the time of the answer.
//
// Threads: const operations, callable from any thread.
#pragma once

#include <array>
#include <filesystem>
#include <string_view>

#include "platform/values/Secret.h"

namespace kestrune::service {

class BearerToken {
 public:
  /// REQUIRES: `token` is not empty.
  explicit BearerToken(const platform::Secret& token);

  /// Whether `authorization`, the value of that header, is "Bearer" (in any case), spaces, and this
  /// token.
  bool accepts(std::string_view authorization) const;
  /// Whether `text` is this token, white space around it ignored.
  bool is(std::string_view text) const;

 private:
  std::array<unsigned char, 32> hash_;
};

/// What a token file holds, white space around it removed. `warning` gets a sentence if others than
/// the owner may read the file. Throws std::runtime_error if it cannot be read, is empty, or holds
/// white space or control characters inside.
platform::Secret readTokenFile(const std::filesystem::path& file, std::string& warning);

}  // namespace kestrune::service
