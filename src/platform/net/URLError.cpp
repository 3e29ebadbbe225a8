#include "platform/net/URLError.h"

namespace kestrune::platform {

namespace {

std::string generalDescription(URLError::Code code) {
  switch (code) {
    case URLError::unknown:
      return "unknown error";
    case URLError::cancelled:
      return "cancelled";
    case URLError::timedOut:
      return "The request timed out.";
    case URLError::unsupportedURL:
      return "unsupported URL";
    case URLError::cannotFindHost:
      return "A server with the specified hostname could not be found.";
    case URLError::cannotConnectToHost:
      return "Could not connect to the server.";
    case URLError::networkConnectionLost:
      return "The network connection was lost.";
    case URLError::httpTooManyRedirects:
      return "too many HTTP redirects";
    case URLError::badServerResponse:
      return "bad server response";
    case URLError::dataLengthExceedsMaximum:
      return "resource exceeds maximum size";
    case URLError::secureConnectionFailed:
      return "An SSL error has occurred and a secure connection to the server cannot be made.";
    case URLError::cannotCreateFile:
      return "Could not create the file.";
    case URLError::cannotWriteToFile:
      return "Could not write to the file.";
  }
  return "URL error " + std::to_string(static_cast<std::int64_t>(code));
}

}  // namespace

URLError::URLError(Code code) : URLError(code, generalDescription(code)) {}

URLError::URLError(Code code, std::string localizedDescription)
    : NSErrorOf(kNSURLErrorDomain, code, std::move(localizedDescription)) {}

}  // namespace kestrune::platform
