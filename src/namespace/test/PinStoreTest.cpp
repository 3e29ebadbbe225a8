#include "namespace/PinStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "config/SharedConfig.h"
#include "platform/values/Json.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/FileOpens.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PinStoreTest : public testing::Test {
 protected:
  fs::path file() const { return storage_.shared() / "pinned.json"; }
  std::string text() const { return contentsOf(file()); }

  const support::IsolatedStorage storage_;
};

TEST_F(PinStoreTest, NothingIsPinnedWithoutAFile) {
  EXPECT_FALSE(PinStore::isPinned("/Docs/a.pdf"));
  EXPECT_FALSE(PinStore::isPinned(""));
  EXPECT_FALSE(fs::exists(file()));
}

TEST_F(PinStoreTest, PinsArePathsOnceInAscendingByteOrder) {
  for (const char* path : {"/b", "/a/b", "/\xC3\xA9", "/a", "/B", "/a.b", "/b", "/a b",
                           "/\xEF\xBD\x81", "/\xF0\x9F\x98\x80"})
    PinStore::setPinned(true, path);
  EXPECT_EQ(text(),
            "[\"\\/B\",\"\\/a\",\"\\/a b\",\"\\/a.b\",\"\\/a\\/b\",\"\\/b\",\"\\/\xC3\xA9\","
            "\"\\/\xEF\xBD\x81\",\"\\/\xF0\x9F\x98\x80\"]");
  PinStore::setPinned(false, "/a");
  PinStore::setPinned(false, "/\xC3\xA9");
  EXPECT_EQ(platform::Json::parse(text()),
            platform::Json::parse("[\"/B\",\"/a b\",\"/a.b\",\"/a/b\",\"/b\",\"/\xEF\xBD\x81\","
                                  "\"/\xF0\x9F\x98\x80\"]"));
}

TEST_F(PinStoreTest, APinNamesOnePathExactly) {
  PinStore::setPinned(true, "/Docs");
  EXPECT_TRUE(PinStore::isPinned("/Docs"));
  for (const char* path : {"/Docs/a.pdf", "/Docs/", "/docs", "/Doc", "/", "", "Docs", "/Docs "})
    EXPECT_FALSE(PinStore::isPinned(path)) << path;
  // One letter in two spellings.
  PinStore::setPinned(true, "/\xC3\xA9");
  EXPECT_FALSE(PinStore::isPinned("/e\xCC\x81"));
}

TEST_F(PinStoreTest, UnpinningWhatIsNotPinnedRewritesTheFileUnchanged) {
  PinStore::setPinned(true, "/x");
  const std::string before = text();
  storage_.writeShared("pinned.json", " [ \"\\/x\" , \"/x\" ]\n");
  PinStore::setPinned(false, "/y");
  EXPECT_EQ(text(), before);
  PinStore::setPinned(false, "/x");
  EXPECT_EQ(text(), "[]");
}

TEST_F(PinStoreTest, AnyValidArrayOfTextsIsRead) {
  for (const char* contents : {R"(["/x"])", R"(["/z","/x","/a"])", R"( [ "\/x" ] )",
                               R"(["\u002fx","/x","/x"])", "\xEF\xBB\xBF[\"/x\"]"}) {
    storage_.writeShared("pinned.json", contents);
    EXPECT_TRUE(PinStore::isPinned("/x")) << contents;
    EXPECT_FALSE(PinStore::isPinned("/y")) << contents;
  }
}

TEST_F(PinStoreTest, AFileThatIsNoArrayOfTextsHoldsNoPinsAndIsReplaced) {
  const std::string deep(100'000, '[');
  const std::string cases[] = {
      "",
      "{}",
      R"({"/x":true})",
      "null",
      "\"/x\"",
      R"(["/x",5])",
      R"(["/x",null])",
      R"([["/x"]])",
      R"(["/x",)",
      R"(["/x"]x)",
      "[\"/x\",\"\xFF\"]",
      R"(["/x","\ud800"])",
      deep,
      deep + std::string(100'000, ']'),
      std::string("\x00\x01\x02", 3),
  };
  for (const auto& contents : cases) {
    storage_.writeShared("pinned.json", contents);
    EXPECT_FALSE(PinStore::isPinned("/x")) << contents.substr(0, 40);
    PinStore::setPinned(true, "/new");
    EXPECT_EQ(text(), "[\"\\/new\"]") << contents.substr(0, 40);
  }
}

TEST_F(PinStoreTest, WhateverLiesInTheFilesPlaceHoldsNoPins) {
  storage_.makeSharedPipe("pinned.json");
  EXPECT_FALSE(PinStore::isPinned("/x"));
  PinStore::setPinned(true, "/x");
  EXPECT_EQ(text(), "[\"\\/x\"]");

  storage_.makeSharedHugeFile("pinned.json", 1ULL << 40U);
  EXPECT_FALSE(PinStore::isPinned("/x"));
  PinStore::setPinned(true, "/y");
  EXPECT_EQ(text(), "[\"\\/y\"]");

  storage_.makeSharedDirectory("pinned.json");
  EXPECT_FALSE(PinStore::isPinned("/x"));
  PinStore::setPinned(true, "/x");  // lost: a directory is not replaced
  EXPECT_FALSE(PinStore::isPinned("/x"));
}

TEST_F(PinStoreTest, ChangesThatCannotBeWrittenAreLostSilently) {
  const support::CapturingLogSink log;
  PinStore::setPinned(true, "/x");
  const std::string before = text();
  PinStore::setPinned(true, "/\xFF");
  EXPECT_EQ(text(), before);
  EXPECT_FALSE(PinStore::isPinned("/\xFF"));

  storage_.blockShared();
  PinStore::setPinned(true, "/y");
  EXPECT_FALSE(PinStore::isPinned("/x"));
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(PinStoreTest, EveryQuestionReadsTheFileAnew) {
  storage_.writeShared("pinned.json", "[]");
  support::FileOpens opens(file());
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(PinStore::isPinned("/x"));
    EXPECT_EQ(opens.take(), 1U);
  }
  storage_.writeShared("pinned.json", R"(["/x"])");
  EXPECT_TRUE(PinStore::isPinned("/x"));
}

TEST_F(PinStoreTest, LiesInTheDirectoryOfTheConfiguration) {
  EXPECT_EQ(PinStore::configDir(), SharedConfig::configDir());
  EXPECT_EQ(PinStore::configDir(), storage_.shared());
  fs::remove_all(storage_.applicationSupport());
  PinStore::configDir();
  EXPECT_TRUE(fs::is_directory(storage_.shared()));
}

TEST_F(PinStoreTest, NothingLiesBesideTheFile) {
  for (int i = 0; i < 5; ++i) PinStore::setPinned(i % 2 == 0, "/x");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(storage_.shared()))
    names.push_back(entry.path().filename());
  EXPECT_THAT(names, ElementsAre("pinned.json"));
}

TEST_F(PinStoreTest, StrangePathsSurvive) {
  const std::string path = "/quote\" back\\ line\n null" + std::string(1, '\0') + "/..//\x7F";
  PinStore::setPinned(true, path);
  PinStore::setPinned(true, "");
  EXPECT_TRUE(PinStore::isPinned(path));
  EXPECT_TRUE(PinStore::isPinned(""));
  EXPECT_FALSE(PinStore::isPinned("/quote\" back\\ line\n null"));
}

TEST_F(PinStoreTest, ChangesFromTwoProcessesLoseNothing) {
  constexpr int kPins = 100;
  const auto pinAll = [](const std::string& prefix) {
    for (int i = 0; i < kPins; ++i) PinStore::setPinned(true, prefix + std::to_string(i));
  };
  const pid_t other = ::fork();
  if (other == 0) {
    pinAll("/theirs/");
    ::_exit(0);
  }
  ASSERT_GT(other, 0);
  pinAll("/ours/");
  int status = -1;
  ASSERT_EQ(::waitpid(other, &status, 0), other);
  ASSERT_EQ(status, 0);
  for (int i = 0; i < kPins; ++i) {
    EXPECT_TRUE(PinStore::isPinned("/ours/" + std::to_string(i))) << i;
    EXPECT_TRUE(PinStore::isPinned("/theirs/" + std::to_string(i))) << i;
  }
}

TEST_F(PinStoreTest, ChangesFromManyThreadsLoseNothingWhileOthersRead) {
  constexpr int kThreads = 6;
  constexpr int kPins = 20;
  std::atomic<bool> stop = false;
  PinStore::setPinned(true, "/always");
  std::thread reader([&stop] {
    while (!stop) EXPECT_TRUE(PinStore::isPinned("/always"));
  });
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < kPins; ++i) {
        const std::string path = "/" + std::to_string(t) + "/" + std::to_string(i);
        PinStore::setPinned(true, path);
        if (i % 2 == 1) PinStore::setPinned(false, path);
      }
    });
  }
  for (auto& writer : writers) writer.join();
  stop = true;
  reader.join();
  const auto pins = platform::Json::parse(text()).get<std::vector<std::string>>();
  EXPECT_EQ(pins.size(), 1U + kThreads * kPins / 2);
  EXPECT_TRUE(std::is_sorted(pins.begin(), pins.end()));
}

}  // namespace
}  // namespace kestrune
