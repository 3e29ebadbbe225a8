// A request that cannot be served, as the client is told: a status and a short text.
//
// The texts are fixed: they never name a path, a token or a URL. Clients look for "not found" in
// the text of a failed deletion and take it for "already gone", so those words stand in the answer
// 404 and nowhere else.
//
// Errors of the operating system are translated here once, at the border of file access; what
// nobody expects becomes 500 with the errno kept for the log.
#pragma once

#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace kestrune::service {

class ServiceError : public std::exception {
 public:
  ServiceError(unsigned status, std::string text) : status_(status), text_(std::move(text)) {}

  /// 500; `context` says what failed, for the log only.
  static ServiceError internal(int errorNumber, const std::string& context);

  /// The same error with a header field for the answer.
  ServiceError with(std::string field, std::string value) &&;

  unsigned status() const noexcept { return status_; }
  /// What the client is told.
  const std::string& text() const noexcept { return text_; }
  /// What the log is told besides; empty for errors that are the client's.
  const std::string& detail() const noexcept { return detail_; }
  const std::vector<std::pair<std::string, std::string>>& fields() const noexcept {
    return fields_;
  }
  const char* what() const noexcept override {
    return detail_.empty() ? text_.c_str() : detail_.c_str();
  }

 private:
  unsigned status_;
  std::string text_;
  std::string detail_;
  std::vector<std::pair<std::string, std::string>> fields_;
};

ServiceError badRequest(std::string text);
ServiceError notFound();
ServiceError conflict(std::string text);

/// What an errno of file access beneath the root means to a client: 404 for what is missing, 400
/// for symbolic links and names that are too long, 403 for missing permission, 409 for what is in
/// the way, 413 for a file that is too large, 507 for a full disk, 503 for exhausted descriptors,
/// else 500. `context` names the call, without paths.
ServiceError fileError(int errorNumber, const std::string& context);

}  // namespace kestrune::service
