#include "service/WebRequest.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::service {
namespace {

TEST(WebRequest, ATargetNamesAPathAndAView) {
  EXPECT_EQ(WebRequest::parse("/open/").path.text(), "/");
  EXPECT_EQ(WebRequest::parse("/open/a%20b/c").path.text(), "/a b/c");
  EXPECT_EQ(WebRequest::parse("/open/a?contents").view, WebRequest::View::contents);
  EXPECT_EQ(WebRequest::parse("/open/a?download").view, WebRequest::View::download);
  EXPECT_TRUE(WebRequest::parse("/open/a?sort=size&arrived").hasArrived);
}

TEST(WebRequest, UnacceptablePathsAreNone) {
  for (const char* target : {"/open/..", "/open/a//b", "/open//a", "/open/a/%2E%2E/b", "/open/%FF",
                             "/open/a%0Ab", "/open/%", "/open/a%00", "/open//"}) {
    const WebRequest request = WebRequest::parse(target);
    EXPECT_EQ(request.path.text(), "/") << target;
    EXPECT_TRUE(request.target().starts_with("/open/")) << target;
    EXPECT_FALSE(request.target().starts_with("/open//")) << target;
  }
}

TEST(WebRequest, ItsTargetIsTheSameAgain) {
  for (const char* target :
       {"/open/", "/open/a%20b/%3F%23%25", "/open/a?sort=size", "/open/a?sort=name&order=desc",
        "/open/a?sort=time&order=desc&after=f.-12.b%20c", "/open/a?before=d.0.x", "/open/a?last"}) {
    EXPECT_EQ(WebRequest::parse(target).target(), target);
  }
  EXPECT_EQ(WebRequest::parse("/open/a/?arrived&x=y&sort=name&after=nonsense&after=%").target(),
            "/open/a");
}

}  // namespace
}  // namespace kestrune::service
