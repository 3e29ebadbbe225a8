#include "tests/support/ManualTime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/RunTask.h"

namespace kestrune::support {
namespace {

using ::testing::ElementsAre;
using namespace std::chrono_literals;

TEST(ManualClock, StandsStillUntilMoved) {
  ManualClock clock;
  const platform::Date start = clock.now();
  EXPECT_EQ(clock.now(), start);
  clock.advance(5s);
  EXPECT_EQ(clock.now() - start, 5s);
}

TEST(ManualSleeper, EndsAutomaticSleepsAtOnceAndRemembersThem) {
  ManualSleeper sleeper;
  runTask(sleeper.sleep(1h));
  runTask(sleeper.sleep(2h));
  EXPECT_THAT(sleeper.durations(), ElementsAre(1h, 2h));
}

TEST(ManualSleeper, HoldsSleepsUntilTheyAreReleasedInOrder) {
  ManualSleeper sleeper(ManualSleeper::Mode::held);
  auto first = startTask(sleeper.sleep(1s));
  ASSERT_TRUE(sleeper.waitForSleeps(1));
  auto second = startTask(sleeper.sleep(2s));
  ASSERT_TRUE(sleeper.waitForSleeps(2));
  EXPECT_FALSE(first.isDone());
  EXPECT_TRUE(sleeper.release());
  EXPECT_TRUE(first.waitUntilDone());
  EXPECT_FALSE(second.isDone());
  sleeper.releaseAll();
  EXPECT_TRUE(second.waitUntilDone());
  EXPECT_FALSE(sleeper.release());
}

TEST(ManualSleeper, ThrowsWhereTheTaskIsCancelled) {
  ManualSleeper sleeper(ManualSleeper::Mode::held);
  auto sleep = startTask(sleeper.sleep(1s));
  ASSERT_TRUE(sleeper.waitForSleeps(1));
  sleep.cancel();
  EXPECT_THROW(sleep.value(), platform::CancellationError);
  EXPECT_EQ(sleeper.sleeping(), 0U);
}

}  // namespace
}  // namespace kestrune::support
