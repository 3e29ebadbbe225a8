// What an upload in parts fails with, apart from the errors that pass unchanged (the service's, the
// session's, the file's).
#pragma once

#include <cstdint>
#include <string>

#include "platform/values/NSError.h"

namespace kestrune {

class MPError : public platform::NSErrorOf<MPError> {
 public:
  /// `code()` is the case's number.
  enum class Case { initFailed = 0, partFailed = 1, completeFailed = 2, readFailed = 3 };

  static constexpr const char* kDomain = "MultipartUploader.MPError";

  /// "multipart init: " and the message.
  static MPError initFailed(const std::string& message);
  /// "part 3: " and the message.
  static MPError partFailed(std::int64_t partNumber, const std::string& message);
  /// "multipart complete: " and the message.
  static MPError completeFailed(const std::string& message);
  /// "file read: " and the message.
  static MPError readFailed(const std::string& message);

  Case which() const { return static_cast<Case>(code()); }
  /// "initFailed", "partFailed", "completeFailed" or "readFailed".
  const char* caseName() const;

 private:
  MPError(Case which, std::string description);
};

}  // namespace kestrune
