#include "platform/tasks/Patience.h"

#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/this_coro.hpp>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/tasks/Continuation.h"
#include "platform/tasks/test/Event.h"

namespace kestrune::platform {
namespace {

namespace asio = boost::asio;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using Clock = std::chrono::steady_clock;

/// A task that waits until the test lets it go on; owned by the task too, which may outlive a test.
class Errand {
 public:
  using Ptr = std::shared_ptr<Errand>;

  static Task<void> run(Ptr self) {
    auto begin = [self](Continuation<Unit> continuation) {
      {
        MutexLock lock(self->mutex_);
        self->continuation_ = std::move(continuation);
      }
      self->begun.set();
    };
    co_await suspendUntilResumed<Unit>(begin);
    self->ended.set();
  }

  /// REQUIRES: it has begun.
  void letGo() {
    std::optional<Continuation<Unit>> continuation;
    {
      MutexLock lock(mutex_);
      continuation = std::exchange(continuation_, std::nullopt);
    }
    continuation->resume(Unit());
  }

  Event begun;
  Event ended;

 private:
  Mutex mutex_;
  std::optional<Continuation<Unit>> continuation_ GUARDED_BY(mutex_);
};

Task<void> nothing() { co_return; }

Task<void> failing() {
  throw std::runtime_error("it failed");
  co_return;
}

Task<void> store(std::optional<bool>* result, nanoseconds limit, Task<void> task) {
  *result = co_await startAndWaitAtMost(limit, "errand", std::move(task));
}

std::optional<bool> waitAtMost(nanoseconds limit, Task<void> task) {
  std::optional<bool> result;
  runBlocking(store(&result, limit, std::move(task)));
  return result;
}

Task<void> storeThenSet(std::shared_ptr<std::optional<bool>> result, nanoseconds limit,
                        Task<void> task, std::shared_ptr<Event> set) {
  *result = co_await startAndWaitAtMost(limit, "errand", std::move(task));
  set->set();
}

TEST(PatienceTest, TaskThatEndsAtOnceHasEnded) { EXPECT_EQ(waitAtMost(hours(1), nothing()), true); }

TEST(PatienceTest, WaitsForTheTaskAndNoLonger) {
  const auto errand = std::make_shared<Errand>();
  const auto result = std::make_shared<std::optional<bool>>();
  const auto returned = std::make_shared<Event>();
  spawnDetached("waits", storeThenSet(result, hours(1), Errand::run(errand), returned));
  ASSERT_TRUE(errand->begun.wait());
  EXPECT_FALSE(returned->wait(milliseconds(20)));
  errand->letGo();
  ASSERT_TRUE(returned->wait());
  EXPECT_EQ(*result, true);
  EXPECT_TRUE(errand->ended.isSet());
}

TEST(PatienceTest, GivesUpAfterTheLimitWhileTheTaskGoesOn) {
  const auto errand = std::make_shared<Errand>();
  const auto before = Clock::now();
  EXPECT_EQ(waitAtMost(milliseconds(30), Errand::run(errand)), false);
  EXPECT_GE(Clock::now() - before, milliseconds(30));
  ASSERT_TRUE(errand->begun.wait());
  EXPECT_FALSE(errand->ended.isSet());
  errand->letGo();
  EXPECT_TRUE(errand->ended.wait()) << "its end is nobody's business, and harmless";
}

TEST(PatienceTest, WithoutPatienceTheTaskIsStartedAllTheSame) {
  for (const auto limit : {milliseconds(0), milliseconds(-1000)}) {
    const auto errand = std::make_shared<Errand>();
    EXPECT_EQ(waitAtMost(limit, Errand::run(errand)), false);
    ASSERT_TRUE(errand->begun.wait());
    errand->letGo();
    EXPECT_TRUE(errand->ended.wait());
  }
}

TEST(PatienceTest, TaskDoesNotStartBeforeItIsAwaited) {
  const auto errand = std::make_shared<Errand>();
  { const Task<bool> wait = startAndWaitAtMost(hours(1), "errand", Errand::run(errand)); }
  EXPECT_FALSE(errand->begun.wait(milliseconds(20)));
}

/// A context of the test's own thread. It is never destroyed: the thread that hands it the last
/// piece of work may still be waking it when the test has ended.
asio::io_context& ownContext() {
  static auto* const context = new asio::io_context;
  context->restart();
  return *context;
}

// A context runs until nothing is left to wait for, timers included.
TEST(PatienceTest, NoTimerIsLeftWhenTheTaskHasEnded) {
  asio::io_context& context = ownContext();
  std::optional<bool> result;
  std::exception_ptr failure;
  asio::co_spawn(context, store(&result, hours(1), nothing()),
                 [&failure](const std::exception_ptr& error) { failure = error; });
  context.run_for(std::chrono::seconds(30));
  EXPECT_TRUE(context.stopped()) << "something is still waited for";
  EXPECT_EQ(failure, nullptr);
  EXPECT_EQ(result, true);
}

TEST(PatienceTest, GoesOnOnItsOwnExecutor) {
  asio::io_context& context = ownContext();
  std::optional<bool> result;
  asio::co_spawn(context, store(&result, milliseconds(0), nothing()),
                 [](const std::exception_ptr&) {});
  context.run_for(std::chrono::seconds(30));
  EXPECT_TRUE(result.has_value()) << "nobody else moves what runs on this context";
}

Task<void> storeInTheEnd(std::optional<bool>* result, Errand::Ptr errand) {
  co_await asio::this_coro::throw_if_cancelled(false);
  Task<void> task = Errand::run(std::move(errand));
  *result = co_await startAndWaitAtMost(hours(1), "errand", std::move(task));
}

TEST(PatienceTest, CancellationOfTheWaitingTaskIsNoneOfTheErrand) {
  asio::io_context& context = ownContext();
  asio::cancellation_signal signal;
  const auto errand = std::make_shared<Errand>();
  std::optional<bool> result;
  asio::co_spawn(context, storeInTheEnd(&result, errand),
                 asio::bind_cancellation_slot(signal.slot(), [](const std::exception_ptr&) {}));
  ASSERT_TRUE([&] {
    while (!errand->begun.isSet()) context.run_one_for(milliseconds(10));
    return true;
  }());
  signal.emit(asio::cancellation_type::terminal);
  context.run_for(milliseconds(20));
  EXPECT_FALSE(result.has_value());
  errand->letGo();
  context.run_for(std::chrono::seconds(30));
  EXPECT_EQ(result, true);
  EXPECT_TRUE(errand->ended.isSet());
}

TEST(PatienceTest, TheEndAndTheLimitMayRace) {
  for (int round = 0; round < 300; ++round) {
    const auto errand = std::make_shared<Errand>();
    const auto result = std::make_shared<std::optional<bool>>();
    const auto returned = std::make_shared<Event>();
    const std::chrono::microseconds limit(round);
    spawnDetached("waits", storeThenSet(result, limit, Errand::run(errand), returned));
    ASSERT_TRUE(errand->begun.wait());
    errand->letGo();
    ASSERT_TRUE(returned->wait());
    ASSERT_TRUE(errand->ended.wait());
    EXPECT_TRUE(result->has_value());
  }
}

TEST(PatienceDeathTest, TaskThatThrowsIsABugAndNamed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(waitAtMost(hours(1), failing()),
               "task 'errand' ended with an error that nobody handles: it failed");
}

}  // namespace
}  // namespace kestrune::platform
