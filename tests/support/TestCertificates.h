// Certificates made on the spot: an authority that nobody trusts unless told to, and what it issues
// for servers.
//
// Threads: an object belongs to one thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/HttpFixture.h"

namespace kestrune::support {

/// What a server's certificate says.
struct CertificateRequest {
  /// Names and addresses that it is for, as OpenSSL writes them.
  std::string subjectAltName = "IP:127.0.0.1,DNS:localhost";
  /// From when and until when it is valid, counted from now.
  std::chrono::seconds notBefore = std::chrono::hours(-1);
  std::chrono::seconds notAfter = std::chrono::hours(1);
};

class TestAuthority {
 public:
  /// Files are written below `directory`, which must outlive their use.
  explicit TestAuthority(std::filesystem::path directory);
  ~TestAuthority();
  TestAuthority(const TestAuthority&) = delete;
  TestAuthority& operator=(const TestAuthority&) = delete;

  /// PEM of the authority's own certificate: what to trust, as in $SSL_CERT_FILE.
  const std::filesystem::path& certificateFile() const { return certificateFile_; }

  /// A new key and a certificate for it, ready for a fixture.
  HttpFixtureOptions::TLS issue(const CertificateRequest& request = {});

 private:
  struct Identity;
  std::filesystem::path directory_;
  std::filesystem::path certificateFile_;
  std::unique_ptr<Identity> identity_;
  long issued_ = 0;
};

}  // namespace kestrune::support
