#include "transfer/PrefetchTracker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ManualTime.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kNear = 4'194'304;
constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

class PrefetchTrackerTest : public testing::Test {
 protected:
  /// What is advised, in MiB.
  std::int64_t advise(const std::string& item, std::int64_t start, std::int64_t end) {
    const std::int64_t bytes = tracker_.recordAndAdvise(item, start, end);
    EXPECT_EQ(bytes % kMiB, 0);
    return bytes / kMiB;
  }
  /// Reads 16 MiB at a time, each from the end of the one before, and returns the last advice.
  std::int64_t readOn(const std::string& item, int times) {
    std::int64_t last = 0;
    for (int i = 0; i < times; ++i, offset_ += 16 * kMiB)
      last = advise(item, offset_, offset_ + 16 * kMiB);
    return last;
  }

  const std::shared_ptr<support::ManualClock> clock_ = std::make_shared<support::ManualClock>();
  PrefetchTracker tracker_{clock_};
  std::int64_t offset_ = 0;
};

TEST_F(PrefetchTrackerTest, StartsEmpty) { EXPECT_EQ(tracker_.recordCount(), 0U); }

TEST_F(PrefetchTrackerTest, ReadingOnGrowsTheAdviceUpTo128MiB) {
  for (const std::int64_t expected : {32, 64, 128, 128, 128, 128, 128, 128, 128, 128, 128})
    EXPECT_EQ(readOn("a", 1), expected);
  EXPECT_EQ(tracker_.recordCount(), 1U);
}

TEST_F(PrefetchTrackerTest, AFirstRequestCountsAsNearIfItStartsBelow4MiB) {
  const struct {
    std::int64_t start;
    std::int64_t advice;
  } cases[] = {{0, 32},        {1, 32},  {kNear - 1, 32},  {kNear, 16},
               {kHighest, 16}, {-1, 32}, {-kNear + 1, 32}, {-kNear, 16}};
  int item = 0;
  for (const auto& [start, advice] : cases)
    EXPECT_EQ(advise(std::to_string(item++), start, start), advice) << start;
}

TEST_F(PrefetchTrackerTest, OnlyTheDistanceFromTheLastEndCounts) {
  const struct {
    std::int64_t step;
    std::int64_t advice;
  } cases[] = {{0, 64},      {kNear - 1, 64}, {kNear, 16},        {-kNear + 1, 64},
               {-kNear, 16}, {kNear + 1, 16}, {1'000'000'000, 16}};
  int item = 0;
  for (const auto& [step, advice] : cases) {
    const std::string name = std::to_string(item++);
    EXPECT_EQ(advise(name, 0, 100 * kMiB), 32);
    EXPECT_EQ(advise(name, 100 * kMiB + step, 100 * kMiB + step), advice) << step;
  }
}

TEST_F(PrefetchTrackerTest, TheEndThatWasAskedForIsRemembered) {
  EXPECT_EQ(advise("a", 0, 50 * kMiB), 32);
  EXPECT_EQ(advise("a", 50 * kMiB, 10 * kMiB), 64);  // an end before the start is an end
  EXPECT_EQ(advise("a", 10 * kMiB, 20 * kMiB), 128);
}

TEST_F(PrefetchTrackerTest, AJumpEndsAnyStreakAtOnce) {
  for (const int length : {1, 2, 3, 8, 9, 40}) {
    const std::string item = std::to_string(length);
    readOn(item, length);
    EXPECT_EQ(advise(item, offset_ + 100 * kMiB, offset_ + 100 * kMiB), 16) << length;
    offset_ += 100 * kMiB;
    EXPECT_EQ(readOn(item, 1), 32) << length;
    offset_ = 0;
  }
}

TEST_F(PrefetchTrackerTest, ItemsHaveStreaksOfTheirOwn) {
  for (const std::int64_t expected : {32, 64, 128, 128}) {
    const std::int64_t start = offset_;
    EXPECT_EQ(readOn("a", 1), expected);
    EXPECT_EQ(advise("b", start, start + 16 * kMiB), expected);
  }
  EXPECT_EQ(advise("c", 500 * kMiB, 500 * kMiB), 16);
  EXPECT_EQ(readOn("a", 1), 128);
  EXPECT_EQ(tracker_.recordCount(), 3U);
}

TEST_F(PrefetchTrackerTest, ARecordUnusedForMoreThan300SecondsGoesAtTheNextCall) {
  readOn("a", 3);
  clock_->advance(300s);
  advise("b", 0, 0);
  EXPECT_EQ(tracker_.recordCount(), 2U);
  EXPECT_EQ(readOn("a", 1), 128);  // exactly 300 s: still there

  clock_->advance(300s + 1us);
  EXPECT_EQ(tracker_.recordCount(), 2U);  // time alone evicts nothing
  advise("c", 0, 0);
  EXPECT_EQ(tracker_.recordCount(), 1U);
  EXPECT_EQ(readOn("a", 1), 16);  // from the beginning, and far from 0
}

TEST_F(PrefetchTrackerTest, AnOldRecordThatNoCallEvictedStillCounts) {
  readOn("a", 3);
  clock_->advance(1h);
  EXPECT_EQ(readOn("a", 1), 128);
  EXPECT_EQ(tracker_.recordCount(), 1U);
}

TEST_F(PrefetchTrackerTest, EachUseKeepsARecordForAnother300Seconds) {
  for (int i = 0; i < 5; ++i) {
    readOn("a", 1);
    clock_->advance(200s);
    advise("other", 0, 0);
  }
  EXPECT_EQ(readOn("a", 1), 128);
}

TEST_F(PrefetchTrackerTest, AClockThatGoesBackEvictsNothing) {
  readOn("a", 3);
  clock_->advance(-24h);
  advise("b", 0, 0);
  EXPECT_EQ(readOn("a", 1), 128);
}

TEST_F(PrefetchTrackerTest, AnyTextNamesAnItem) {
  for (const std::string& item :
       {std::string(), std::string("/a\0b", 4), std::string("/a"), std::string("\xFF")})
    EXPECT_EQ(advise(item, 0, 0), 32);
  EXPECT_EQ(tracker_.recordCount(), 4U);
}

TEST_F(PrefetchTrackerTest, ManyThreadsLoseNoStep) {
  constexpr int kThreads = 8;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string own = "own " + std::to_string(t);
      for (std::int64_t i = 0; i < 200; ++i) {
        tracker_.recordAndAdvise(own, i, i + 1);
        tracker_.recordAndAdvise("shared", 0, 0);
      }
      EXPECT_EQ(tracker_.recordAndAdvise(own, 200, 201), 128 * kMiB);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(tracker_.recordCount(), kThreads + 1U);
}

TEST_F(PrefetchTrackerTest, TheFarthestOffsetsThatStillHaveADistanceAreFine) {
  EXPECT_EQ(advise("a", kHighest, kHighest), 16);
  EXPECT_EQ(advise("a", 0, 0), 16);  // kHighest away
  EXPECT_EQ(advise("a", -kHighest, 0), 16);
}

using PrefetchTrackerDeathTest = PrefetchTrackerTest;

TEST_F(PrefetchTrackerDeathTest, ADistanceThatDoesNotFit64BitsEndsTheProcess) {
  const struct {
    std::int64_t lastEnd;
    std::int64_t start;
  } cases[] = {{0, kLowest},   {1, kLowest},        {-1, kHighest},     {kLowest, 0},
               {kHighest, -1}, {kHighest, kLowest}, {kLowest, kHighest}};
  for (const auto& [lastEnd, start] : cases) {
    advise("a", 0, lastEnd);
    EXPECT_DEATH(advise("a", start, 0), "does not fit 64 bits") << lastEnd << " " << start;
    tracker_.recordAndAdvise("a", lastEnd, 0);
  }
}

}  // namespace
}  // namespace kestrune
