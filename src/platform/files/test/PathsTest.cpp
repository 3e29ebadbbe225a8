#include "platform/files/Paths.h"

#include <gtest/gtest.h>

namespace kestrune::platform {
namespace {

TEST(PathsTest, ComponentsFollowThePlatformsRules) {
  struct {
    std::string_view path;
    std::string_view last;
    std::string_view folder;
    std::string_view extension;
  } const cases[] = {
      {"", "", "", ""},
      {"/", "/", "/", ""},
      {"//", "/", "/", ""},
      {"////", "/", "/", ""},
      {"/tmp", "tmp", "/", ""},
      {"/tmp/", "tmp", "/", ""},
      {"//tmp", "tmp", "/", ""},
      {"//tmp//", "tmp", "/", ""},
      {"/tmp/scratch.tiff", "scratch.tiff", "/tmp", "tiff"},
      {"/tmp/scratch", "scratch", "/tmp", ""},
      {"/tmp/lock/", "lock", "/tmp", ""},
      {"/tmp/a.txt/", "a.txt", "/tmp", "txt"},
      {"/tmp/a.txt///", "a.txt", "/tmp", "txt"},
      {"scratch", "scratch", "", ""},
      {"scratch.tiff", "scratch.tiff", "", "tiff"},
      {"scratch///", "scratch", "", ""},
      {"a/b", "b", "a", ""},
      {"a//b", "b", "a", ""},
      {"a///b//", "b", "a", ""},
      {"a//b/c", "c", "a//b", ""},
      {"/a//b", "b", "/a", ""},
      {"/a.b/c", "c", "/a.b", ""},
      {"/tmp/a.tar.gz", "a.tar.gz", "/tmp", "gz"},
      {"scratch..tiff", "scratch..tiff", "", "tiff"},
      {".scratch.tiff", ".scratch.tiff", "", "tiff"},
      {"/home/.profile", ".profile", "/home", ""},
      {".profile", ".profile", "", ""},
      {"a.", "a.", "", ""},
      {"a..", "a..", "", ""},
      {".", ".", "", ""},
      {"..", "..", "", ""},
      {"...", "...", "", ""},
      {"..a", "..a", "", "a"},
      {"/.", ".", "/", ""},
      {"/..", "..", "/", ""},
      {"a/../b", "b", "a/..", ""},
      {"a. b", "a. b", "", " b"},
      {" ", " ", "", ""},
      {"/ / ", " ", "/ ", ""},
      {"a\\b.c", "a\\b.c", "", "c"},
      {"a:b", "a:b", "", ""},
      {"a%2Fb.txt", "a%2Fb.txt", "", "txt"},
      {"/Gr\u00FC\u00DFe/\u00DCber.\u00E4\u00F6", "\u00DCber.\u00E4\u00F6", "/Gr\u00FC\u00DFe",
       "\u00E4\u00F6"},
      {"/e\u0301/\u00E9.x", "\u00E9.x", "/e\u0301", "x"},
      {"a\uFF0Fb", "a\uFF0Fb", "", ""},  // a full-width slash separates nothing
      {"a\uFF0Eb", "a\uFF0Eb", "", ""},  // a full-width dot begins no extension
      {"/\xFF\xFE/\xC3.\x80", "\xC3.\x80", "/\xFF\xFE", "\x80"},
      {std::string_view("/a\0b/c\0.d\0e", 11), std::string_view("c\0.d\0e", 6),
       std::string_view("/a\0b", 4), std::string_view("d\0e", 3)},
      {"/line\nbreak/x\ny.z", "x\ny.z", "/line\nbreak", "z"},
  };
  for (const auto& [path, last, folder, extension] : cases) {
    EXPECT_EQ(lastPathComponent(path), last) << "'" << path << "'";
    EXPECT_EQ(deletingLastPathComponent(path), folder) << "'" << path << "'";
    EXPECT_EQ(pathExtension(path), extension) << "'" << path << "'";
  }
}

TEST(PathsTest, RepeatedDeletionEndsAtTheRootOrAtNothing) {
  for (const auto& [start, end] :
       {std::pair("/a//b/c.d///e/", "/"), std::pair("a//b/c.d///e/", "")}) {
    std::string path = start;
    for (int i = 0; i < 5; ++i) path = deletingLastPathComponent(path);
    EXPECT_EQ(path, end);
    EXPECT_EQ(deletingLastPathComponent(path), end);
  }
}

TEST(PathsTest, LongPathsAreWhole) {
  const std::string name(100'000, 'n');
  const std::string folder = "/" + std::string(100'000, 'f');
  EXPECT_EQ(lastPathComponent(folder + "/" + name + ".x"), name + ".x");
  EXPECT_EQ(deletingLastPathComponent(folder + "/" + name), folder);
  EXPECT_EQ(pathExtension(folder + "/x." + name), name);
}

}  // namespace
}  // namespace kestrune::platform
