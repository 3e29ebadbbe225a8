#include "platform/tasks/TaskGroup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/tasks/test/Event.h"

namespace kestrune::platform {
namespace {

using Group = TaskGroup<int>;
using Body = std::function<Task<void>(Group&)>;

constexpr std::chrono::hours kLong(1);

/// Points where children wait until the test lets them go on, by number, and what became of the
/// children.
class Stage {
 public:
  /// Suspends the calling child; no cancellation interrupts this. Throws what the test fails it
  /// with.
  Task<Unit> waitFor(int number) {
    return suspendUntilResumed<Unit>([this, number](Continuation<Unit> continuation) {
      MutexLock lock(mutex_);
      waiting_.emplace(number, std::move(continuation));
      changed_.notify_all();
    });
  }

  void letGo(int number) { take(number).resume(Unit()); }
  void fail(int number, const std::string& text) { take(number).fail(std::runtime_error(text)); }

  /// Waits until a child has come to `number`.
  void expectAt(int number) {
    MutexLock lock(mutex_);
    EXPECT_TRUE(waitUntil(lock, number));
  }

  std::atomic<int> ended = 0;
  std::atomic<int> cancelled = 0;

 private:
  bool waitUntil(MutexLock& lock, int number) REQUIRES_LOCK(mutex_) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!waiting_.contains(number)) {
      if (!lock.waitUntil(changed_, deadline)) return false;
    }
    return true;
  }

  Continuation<Unit> take(int number) {
    MutexLock lock(mutex_);
    if (!waitUntil(lock, number)) throw std::runtime_error("no child came to the point");
    auto node = waiting_.extract(number);
    return std::move(node.mapped());
  }

  Mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Continuation<Unit>> waiting_ GUARDED_BY(mutex_);
};

/// Waits until `count` has come to `number`.
bool reaches(const std::atomic<int>& count, int number) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (count < number && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  return count >= number;
}

Task<int> returning(int number) { co_return number; }

/// Waits at the stage, then returns its number.
Task<int> staged(Stage* stage, int number) {
  co_await stage->waitFor(number);
  ++stage->ended;
  co_return number;
}

/// Sleeps until it is cancelled.
Task<int> sleeping(Stage* stage, int number) {
  try {
    co_await sleepFor(kLong);
  } catch (const CancellationError&) {
    ++stage->cancelled;
  }
  ++stage->ended;
  co_return number;
}

/// Waits at the stage, where no cancellation reaches it, and then tries to sleep.
Task<int> sleepingAfterwards(Stage* stage, int number) {
  co_await stage->waitFor(number);
  co_return co_await sleeping(stage, number);
}

void run(Body body) { runBlocking(withTaskGroup<int>(std::move(body))); }

/// Runs `body` on a thread of its own, so that the test can act meanwhile.
class Running {
 public:
  explicit Running(Body body)
      : thread_([this, body = std::move(body)] {
          try {
            run(body);
          } catch (const std::exception& error) {
            text_ = error.what();
          }
          ended_.set();
        }) {}
  ~Running() { thread_.join(); }

  bool endsWithin(std::chrono::milliseconds patience) { return ended_.wait(patience); }
  /// The text of the exception with which the group's scope ended; empty without one.
  std::string error() {
    EXPECT_TRUE(ended_.wait());
    return text_;
  }

 private:
  Event ended_;
  std::string text_;  // written before `ended_`
  std::thread thread_;
};

Task<void> expectNoResult(Group* group) {
  auto result = co_await group->next();
  EXPECT_FALSE(result);
}

TEST(TaskGroupTest, EmptyGroupHasNoResult) {
  run([](Group& group) { return expectNoResult(&group); });
}

/// Takes results until none is left, and counts them in `received` if it is given.
Task<void> collect(Group* group, std::vector<int>* results, std::atomic<int>* received = nullptr) {
  for (;;) {
    auto result = co_await group->next();
    if (!result) break;
    results->push_back(*result);
    if (received != nullptr) ++*received;
  }
  auto afterTheLast = co_await group->next();
  EXPECT_FALSE(afterTheLast);
}

TEST(TaskGroupTest, ResultsComeInTheOrderInWhichChildrenEnd) {
  Stage stage;
  std::vector<int> results;
  std::atomic<int> received = 0;
  Running running([&](Group& group) {
    for (int number = 0; number < 4; ++number) group.add(staged(&stage, number));
    return collect(&group, &results, &received);
  });
  int ended = 0;
  for (const int number : {2, 0, 3, 1}) {
    EXPECT_EQ(received, ended);
    stage.letGo(number);
    // A child has ended when its result is there: what it counts itself comes a little earlier.
    ASSERT_TRUE(reaches(received, ++ended));
  }
  EXPECT_EQ(running.error(), "");
  EXPECT_EQ(results, (std::vector<int>{2, 0, 3, 1}));
}

TEST(TaskGroupTest, ManyChildrenAllReportOnce) {
  std::vector<int> results;
  run([&](Group& group) {
    for (int number = 0; number < 2000; ++number) group.add(returning(number));
    return collect(&group, &results);
  });
  std::sort(results.begin(), results.end());
  ASSERT_EQ(results.size(), 2000U);
  for (int number = 0; number < 2000; ++number)
    EXPECT_EQ(results[static_cast<std::size_t>(number)], number);
}

/// Ends at once, without asking for results.
Task<void> leave() { co_return; }

Task<void> throwError(std::string text) {
  throw std::runtime_error(text);
  co_return;
}

TEST(TaskGroupTest, ScopeWaitsForChildrenThatNobodyAskedAbout) {
  Stage stage;
  Running running([&](Group& group) {
    group.add(staged(&stage, 1));
    group.add(staged(&stage, 2));
    return leave();
  });
  stage.letGo(1);
  stage.expectAt(2);
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20)));
  stage.letGo(2);
  EXPECT_EQ(running.error(), "");
  EXPECT_EQ(stage.ended, 2);
}

TEST(TaskGroupTest, ErrorsOfChildrenThatNobodyAskedAboutAreDropped) {
  Stage stage;
  Running running([&](Group& group) {
    group.add(staged(&stage, 1));
    group.add(staged(&stage, 2));
    return leave();
  });
  stage.fail(1, "dropped");
  stage.letGo(2);
  EXPECT_EQ(running.error(), "");
}

TEST(TaskGroupTest, ErrorOfTheBodyCancelsTheChildrenAndWaitsForThem) {
  Stage stage;
  Running running([&](Group& group) {
    for (int number = 0; number < 3; ++number) group.add(sleeping(&stage, number));
    group.add(staged(&stage, 3));  // no cancellation reaches this one
    return throwError("the body failed");
  });
  stage.expectAt(3);
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20)));
  stage.letGo(3);
  EXPECT_EQ(running.error(), "the body failed");
  EXPECT_EQ(stage.ended, 4);
  EXPECT_EQ(stage.cancelled, 3);
}

TEST(TaskGroupTest, ErrorOfAChildCancelsTheOthersAndGoesOn) {
  Stage stage;
  std::vector<int> results;
  Running running([&](Group& group) {
    group.add(staged(&stage, 1));
    for (int number = 10; number < 13; ++number) group.add(sleeping(&stage, number));
    group.add(staged(&stage, 2));
    return collect(&group, &results);
  });
  stage.expectAt(2);
  stage.fail(1, "the part failed");
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20))) << "one child is still running";
  stage.letGo(2);
  EXPECT_EQ(running.error(), "the part failed");
  EXPECT_EQ(stage.cancelled, 3);
  EXPECT_EQ(stage.ended, 4);
}

Task<void> cancelThenAdd(Group* group, Stage* stage) {
  group->cancelAll();
  group->add(sleeping(stage, 1));
  auto result = co_await group->next();
  EXPECT_EQ(result, 1);
  group->cancelAll();
  group->add(returning(2));
  auto second = co_await group->next();
  EXPECT_EQ(second, 2) << "a child that waits for nothing is not interrupted";
}

TEST(TaskGroupTest, ChildOfACancelledGroupStartsCancelled) {
  Stage stage;
  run([&](Group& group) { return cancelThenAdd(&group, &stage); });
  EXPECT_EQ(stage.cancelled, 1);
}

Task<void> cancelAt(Group* group, Stage* stage, int number) {
  co_await stage->waitFor(number);
  group->cancelAll();
}

TEST(TaskGroupTest, SleepThatBeginsAfterTheCancellationIsInterruptedToo) {
  Stage stage;
  Running running([&](Group& group) {
    group.add(sleepingAfterwards(&stage, 1));
    group.add(sleeping(&stage, 2));
    return cancelAt(&group, &stage, 100);
  });
  stage.expectAt(1);
  stage.letGo(100);
  ASSERT_TRUE(reaches(stage.cancelled, 1)) << "the cancellation has been given to all";
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20)));
  stage.letGo(1);
  EXPECT_EQ(running.error(), "");
  EXPECT_EQ(stage.cancelled, 2);
}

/// Sleeps, and lets a cancellation through.
Task<int> interrupted() {
  co_await sleepFor(kLong);
  co_return 0;
}

Task<void> cancelAndAsk(Group* group) {
  group->cancelAll();
  auto result = co_await group->next();
  ADD_FAILURE() << "a result: " << *result;
}

TEST(TaskGroupTest, InterruptedSleepThrowsACancellationError) {
  Body body = [](Group& group) {
    group.add(interrupted());
    return cancelAndAsk(&group);
  };
  EXPECT_THROW(run(body), CancellationError);
}

/// A child with a group of its own: one child sleeps, the other waits at the stage.
Task<int> nesting(Stage* stage, int number) {
  std::vector<int> results;
  Body body = [stage, number, &results](Group& group) {
    group.add(sleeping(stage, 0));
    group.add(staged(stage, number));
    return collect(&group, &results);
  };
  co_await withTaskGroup<int>(body);
  ++stage->ended;
  co_return number;
}

/// Waits at the stage, and has a group of its own after that.
Task<int> nestingAfterwards(Stage* stage, int first, int number) {
  co_await stage->waitFor(first);
  co_return co_await nesting(stage, number);
}

TEST(TaskGroupTest, CancelledChildCancelsItsOwnGroupAndWaitsForIt) {
  Stage stage;
  Running running([&](Group& group) {
    group.add(nesting(&stage, 1));
    return cancelAt(&group, &stage, 100);
  });
  stage.expectAt(1);
  stage.letGo(100);
  ASSERT_TRUE(reaches(stage.cancelled, 1));
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20)));
  EXPECT_TRUE(reaches(stage.ended, 1));
  EXPECT_EQ(stage.ended, 1) << "the inner group is still waited for";
  stage.letGo(1);
  EXPECT_EQ(running.error(), "");
  EXPECT_EQ(stage.ended, 3);
}

TEST(TaskGroupTest, GroupOfAChildThatIsCancelledAlreadyStartsCancelled) {
  Stage stage;
  Running running([&](Group& group) {
    group.add(nestingAfterwards(&stage, 1, 2));
    group.add(sleeping(&stage, 3));
    return cancelAt(&group, &stage, 100);
  });
  stage.expectAt(1);
  stage.letGo(100);
  ASSERT_TRUE(reaches(stage.cancelled, 1));
  stage.letGo(1);
  ASSERT_TRUE(reaches(stage.cancelled, 2));
  EXPECT_FALSE(running.endsWithin(std::chrono::milliseconds(20)));
  stage.letGo(2);
  EXPECT_EQ(running.error(), "");
}

TEST(TaskGroupTest, CancellationMayRaceWithTheEndsOfChildren) {
  for (int round = 0; round < 100; ++round) {
    Stage stage;
    EXPECT_THROW(run([&](Group& group) {
                   for (int number = 0; number < 10; ++number) {
                     group.add(sleeping(&stage, number));
                     group.add(returning(number));
                   }
                   return throwError("stop");
                 }),
                 std::runtime_error);
    EXPECT_EQ(stage.cancelled, 10);
  }
}

}  // namespace
}  // namespace kestrune::platform
