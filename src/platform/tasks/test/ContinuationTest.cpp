#include "platform/tasks/Continuation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/strand.hpp>
#include <memory>
#include <stdexcept>
#include <thread>

#include "platform/tasks/test/Event.h"

namespace kestrune::platform {
namespace {

namespace asio = boost::asio;

template <class T>
using Begin = std::function<void(Continuation<T>)>;

/// A value that cannot be made from nothing or copied.
struct Answer {
  explicit Answer(int number) : number(std::make_unique<int>(number)) {}
  std::unique_ptr<int> number;
};

Task<void> receive(Begin<Answer> begin, int* received) {
  Answer answer = co_await suspendUntilResumed<Answer>(begin);
  *received = *answer.number;
}

int received(Begin<Answer> begin) {
  int number = 0;
  runBlocking(receive(std::move(begin), &number));
  return number;
}

/// The description of the error with which a task ends that is suspended by `begin`.
std::string failureText(Begin<Answer> begin) {
  try {
    const int number = received(std::move(begin));
    ADD_FAILURE() << "received " << number;
  } catch (const std::exception& error) {
    return error.what();
  }
  return "";
}

TEST(ContinuationTest, ValueGivenInsideBeginIsReturned) {
  EXPECT_EQ(
      received([](const Continuation<Answer>& continuation) { continuation.resume(Answer(7)); }),
      7);
}

TEST(ContinuationTest, ValueGivenOnAnotherThreadIsReturned) {
  std::thread other;
  const int number = received([&other](Continuation<Answer> continuation) {
    other =
        std::thread([continuation = std::move(continuation)] { continuation.resume(Answer(8)); });
  });
  other.join();
  EXPECT_EQ(number, 8);
}

TEST(ContinuationTest, ErrorIsThrownWithItsType) {
  EXPECT_THROW(received([](const Continuation<Answer>& continuation) {
                 continuation.fail(NSPOSIXError(ENOENT, "open"));
               }),
               NSPOSIXError);
  EXPECT_THROW(received([](const Continuation<Answer>& continuation) {
                 continuation.fail(std::make_exception_ptr(std::out_of_range("beyond")));
               }),
               std::out_of_range);
}

TEST(ContinuationTest, WhatBeginThrowsIsThrown) {
  EXPECT_EQ(
      failureText([](const Continuation<Answer>&) { throw std::runtime_error("could not begin"); }),
      "could not begin");
}

TEST(ContinuationTest, FirstResumptionCounts) {
  EXPECT_EQ(received([](const Continuation<Answer>& continuation) {
              EXPECT_TRUE(continuation.resume(Answer(1)));
              EXPECT_FALSE(continuation.resume(Answer(2)));
              EXPECT_FALSE(continuation.fail(std::runtime_error("late")));
            }),
            1);
  EXPECT_EQ(failureText([](const Continuation<Answer>& continuation) {
              EXPECT_TRUE(continuation.fail(std::runtime_error("first")));
              EXPECT_FALSE(continuation.resume(Answer(2)));
            }),
            "first");
  EXPECT_EQ(received([](const Continuation<Answer>& continuation) {
              continuation.resume(Answer(3));
              throw std::runtime_error("after the resumption");
            }),
            3);
}

TEST(ContinuationTest, ResumptionAfterTheTaskHasEndedIsIgnored) {
  std::optional<Continuation<Answer>> kept;
  EXPECT_EQ(received([&kept](Continuation<Answer> continuation) {
              continuation.resume(Answer(1));
              kept = std::move(continuation);
            }),
            1);
  EXPECT_FALSE(kept->resume(Answer(2)));
}

TEST(ContinuationTest, DroppedContinuationFailsTheTask) {
  EXPECT_THAT(failureText([](const Continuation<Answer>&) {}),
              testing::HasSubstr("without an answer"));
  std::thread other;
  EXPECT_THAT(failureText([&other](Continuation<Answer> continuation) {
                other = std::thread([continuation = std::move(continuation)] {});
              }),
              testing::HasSubstr("without an answer"));
  other.join();
}

Task<void> awaitAndSet(Begin<Unit> begin, std::shared_ptr<Event> ended) {
  try {
    co_await suspendUntilResumed<Unit>(begin);
  } catch (const NSError&) {
    ended->set();
    throw;
  }
  ended->set();
}

TEST(ContinuationTest, OneCopyThatIsKeptKeepsTheTaskWaiting) {
  std::optional<Continuation<Unit>> kept;
  Event begun;
  const auto ended = std::make_shared<Event>();
  spawnDetached("waits", awaitAndSet(
                             [&](const Continuation<Unit>& continuation) {
                               { const Continuation<Unit> dropped = continuation; }
                               kept = continuation;
                               begun.set();
                             },
                             ended));
  ASSERT_TRUE(begun.wait());
  EXPECT_FALSE(ended->wait(std::chrono::milliseconds(20)));
  EXPECT_TRUE(kept->resume(Unit()));
  EXPECT_TRUE(ended->wait());
}

Task<void> noteThreads(Begin<Unit> begin, std::thread::id* before, std::thread::id* after,
                       bool* onExecutor) {
  *before = std::this_thread::get_id();
  co_await suspendUntilResumed<Unit>(begin);
  *after = std::this_thread::get_id();
  // Inside the pool, dispatching runs at once, on this thread.
  asio::dispatch(sharedExecutor(), [&] { *onExecutor = std::this_thread::get_id() == *after; });
}

TEST(ContinuationTest, TaskGoesOnOnItsExecutorAndBeginRunsOnItsThread) {
  std::thread::id before;
  std::thread::id inBegin;
  std::thread::id after;
  std::thread::id resumer;
  bool onExecutor = false;
  std::thread other;
  runBlocking(noteThreads(
      [&](Continuation<Unit> continuation) {
        inBegin = std::this_thread::get_id();
        other = std::thread([&resumer, continuation = std::move(continuation)] {
          resumer = std::this_thread::get_id();
          continuation.resume(Unit());
        });
      },
      &before, &after, &onExecutor));
  other.join();
  EXPECT_EQ(inBegin, before);
  EXPECT_NE(after, resumer);
  EXPECT_TRUE(onExecutor);
}

TEST(ContinuationTest, TaskDoesNotGoOnBeforeBeginHasReturned) {
  const auto ended = std::make_shared<Event>();
  Event begun;
  spawnDetached("resumed early", awaitAndSet(
                                     [&](const Continuation<Unit>& continuation) {
                                       continuation.resume(Unit());
                                       // The task would run now if it were let go.
                                       EXPECT_FALSE(ended->wait(std::chrono::milliseconds(50)));
                                       begun.set();
                                     },
                                     ended));
  EXPECT_TRUE(begun.wait());
  EXPECT_TRUE(ended->wait());
}

TEST(ContinuationTest, ResumptionAndTheEndOfBeginMayRace) {
  for (int round = 0; round < 2000; ++round) {
    std::thread other;
    ASSERT_EQ(received([&](Continuation<Answer> continuation) {
                other = std::thread([round, continuation = std::move(continuation)] {
                  continuation.resume(Answer(round));
                });
              }),
              round);
    other.join();
  }
}

/// A task that a test can cancel, as a group would.
class Cancellable {
 public:
  explicit Cancellable(Task<void> task) : shared_(std::make_shared<Shared>()) {
    auto done = [shared = shared_](const std::exception_ptr& error) {
      shared->error = error;
      shared->ended.set();
    };
    asio::co_spawn(shared_->strand, std::move(task),
                   asio::bind_cancellation_slot(shared_->signal.slot(), std::move(done)));
  }

  void cancel() {
    asio::post(shared_->strand,
               [shared = shared_] { shared->signal.emit(asio::cancellation_type::terminal); });
  }
  bool endsWithin(std::chrono::milliseconds patience) { return shared_->ended.wait(patience); }
  /// Null if it ended without one.
  std::exception_ptr error() {
    EXPECT_TRUE(shared_->ended.wait());
    return shared_->error;
  }

 private:
  struct Shared {
    asio::strand<asio::any_io_executor> strand = asio::make_strand(sharedExecutor());
    asio::cancellation_signal signal;
    Event ended;
    std::exception_ptr error;  // written before `ended`
  };
  std::shared_ptr<Shared> shared_;
};

Task<void> suspend(Begin<Unit> begin, std::function<void()> onCancel) {
  co_await asio::this_coro::throw_if_cancelled(false);
  co_await suspendUntilResumed<Unit>(begin, onCancel);
}

/// What a test knows of an operation that can be cancelled.
struct Operation {
  Mutex mutex;
  std::optional<Continuation<Unit>> continuation GUARDED_BY(mutex);
  Event begun;
  std::atomic<int> cancellations = 0;

  Begin<Unit> begin() {
    return [this](Continuation<Unit> given) {
      MutexLock lock(mutex);
      continuation = std::move(given);
      begun.set();
    };
  }
  bool resume() {
    MutexLock lock(mutex);
    return continuation->resume(Unit());
  }
  std::function<void()> onCancel() {
    return [this] {
      ++cancellations;
      MutexLock lock(mutex);
      continuation->fail(CancellationError());
    };
  }
};

TEST(ContinuationTest, CancellationReachesTheOperation) {
  Operation operation;
  Cancellable task(suspend(operation.begin(), operation.onCancel()));
  ASSERT_TRUE(operation.begun.wait());
  EXPECT_EQ(operation.cancellations, 0);
  EXPECT_FALSE(task.endsWithin(std::chrono::milliseconds(0)));
  task.cancel();
  EXPECT_THROW(std::rethrow_exception(task.error()), CancellationError);
  EXPECT_EQ(operation.cancellations, 1);
}

TEST(ContinuationTest, WithoutCancellationTheOperationIsLeftAlone) {
  Operation operation;
  Cancellable task(suspend(operation.begin(), operation.onCancel()));
  ASSERT_TRUE(operation.begun.wait());
  EXPECT_TRUE(operation.resume());
  EXPECT_EQ(task.error(), nullptr);
  EXPECT_EQ(operation.cancellations, 0);
}

Task<void> suspendInterruptiblyFirst(Operation* first, Operation* second) {
  co_await asio::this_coro::throw_if_cancelled(false);
  co_await suspendUntilResumed<Unit>(first->begin(), first->onCancel());
  co_await suspendUntilResumed<Unit>(second->begin());
}

TEST(ContinuationTest, CancellationDoesNotReachAnOperationThatHasEnded) {
  Operation first;
  Operation second;
  Cancellable task(suspendInterruptiblyFirst(&first, &second));
  ASSERT_TRUE(first.begun.wait());
  EXPECT_TRUE(first.resume());
  ASSERT_TRUE(second.begun.wait());
  task.cancel();
  // The strand takes the cancellation first and the resumption after it.
  EXPECT_TRUE(second.resume());
  EXPECT_EQ(task.error(), nullptr);
  EXPECT_EQ(first.cancellations, 0);
}

TEST(ContinuationTest, WaitThatCannotBeCancelledGoesOn) {
  Operation operation;
  Cancellable task(suspend(operation.begin(), nullptr));
  ASSERT_TRUE(operation.begun.wait());
  task.cancel();
  EXPECT_FALSE(task.endsWithin(std::chrono::milliseconds(20)));
  EXPECT_TRUE(operation.resume());
  EXPECT_EQ(task.error(), nullptr);
}

Task<void> suspendTwice(Operation* first, Operation* second) {
  co_await asio::this_coro::throw_if_cancelled(false);
  co_await suspendUntilResumed<Unit>(first->begin());
  co_await suspendUntilResumed<Unit>(second->begin(), second->onCancel());
}

TEST(ContinuationTest, TaskThatIsCancelledAlreadyCancelsWhatItBegins) {
  Operation first;
  Operation second;
  Cancellable task(suspendTwice(&first, &second));
  ASSERT_TRUE(first.begun.wait());
  task.cancel();
  // The strand takes the cancellation first and the resumption after it.
  EXPECT_TRUE(first.resume());
  EXPECT_THROW(std::rethrow_exception(task.error()), CancellationError);
  EXPECT_TRUE(second.begun.isSet());
  EXPECT_EQ(second.cancellations, 1);
}

TEST(ContinuationTest, CancellationAndResumptionMayRace) {
  for (int round = 0; round < 1000; ++round) {
    Operation operation;
    Cancellable task(suspend(operation.begin(), operation.onCancel()));
    ASSERT_TRUE(operation.begun.wait());
    std::thread resumer([&] { operation.resume(); });
    task.cancel();
    resumer.join();
    const std::exception_ptr error = task.error();
    if (error) EXPECT_THROW(std::rethrow_exception(error), CancellationError);
  }
}

}  // namespace
}  // namespace kestrune::platform
