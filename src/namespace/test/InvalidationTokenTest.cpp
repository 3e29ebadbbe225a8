#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "namespace/FileProviderEnumerator.h"
#include "tests/support/IsolatedStorage.h"

namespace kestrune {
namespace {

class InvalidationTokenTest : public testing::Test {
 protected:
  void write(const std::string& text) const {
    storage_.writeShared("invalidation-token.txt", text);
  }
  static std::string token() { return FileProviderEnumerator::currentToken(); }

  const support::IsolatedStorage storage_;
};

TEST_F(InvalidationTokenTest, IsTheTextWithoutSpaceAroundIt) {
  const struct {
    std::string text;
    std::string token;
  } cases[] = {
      {"abc", "abc"},
      {"abc\n", "abc"},
      {" \t\r\n\v\f abc def \n\n", "abc def"},
      {"a\nb", "a\nb"},
      {"\xC2\xA0\xE2\x80\x83\xE3\x80\x80"
       "abc\xE2\x80\xA8\xE2\x80\xA9\xC2\x85\xE1\x9A\x80\xE2\x81\x9F\xE2\x80\xAF",
       "abc"},
      {"\xC3\xA9\xF0\x9F\x98\x80", "\xC3\xA9\xF0\x9F\x98\x80"},
      {"\xE2\x80\x8B"
       "abc",
       "\xE2\x80\x8B"
       "abc"},  // a zero-width space is no space
      {"\xEF\xBB\xBF"
       "abc",
       "\xEF\xBB\xBF"
       "abc"},
      {"initial", "initial"},
      {std::string("a\0b", 3), std::string("a\0b", 3)},
      {"", "initial"},
      {" \n\t", "initial"},
      {"\xE2\x80\x83\n", "initial"},
      {"\xFF", "initial"},
      {"abc\xC3", "initial"},
      {"\xED\xA0\x80", "initial"},
      {std::string(1 << 20, 'x'), std::string(1 << 20, 'x')},
      {std::string((1 << 20) + 1, 'x'), "initial"},
  };
  for (const auto& [text, expected] : cases) {
    write(text);
    EXPECT_EQ(token(), expected) << text.substr(0, 40);
  }
}

TEST_F(InvalidationTokenTest, WhateverCannotBeReadIsInitial) {
  EXPECT_EQ(token(), "initial");
  EXPECT_FALSE(std::filesystem::exists(storage_.applicationSupport()));
  storage_.makeSharedDirectory("invalidation-token.txt");
  EXPECT_EQ(token(), "initial");
  storage_.makeSharedPipe("invalidation-token.txt");
  EXPECT_EQ(token(), "initial");
  storage_.makeSharedHugeFile("invalidation-token.txt", 1ULL << 40U);
  EXPECT_EQ(token(), "initial");
  storage_.blockShared();
  EXPECT_EQ(token(), "initial");
}

TEST_F(InvalidationTokenTest, IsReadAnewAndNeverWritten) {
  write("one");
  EXPECT_EQ(token(), "one");
  write("two");
  EXPECT_EQ(token(), "two");
  std::filesystem::remove(storage_.shared() / "invalidation-token.txt");
  EXPECT_EQ(token(), "initial");
  EXPECT_FALSE(std::filesystem::exists(storage_.shared() / "invalidation-token.txt"));
}

TEST_F(InvalidationTokenTest, IsThePresentAnchorOfEveryFolderAtOnce) {
  write(" t\xC3\xA9 ");
  for (const char* path : {"/", "/Docs", "NSFileProviderTrashContainerItemIdentifier"}) {
    FileProviderEnumerator enumerator(path);
    std::optional<std::string> anchor;
    std::thread::id thread;
    enumerator.currentSyncAnchor([&](const auto& present) {
      anchor = present;
      thread = std::this_thread::get_id();
    });
    EXPECT_EQ(anchor, "t\xC3\xA9") << path;
    EXPECT_EQ(thread, std::this_thread::get_id()) << path;
  }
}

}  // namespace
}  // namespace kestrune
