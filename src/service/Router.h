// Which endpoint a request is for, from its method and target alone.
//
// Threads: a pure function.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::service {

enum class Endpoint {
  list,
  remove,
  makeFolder,
  move,
  notify,
  presignDownload,
  presignUpload,
  directPresignUpload,
  multipartInit,
  multipartPartURL,
  multipartComplete,
  multipartAbort,
  import,
  events,
  /// Pre-signed.
  storage,
  /// The web page, which people sign in to. Every other endpoint needs the bearer token.
  web,
};

/// Throws ServiceError: 404 for a path that is none of the service's, 405 with "Allow" for another
/// method.
Endpoint routeOf(std::string_view method, std::string_view target);

/// The remote path in the query of a listing or a deletion, decoded. The query is "path=" and
/// nothing else: its value runs to the end of the target, so "&", "=", "+" and ";" in it stand for
/// themselves. Throws ServiceError 400.
std::string pathOfQuery(std::string_view target);

}  // namespace kestrune::service
