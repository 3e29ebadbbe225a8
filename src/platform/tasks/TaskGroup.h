// Structured concurrency: child tasks that run side by side and never outlive the scope that
// started them.
//
//     co_await withTaskGroup<PartResult>([&](TaskGroup<PartResult>& group) -> Task<void> { … });
//
// The group hands out results in the order in which the children end. When the body throws (also by
// rethrowing a child's error out of `next`), the group cancels all children, waits until each has
// ended, and the error goes on.
//
// Cancelling a child interrupts what it waits for or begins to wait for (a sleep, a transfer),
// which then throws its own error in the child, and cancels the children of a group that it waits
// for. A child that waits for nothing goes on to its end.
//
// Threads: a group belongs to the one task that made it; its children run on the shared executor.
#pragma once

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <cassert>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/tasks/Continuation.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

template <class T>
class TaskGroup {
 public:
  TaskGroup() : shared_(std::make_shared<Shared>()) {}
  TaskGroup(const TaskGroup&) = delete;
  TaskGroup& operator=(const TaskGroup&) = delete;
  /// REQUIRES: every child has ended (withTaskGroup sees to it).
  ~TaskGroup() { assert(pending_ == 0); }

  /// Starts `child`. Its arguments must live until the group's scope ends. In a cancelled group it
  /// starts cancelled.
  void add(Task<T> child) {
    ++pending_;
    auto running = std::make_shared<Child>();
    children_.push_back(running);
    auto done = [shared = shared_, running](std::exception_ptr error, T value) {
      shared->put(Result{std::move(error), std::optional<T>(std::move(value))});
    };
    boost::asio::co_spawn(
        running->strand, childBody(std::move(child)),
        boost::asio::bind_cancellation_slot(running->signal.slot(), std::move(done)));
    if (cancelled_) running->cancel();
  }

  /// The result of the next child to end, or nothing when no child is left. Throws the child's
  /// error.
  Task<std::optional<T>> next() {
    if (pending_ == 0) co_return std::nullopt;
    Result result = co_await takeResult();
    if (result.error) std::rethrow_exception(result.error);
    co_return std::move(result.value);
  }

  /// Cancels every child, those running and those still to be added.
  void cancelAll() {
    if (cancelled_) return;
    cancelled_ = true;
    for (const auto& child : children_) child->cancel();
  }

  /// Waits for every child and drops what they return or throw.
  Task<void> drain() {
    while (pending_ > 0) {
      co_await takeResult();
    }
  }

 private:
  struct Result {
    std::exception_ptr error;
    std::optional<T> value;
  };

  // A signal is not safe to use from two threads: it is emitted on the strand on which its child
  // runs.
  struct Child : std::enable_shared_from_this<Child> {
    boost::asio::strand<boost::asio::any_io_executor> strand =
        boost::asio::make_strand(sharedExecutor());
    boost::asio::cancellation_signal signal;
    void cancel() {
      boost::asio::post(strand, [self = this->shared_from_this()] {
        self->signal.emit(boost::asio::cancellation_type::terminal);
      });
    }
  };

  struct Shared {
    Mutex mutex;
    std::deque<Result> results GUARDED_BY(mutex);
    std::optional<Continuation<Result>> waiter GUARDED_BY(mutex);

    void put(Result result) {
      std::optional<Continuation<Result>> resumed;
      {
        MutexLock lock(mutex);
        if (!waiter) {
          results.push_back(std::move(result));
          return;
        }
        resumed = std::exchange(waiter, std::nullopt);
      }
      resumed->resume(std::move(result));
    }

    /// Calls `onCancel` on the owner's executor if the owner is cancelled.
    Task<Result> take(std::function<void()> onCancel) {
      auto begin = [this](Continuation<Result> continuation) {
        Result ready;
        {
          MutexLock lock(mutex);
          if (results.empty()) {
            waiter = std::move(continuation);
            return;
          }
          ready = std::move(results.front());
          results.pop_front();
        }
        continuation.resume(std::move(ready));
      };
      return suspendUntilResumed<Result>(begin, std::move(onCancel));
    }
  };

  /// Asio's default is that in a cancelled task every await throws an error of its own, also those
  /// that have to wait for others. Here each wait says itself whether it can be interrupted.
  static Task<T> childBody(Task<T> child) {
    co_await boost::asio::this_coro::throw_if_cancelled(false);
    co_return co_await std::move(child);
  }

  /// REQUIRES: pending_ > 0.
  Task<Result> takeResult() {
    auto onCancel = [this] { cancelAll(); };
    Result result = co_await shared_->take(onCancel);
    --pending_;
    co_return result;
  }

  // Used by the owning task alone.
  std::shared_ptr<Shared> shared_;
  std::vector<std::shared_ptr<Child>> children_;
  std::size_t pending_ = 0;
  bool cancelled_ = false;
};

/// Runs `body` with a group and returns when every child has ended. `body` is kept until then.
template <class T>
Task<void> withTaskGroup(std::function<Task<void>(TaskGroup<T>&)> body) {
  TaskGroup<T> group;
  std::exception_ptr failure;
  try {
    co_await body(group);
  } catch (...) {
    failure = std::current_exception();
    group.cancelAll();
  }
  co_await group.drain();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace kestrune::platform
