#include "tests/support/RunTask.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/values/NSError.h"
#include "tests/support/ManualTime.h"

namespace kestrune::support {
namespace {

using namespace std::chrono_literals;

// Neither copied nor made without a value, like the results of many tasks.
struct OnlyMoved {
  explicit OnlyMoved(int number) : value(std::make_unique<int>(number)) {}
  std::unique_ptr<int> value;
};

platform::Task<OnlyMoved> giveSeven() { co_return OnlyMoved(7); }

platform::Task<int> fail() {
  throw platform::NSCocoaError(platform::NSCocoaError::fileNoSuchFile, "gone");
  co_return 0;
}

TEST(RunTask, ReturnsValuesThatCanOnlyBeMoved) { EXPECT_EQ(*runTask(giveSeven()).value, 7); }

TEST(RunTask, ThrowsWhatTheTaskThrew) {
  EXPECT_THROW(runTask(fail()), platform::NSCocoaError);
  EXPECT_EQ(failureOf(fail())->localizedDescription(), "gone");
  EXPECT_EQ(failureOf(giveSeven()), nullptr);
}

TEST(RunTask, GivesUpAtItsDeadline) {
  ManualSleeper sleeper(ManualSleeper::Mode::held);
  auto running = startTask(sleeper.sleep(1h));
  EXPECT_THROW(running.value(10ms), std::runtime_error);
  ASSERT_TRUE(sleeper.waitForSleeps(1));
  sleeper.releaseAll();
  EXPECT_TRUE(running.waitUntilDone());
}

}  // namespace
}  // namespace kestrune::support
