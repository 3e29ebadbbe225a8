#include "service/RemotePath.h"

#include <gtest/gtest.h>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

unsigned refusalOf(const std::string& text) {
  try {
    RemotePath::parse(text);
  } catch (const ServiceError& error) {
    return error.status();
  }
  return 0;
}

TEST(RemotePath, AcceptsEveryNameThatFileSystemsAndClientsAgreeOn) {
  for (const char* text : {"/", "/a", "/a/b c/d.txt", "/...", "/..a/a..", "/ ", "/&=+;@%",
                           "/Äpfel/日本語", "/.hidden", "/\\"}) {
    EXPECT_EQ(RemotePath::parse(text).text(), text);
  }
  EXPECT_EQ(refusalOf("/" + std::string(255, 'n')), 0U);
}

TEST(RemotePath, RefusesWhatHasNoSinglePlaceInTheTree) {
  using namespace std::string_literals;
  for (const std::string& text :
       {""s,      "a"s,         "a/b"s,           "//"s,
        "/a/"s,   "/a//b"s,     "//a"s,           "/."s,
        "/.."s,   "/a/../b"s,   "/a/."s,          "/./a"s,
        "/a\0b"s, "/a\nb"s,     "/\x7f"s,         "/\x1b[0m"s,
        "/\xff"s, "/\xc0\xaf"s, "/\xed\xa0\x80"s, "/" + std::string(256, 'n')}) {
    EXPECT_EQ(refusalOf(text), 400U) << text;
  }
  std::string deep;
  while (deep.size() < 4095) deep += "/n";
  EXPECT_EQ(refusalOf(deep.substr(0, 4094)), 0U);
  EXPECT_EQ(refusalOf(deep + "/n"), 400U);
}

TEST(RemotePath, KnowsItsParentAndName) {
  const RemotePath path = RemotePath::parse("/a/b/c");
  EXPECT_EQ(path.name(), "c");
  EXPECT_EQ(path.parent().text(), "/a/b");
  EXPECT_EQ(path.parent().parent().parent().text(), "/");
  EXPECT_EQ(path.relative(), "a/b/c");
  EXPECT_EQ(RemotePath::parse("/").relative(), ".");
}

TEST(RemotePath, LiesBelowItsAncestorsOnly) {
  const RemotePath path = RemotePath::parse("/a/b");
  EXPECT_TRUE(path.isBelow(RemotePath::parse("/a")));
  EXPECT_TRUE(path.isBelow(RemotePath::parse("/")));
  EXPECT_FALSE(path.isBelow(path));
  EXPECT_FALSE(RemotePath::parse("/ab").isBelow(RemotePath::parse("/a")));
  EXPECT_FALSE(RemotePath::parse("/").isBelow(RemotePath::parse("/")));
}

}  // namespace
}  // namespace kestrune::service
