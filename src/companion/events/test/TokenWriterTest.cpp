#include "companion/events/TokenWriter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "companion/configuration/CommandError.h"
#include "platform/values/Mutex.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using support::staysTrue;
using support::waitUntil;

/// When tokens were written.
class Tokens {
 public:
  void write() {
    platform::MutexLock lock(mutex_);
    times_.push_back(Clock::now());
  }
  std::vector<Clock::time_point> times() const {
    platform::MutexLock lock(mutex_);
    return times_;
  }
  std::size_t count() const { return times().size(); }

 private:
  mutable platform::Mutex mutex_;
  std::vector<Clock::time_point> times_ GUARDED_BY(mutex_);
};

TEST(TokenWriter, WritesNothingUnasked) {
  Tokens tokens;
  TokenWriter writer([&] { tokens.write(); }, 1ms);
  EXPECT_TRUE(staysTrue([&] { return tokens.count() == 0; }, 100ms));
}

TEST(TokenWriter, WishesInARowAreGrantedTogetherAndTheLastIsNotLost) {
  Tokens tokens;
  TokenWriter writer([&] { tokens.write(); }, 100ms);
  const auto begun = Clock::now();
  for (int i = 0; i < 200; ++i) {
    writer.want();
    std::this_thread::sleep_for(2ms);
  }
  const auto last = Clock::now();
  writer.want();
  EXPECT_TRUE(waitUntil([&] { return tokens.times().back() >= last; }));
  const auto times = tokens.times();
  EXPECT_LT(times.front() - begun, 100ms);
  const auto most = (times.back() - begun) / 100ms + 2;
  EXPECT_LE(static_cast<long>(times.size()), most);
  EXPECT_GE(times.size(), 3U);
}

TEST(TokenWriter, WhatIsWishedForAtTheEndIsWritten) {
  Tokens tokens;
  {
    TokenWriter writer([&] { tokens.write(); }, 1h);
    writer.want();
    ASSERT_TRUE(waitUntil([&] { return tokens.count() == 1; }));
    writer.want();
  }
  EXPECT_EQ(tokens.count(), 2U);
}

TEST(TokenWriter, RepeatsAsLongAsItIsTold) {
  Tokens tokens;
  TokenWriter writer([&] { tokens.write(); }, 1ms);
  const auto begun = Clock::now();
  writer.repeatEvery(50ms);
  ASSERT_TRUE(waitUntil([&] { return tokens.count() >= 3; }));
  EXPECT_GE(tokens.times()[2] - begun, 145ms);
  writer.repeatEvery(std::nullopt);
  std::this_thread::sleep_for(20ms);  // one may have been on its way
  const auto before = tokens.count();
  EXPECT_TRUE(staysTrue([&] { return tokens.count() == before; }, 200ms));
}

TEST(TokenWriter, AFailureIsLoggedOnceAndTriedAgain) {
  const support::CapturingLogSink log;
  std::atomic<int> attempts = 0;
  TokenWriter writer(
      [&] {
        ++attempts;
        throw CommandError("no room for a token");
      },
      1ms);
  writer.repeatEvery(10ms);
  ASSERT_TRUE(waitUntil([&] { return attempts >= 4; }));
  EXPECT_EQ(log.messages(), std::vector<std::string>{"no room for a token"});
}

}  // namespace
}  // namespace kestrune
