// What a call of the remote service fails with, apart from transport errors (URLError), which pass
// unchanged.
#pragma once

#include <string>

#include "platform/values/NSError.h"

namespace kestrune {

class APIError : public platform::NSErrorOf<APIError> {
 public:
  /// `code()` is the case's number.
  enum class Case { http = 0, decode = 1, notConfigured = 2 };

  static constexpr const char* kDomain = "KestruneAPI.APIError";

  /// The service answered with a status of 400 or more. "HTTP 404: body".
  static APIError http(int status, const std::string& body);
  /// The reply was not the expected record. "Decode error: " and why.
  static APIError decode(const platform::NSError& underlying);
  /// No address, no token, or an address that is no URL.
  static APIError notConfigured();

  Case which() const { return static_cast<Case>(code()); }
  /// "http", "decode" or "notConfigured".
  const char* caseName() const;
  /// The status code of `http`, else 0.
  int status() const { return status_; }

 private:
  APIError(Case which, std::string description, UserInfo userInfo, int status);

  int status_;
};

}  // namespace kestrune
