// Running coroutines from a test's own thread.
//
//     EXPECT_EQ(runTask(session.data(request)).response.statusCode, 200);
//
//     auto running = startTask(session.data(request));      // goes on beside the test
//     EXPECT_FALSE(running.isDone());
//     running.cancel();
//     EXPECT_EQ(running.failure()->code(), URLError::cancelled);
//
// A task that does not end before the deadline is a failed test: std::runtime_error is thrown, and
// the task is left running, since nothing could join it.
//
// Threads: an object belongs to one thread; tasks run on the shared executor.
#pragma once

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "platform/tasks/Continuation.h"
#include "platform/tasks/Task.h"
#include "platform/values/NSError.h"

namespace kestrune::support {

inline constexpr std::chrono::seconds kTaskDeadline{30};

namespace detail {

template <class T>
struct TaskOutcome {
  using Value = std::conditional_t<std::is_void_v<T>, platform::Unit, T>;
  std::optional<Value> value;
  std::promise<void> ended;
};

// The value goes into a slot of its own, because the executor's own way of returning it wants a
// default constructor.
template <class T>
platform::Task<void> keepOutcome(platform::Task<T> task, std::shared_ptr<TaskOutcome<T>> outcome) {
  // As in a group's child: each wait says itself whether a cancellation interrupts it.
  co_await boost::asio::this_coro::throw_if_cancelled(false);
  if constexpr (std::is_void_v<T>) {
    co_await std::move(task);
    outcome->value.emplace();
  } else {
    T value = co_await std::move(task);
    outcome->value.emplace(std::move(value));
  }
}

}  // namespace detail

/// A task that was started and has perhaps not ended. Dropping the object leaves the task running.
template <class T>
class RunningTask {
 public:
  explicit RunningTask(platform::Task<T> task)
      : outcome_(std::make_shared<Outcome>()), control_(std::make_shared<Control>()) {
    ended_ = outcome_->ended.get_future();
    auto done = [outcome = outcome_, control = control_](const std::exception_ptr& error) {
      if (error) {
        outcome->ended.set_exception(error);
      } else {
        outcome->ended.set_value();
      }
    };
    boost::asio::co_spawn(
        control_->strand, detail::keepOutcome<T>(std::move(task), outcome_),
        boost::asio::bind_cancellation_slot(control_->signal.slot(), std::move(done)));
  }

  bool isDone() const {
    return ended_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }

  /// False when `deadline` passed first.
  [[nodiscard]] bool waitUntilDone(std::chrono::milliseconds deadline = kTaskDeadline) const {
    return ended_.wait_for(deadline) == std::future_status::ready;
  }

  /// Cancels the task, as its group would.
  void cancel() {
    boost::asio::post(control_->strand, [control = control_] {
      control->signal.emit(boost::asio::cancellation_type::terminal);
    });
  }

  /// Waits for the value, or throws what the task threw. REQUIRES: neither this nor `failure` was
  /// called before.
  T value(std::chrono::milliseconds deadline = kTaskDeadline) {
    if (!waitUntilDone(deadline))
      throw std::runtime_error("the task did not end before the deadline");
    ended_.get();
    if constexpr (!std::is_void_v<T>) return std::move(*outcome_->value);
  }

  /// Waits for the end and returns the error; null if there was none. REQUIRES: as `value`.
  platform::NSErrorPtr failure(std::chrono::milliseconds deadline = kTaskDeadline) {
    if (!waitUntilDone(deadline))
      throw std::runtime_error("the task did not end before the deadline");
    try {
      ended_.get();
    } catch (...) {
      return platform::currentError();
    }
    return nullptr;
  }

 private:
  using Outcome = detail::TaskOutcome<T>;
  // A signal may be used on one thread at a time: it is emitted on the strand on which the task
  // runs.
  struct Control {
    boost::asio::strand<boost::asio::any_io_executor> strand =
        boost::asio::make_strand(platform::sharedExecutor());
    boost::asio::cancellation_signal signal;
  };
  std::shared_ptr<Outcome> outcome_;
  std::shared_ptr<Control> control_;
  std::future<void> ended_;
};

/// Starts `task` beside the test.
template <class T>
RunningTask<T> startTask(platform::Task<T> task) {
  return RunningTask<T>(std::move(task));
}

/// Runs `task` to its end and returns its value, or throws what it threw.
template <class T>
T runTask(platform::Task<T> task, std::chrono::milliseconds deadline = kTaskDeadline) {
  return RunningTask<T>(std::move(task)).value(deadline);
}

/// Runs `task` to its end and returns its error; null if it had none.
template <class T>
platform::NSErrorPtr failureOf(platform::Task<T> task,
                               std::chrono::milliseconds deadline = kTaskDeadline) {
  return RunningTask<T>(std::move(task)).failure(deadline);
}

}  // namespace kestrune::support
