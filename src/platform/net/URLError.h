// Errors of URL loading: the codes and descriptions of NSURLErrorDomain (Apple's documentation of
// URL Loading System error codes). Descriptions are the platform's general texts: they never hold
// an address, a header or a body, since a pre-signed address is a secret.
#pragma once

#include "platform/values/NSError.h"

namespace kestrune::platform {

class URLError : public NSErrorOf<URLError> {
 public:
  enum Code : std::int64_t {
    unknown = -1,
    cancelled = -999,
    timedOut = -1001,
    unsupportedURL = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    networkConnectionLost = -1005,
    httpTooManyRedirects = -1007,
    badServerResponse = -1011,
    dataLengthExceedsMaximum = -1103,
    secureConnectionFailed = -1200,
    cannotCreateFile = -3000,
    cannotWriteToFile = -3003,
  };

  explicit URLError(Code code);
  /// For local files: the description names the file and the reason.
  URLError(Code code, std::string localizedDescription);
};

}  // namespace kestrune::platform
