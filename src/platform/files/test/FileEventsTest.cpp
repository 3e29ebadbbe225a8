#include "platform/files/FileEvents.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class FileEventsTest : public testing::Test {
 protected:
  FileEventsTest() {
    events_.begin();
    watch_ = events_.watch(directory_.path().c_str(), IN_CLOSE_WRITE);
  }
  // The names of what is queued.
  std::vector<std::string> taken() {
    std::vector<std::string> names;
    events_.take([&](const FileEvents::Event& event) {
      EXPECT_EQ(event.watch, watch_);
      names.emplace_back(event.name);
    });
    return names;
  }

  support::TemporaryDirectory directory_;
  FileEvents events_;
  int watch_ = -1;
};

TEST_F(FileEventsTest, EventsComeInOrderWithTheirNames) {
  EXPECT_TRUE(taken().empty());
  const std::string longest(255, 'x');
  for (const char* name : {"a", "sixteen bytes 16", longest.c_str()}) directory_.write(name, "");
  EXPECT_TRUE(events_.wait(FileEvents::kForEver));
  EXPECT_EQ(taken(), (std::vector<std::string>{"a", "sixteen bytes 16", longest}));
  EXPECT_TRUE(taken().empty());
}

TEST_F(FileEventsTest, MoreThanOneReadIsTakenInOneCall) {
  for (int i = 0; i < 2000; ++i) directory_.write(std::to_string(i), "");
  EXPECT_EQ(taken().size(), 2000U);
}

TEST_F(FileEventsTest, AWatchThatIsForgottenTellsOnlyThat) {
  events_.forget(watch_);
  directory_.write("a", "");
  std::vector<std::uint32_t> kinds;
  events_.take([&](const FileEvents::Event& event) { kinds.push_back(event.kinds); });
  EXPECT_EQ(kinds, std::vector<std::uint32_t>{IN_IGNORED});
}

TEST_F(FileEventsTest, ANewBeginningForgetsWatchesAndEvents) {
  const auto openFiles = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = openFiles();
  directory_.write("a", "");
  events_.begin();
  directory_.write("b", "");
  EXPECT_TRUE(taken().empty());
  watch_ = events_.watch(directory_.path().c_str(), IN_CLOSE_WRITE);
  directory_.write("c", "");
  EXPECT_EQ(taken(), std::vector<std::string>{"c"});
  EXPECT_EQ(openFiles(), before);
}

TEST_F(FileEventsTest, WhatCannotBeWatchedIsToldWithItsReason) {
  EXPECT_EQ(events_.watch((directory_.path() / "missing").c_str(), IN_CREATE), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileEventsTest, StopEndsEveryWait) {
  std::thread other([this] { events_.stop(); });
  EXPECT_FALSE(events_.wait(FileEvents::kForEver));
  other.join();
  EXPECT_FALSE(events_.pause(FileEvents::kForEver));
  EXPECT_FALSE(events_.wait(milliseconds(0)));
}

TEST_F(FileEventsTest, WaitsEndByThemselvesAndAPauseIsNotCutShort) {
  EXPECT_TRUE(events_.wait(milliseconds(1)));
  directory_.write("a", "");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(events_.pause(milliseconds(20)));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(19));
  EXPECT_EQ(taken(), std::vector<std::string>{"a"});
}

}  // namespace
}  // namespace kestrune::platform
