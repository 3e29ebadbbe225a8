#include "service/Router.h"

#include <array>
#include <string>

#include "service/ServiceError.h"
#include "service/Signing.h"

namespace kestrune::service {
namespace {

struct Route {
  std::string_view method;
  std::string_view path;
  Endpoint endpoint;
};

constexpr std::array kRoutes{
    Route{"GET", "/files", Endpoint::list},
    Route{"DELETE", "/files", Endpoint::remove},
    Route{"POST", "/files/mkdir", Endpoint::makeFolder},
    Route{"POST", "/files/move", Endpoint::move},
    Route{"POST", "/files/presign-notify", Endpoint::notify},
    Route{"POST", "/files/presign-download", Endpoint::presignDownload},
    Route{"POST", "/files/presign-upload", Endpoint::presignUpload},
    Route{"POST", "/files/direct-presign-upload", Endpoint::directPresignUpload},
    Route{"POST", "/files/direct-multipart-init", Endpoint::multipartInit},
    Route{"POST", "/files/direct-multipart-part-url", Endpoint::multipartPartURL},
    Route{"POST", "/files/direct-multipart-complete", Endpoint::multipartComplete},
    Route{"POST", "/files/direct-multipart-abort", Endpoint::multipartAbort},
    Route{"POST", "/files/direct-import", Endpoint::import},
    Route{"GET", "/events", Endpoint::events},
};

constexpr std::string_view kStorage = "/storage/";
constexpr std::array<std::string_view, 3> kStorageMethods{"GET", "HEAD", "PUT"};

constexpr std::string_view kOpen = "/open/";
constexpr std::string_view kWebAssets = "/web/";

bool isWeb(std::string_view path) {
  return path == "/" || path == "/open" || path.starts_with(kOpen) || path.starts_with(kWebAssets);
}

ServiceError wrongMethod(const std::string& allowed) {
  return ServiceError(405, "the method is not allowed here").with("Allow", allowed);
}

}  // namespace

Endpoint routeOf(std::string_view method, std::string_view target) {
  const std::string_view path = target.substr(0, target.find('?'));
  if (path.starts_with(kStorage)) {
    for (const std::string_view known : kStorageMethods) {
      if (method == known) return Endpoint::storage;
    }
    throw wrongMethod("GET, HEAD, PUT");
  }
  if (isWeb(path)) {
    const bool takesForms = path.starts_with(kOpen);
    if (method == "GET" || method == "HEAD" || (takesForms && method == "POST"))
      return Endpoint::web;
    throw wrongMethod(takesForms ? "GET, HEAD, POST" : "GET, HEAD");
  }
  std::string allowed;
  for (const Route& route : kRoutes) {
    if (route.path != path) continue;
    if (route.method == method) return route.endpoint;
    allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
  }
  if (allowed.empty()) throw notFound();
  throw wrongMethod(allowed);
}

std::string pathOfQuery(std::string_view target) {
  constexpr std::string_view kParameter = "path=";
  const std::size_t question = target.find('?');
  const std::string_view query =
      question == std::string_view::npos ? "" : target.substr(question + 1);
  if (!query.starts_with(kParameter)) throw badRequest("the query must be one path");
  return percentDecode(query.substr(kParameter.size()));
}

}  // namespace kestrune::service
