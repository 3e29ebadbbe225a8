// An error as the platform reports it: a domain, a code in that domain, a description that a person
// can read, and a small dictionary. Inside the extension errors are thrown as the typed exceptions
// that derive from NSError; where a completion handler or an observer is answered, the exception
// passes on unchanged as an NSErrorPtr.
//
// Threads: values are immutable after construction and may be read from any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>

namespace kestrune::platform {

class NSError;

/// Null means "no error". The pointed-to object keeps its dynamic type, so a receiver may ask for
/// it.
using NSErrorPtr = std::shared_ptr<const NSError>;

inline constexpr const char* kNSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* kNSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kNSURLErrorDomain = "NSURLErrorDomain";
inline constexpr const char* kNSFileProviderErrorDomain = "NSFileProviderErrorDomain";

/// The user-info key under which an error that stands for an HTTP answer carries the status code,
/// in decimal. A host that knows nothing of an extension's own error domains can still tell
/// "forbidden" from "gone" by it.
inline constexpr const char* kHTTPStatusCodeKey = "HTTPStatusCode";

class NSError : public std::exception {
 public:
  using UserInfo = std::map<std::string, std::string>;

  NSError(std::string domain, std::int64_t code, std::string localizedDescription,
          UserInfo userInfo = {});

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const std::string& localizedDescription() const noexcept { return description_; }
  const UserInfo& userInfo() const noexcept { return userInfo_; }
  const char* what() const noexcept override { return description_.c_str(); }

  /// A shared copy that keeps the dynamic type. Derived types get it from NSErrorOf.
  virtual NSErrorPtr share() const;

  /// Throws a copy of this error with its dynamic type.
  [[noreturn]] virtual void raise() const;

 private:
  std::string domain_;
  std::int64_t code_;
  std::string description_;
  UserInfo userInfo_;
};

/// Base of typed errors: `class APIError : public NSErrorOf<APIError>`.
template <class Derived>
class NSErrorOf : public NSError {
 public:
  using NSError::NSError;
  NSErrorPtr share() const override {
    return std::make_shared<Derived>(static_cast<const Derived&>(*this));
  }
  [[noreturn]] void raise() const override { throw Derived(static_cast<const Derived&>(*this)); }
};

/// An operating-system call that failed: `code` is the errno, the description names what was tried.
class NSPOSIXError : public NSErrorOf<NSPOSIXError> {
 public:
  /// `context` says what was tried and on what, without a trailing colon ("open '/tmp/x'").
  NSPOSIXError(int errorNumber, const std::string& context);
};

/// An error of the platform's own libraries.
class NSCocoaError : public NSErrorOf<NSCocoaError> {
 public:
  enum Code : std::int64_t {
    fileNoSuchFile = 4,
    fileReadUnknown = 256,
    fileWriteUnknown = 512,
    userCancelled = 3072,
    featureUnsupported = 3328,
    xpcConnectionInterrupted = 4097,   // the other process is gone
    xpcConnectionReplyInvalid = 4101,  // it answered what cannot be understood
    coderInvalidValue = 4866,
  };
  NSCocoaError(Code code, std::string localizedDescription);
};

/// Whether the process that was asked was gone before it answered: nobody knows what it did.
bool isInterruption(const NSError& error);

/// A task was cancelled while it slept or waited.
class CancellationError : public NSErrorOf<CancellationError> {
 public:
  CancellationError();
};

/// The error text of `errorNumber` ("No such file or directory"), safe on any thread.
std::string errnoText(int errorNumber);

/// The present exception as an error to hand on. REQUIRES: called inside a catch block.
/// An NSError keeps its type; a std::system_error of the operating system becomes an NSPOSIXError;
/// an interrupted wait of the executor becomes a CancellationError; any other std::exception keeps
/// its text as a Cocoa error; what is no std::exception becomes a Cocoa error that says so.
NSErrorPtr currentError();

/// The same for a stored exception; null gives null.
NSErrorPtr errorFrom(const std::exception_ptr& exception);

}  // namespace kestrune::platform
