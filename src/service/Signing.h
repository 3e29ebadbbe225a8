// Pre-signed storage URLs: who holds one may make one kind of request to one piece of storage until
// it expires.
//
//     /storage/tree/Docs/a%20b.txt?expires=1714567890&signature=<64 hexadecimal digits>
//
// The signature is HMAC-SHA256 over the method, the kind, the key (decoded) and the expiry, under a
// random key that never leaves the service. It is compared in constant time. A URL is a secret like
// the token: it is never logged.
//
// Threads: const operations, callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/values/Secret.h"

namespace kestrune::service {

/// What a storage URL opens.
enum class StorageKind {
  /// A file of the tree; the key is its remote path. GET, HEAD (with the signature of GET) and PUT.
  tree,
  /// A staged object; the key is its name. PUT.
  staged,
  /// One part of a multipart upload; the key is "<upload>/<number>". PUT.
  part,
};

/// What a signature covers.
struct StorageGrant {
  StorageKind kind = StorageKind::tree;
  /// "GET" or "PUT".
  std::string method;
  std::string key;
};

class Signer {
 public:
  /// `lifetime` is how long a URL is valid.
  /// REQUIRES: `key` holds 32 random bytes.
  Signer(platform::Secret key, std::chrono::seconds lifetime);

  /// The target (path and query) that grants `grant` from `now` on.
  std::string sign(const StorageGrant& grant, std::chrono::system_clock::time_point now) const;

  /// The grant of a request's target for `method`. Throws ServiceError: 404 for a target that is no
  /// storage path, 403 for a missing, wrong or expired signature.
  StorageGrant verify(std::string_view method, std::string_view target,
                      std::chrono::system_clock::time_point now) const;

 private:
  std::string signature(const StorageGrant& grant, std::int64_t expires) const;

  platform::Secret key_;
  std::chrono::seconds lifetime_;
};

/// HMAC-SHA256 of `text` under `key`, as 64 hexadecimal digits.
std::string keyedHash(const platform::Secret& key, std::string_view text);

/// Whether two texts are equal, in a time that tells their lengths at most.
bool equalInConstantTime(std::string_view a, std::string_view b);

/// The key kept in `file`, which is made with a new random key if it is missing, so that URLs
/// survive a restart. Throws std::runtime_error when it cannot be read, written or has another
/// length.
platform::Secret loadSigningKey(const std::filesystem::path& file);

/// `text` with every byte but unreserved ones (RFC 3986) percent-encoded; slashes stay.
std::string percentEncodePath(std::string_view text);

/// `text` with %XX decoded; "+" stays a plus sign. Throws ServiceError 400 for a percent sign
/// without two hexadecimal digits.
std::string percentDecode(std::string_view text);

}  // namespace kestrune::service
