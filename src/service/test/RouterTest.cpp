#include "service/Router.h"

#include <gtest/gtest.h>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

ServiceError refusalOf(const std::string& method, const std::string& target) {
  try {
    routeOf(method, target);
  } catch (const ServiceError& error) {
    return error;
  }
  return {0, ""};
}

TEST(Router, FindsEveryEndpoint) {
  const std::pair<std::pair<const char*, const char*>, Endpoint> routes[] = {
      {{"GET", "/files?path=%2F"}, Endpoint::list},
      {{"DELETE", "/files?path=%2Fa"}, Endpoint::remove},
      {{"POST", "/files/mkdir"}, Endpoint::makeFolder},
      {{"POST", "/files/move"}, Endpoint::move},
      {{"POST", "/files/presign-notify"}, Endpoint::notify},
      {{"POST", "/files/presign-download"}, Endpoint::presignDownload},
      {{"POST", "/files/presign-upload"}, Endpoint::presignUpload},
      {{"POST", "/files/direct-presign-upload"}, Endpoint::directPresignUpload},
      {{"POST", "/files/direct-multipart-init"}, Endpoint::multipartInit},
      {{"POST", "/files/direct-multipart-part-url"}, Endpoint::multipartPartURL},
      {{"POST", "/files/direct-multipart-complete"}, Endpoint::multipartComplete},
      {{"POST", "/files/direct-multipart-abort"}, Endpoint::multipartAbort},
      {{"POST", "/files/direct-import"}, Endpoint::import},
      {{"GET", "/events"}, Endpoint::events},
      {{"PUT", "/storage/tree/a?x"}, Endpoint::storage},
      {{"HEAD", "/storage/tree/a?x"}, Endpoint::storage},
      {{"GET", "/"}, Endpoint::web},
      {{"HEAD", "/open/Docs?sort=size"}, Endpoint::web},
      {{"POST", "/open/Docs"}, Endpoint::web},
      {{"GET", "/web/page.css?x"}, Endpoint::web},
  };
  for (const auto& [request, endpoint] : routes)
    EXPECT_EQ(routeOf(request.first, request.second), endpoint) << request.second;
}

TEST(Router, UnknownPathsAreNotFound) {
  for (const char* target :
       {"", "*", "/file", "/files/", "/files/mkdir/", "/Files", "/files%2Fmkdir", "/storage",
        "//files", "/opens", "/Open/", "/web", "//open/"}) {
    EXPECT_EQ(refusalOf("GET", target).status(), 404U) << target;
  }
}

TEST(Router, AnotherMethodIsToldWhichOnesThereAre) {
  const std::pair<std::pair<const char*, const char*>, const char*> cases[] = {
      {{"POST", "/files?path=%2F"}, "GET, DELETE"},
      {{"HEAD", "/files"}, "GET, DELETE"},
      {{"GET", "/files/mkdir"}, "POST"},
      {{"get", "/events"}, "GET"},
      {{"POST", "/storage/tree/a"}, "GET, HEAD, PUT"},
      {{"DELETE", "/open/a"}, "GET, HEAD, POST"},
      {{"POST", "/"}, "GET, HEAD"},
  };
  for (const auto& [request, allowed] : cases) {
    const ServiceError error = refusalOf(request.first, request.second);
    EXPECT_EQ(error.status(), 405U);
    ASSERT_EQ(error.fields().size(), 1U);
    EXPECT_EQ(error.fields()[0], std::make_pair(std::string("Allow"), std::string(allowed)));
  }
}

TEST(Router, TheQueryIsOnePathToItsEnd) {
  EXPECT_EQ(pathOfQuery("/files?path=%2Fa&b=c+d;e@f?g"), "/a&b=c+d;e@f?g");
  EXPECT_EQ(pathOfQuery("/files?path=/a%2Fb"), "/a/b");
  EXPECT_EQ(pathOfQuery("/files?path="), "");
  for (const char* target :
       {"/files", "/files?", "/files?paths=a", "/files?x=1&path=a", "/files?path=%2"}) {
    EXPECT_THROW(pathOfQuery(target), ServiceError) << target;
  }
}

}  // namespace
}  // namespace kestrune::service
