// The bridge from callbacks to coroutines: a task suspends until somebody, on any thread, resumes
// it with a value or an error, exactly once.
//
//     auto reply = co_await suspendUntilResumed<Reply>(start);   // start hands the continuation to
//     the callback side
//
// If every copy of a continuation is dropped without resuming, the task is resumed with an error
// that says so: a task is never left suspended for ever.
//
// Threads: `resume` and `fail` may be called on any thread; the task goes on on its own executor,
// never on that thread.
#pragma once

#include <atomic>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/cancellation_type.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cassert>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "platform/tasks/Task.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

/// The value of a continuation that carries none.
struct Unit {};

template <class T>
class Continuation {
 public:
  /// Lets the task go on with `value`. A second resumption is ignored and returns false.
  bool resume(T value) const { return state_->complete(nullptr, std::move(value)); }
  /// Lets the task go on by throwing `error`.
  bool fail(std::exception_ptr error) const {
    return state_->complete(std::move(error), std::nullopt);
  }
  template <class Error>
  bool fail(const Error& error) const {
    return fail(std::make_exception_ptr(error));
  }

  struct State {
    virtual ~State() = default;
    bool complete(std::exception_ptr error, std::optional<T> value) {
      if (resumed_.exchange(true)) return false;
      error_ = std::move(error);
      value_ = std::move(value);
      arrive();
      return true;
    }
    /// `begin` has returned.
    void begun() { arrive(); }

   protected:
    virtual void deliver() = 0;

    std::atomic<bool> resumed_ = false;
    // Written by whoever resumes, read by whoever delivers.
    std::exception_ptr error_;
    std::optional<T> value_;

   private:
    /// The second to arrive, of the resumption and the end of `begin`, lets the task go on.
    void arrive() {
      if (arrivals_.fetch_add(1) == 1) deliver();
    }
    std::atomic<int> arrivals_ = 0;
  };
  explicit Continuation(std::shared_ptr<State> state) : state_(std::move(state)) {}

 private:
  std::shared_ptr<State> state_;
};

namespace detail {

template <class T, class Handler>
struct ContinuationState final : Continuation<T>::State {
  explicit ContinuationState(Handler handler) : handler_(std::move(handler)) {}
  ~ContinuationState() override {
    if (this->resumed_) return;
    this->error_ = std::make_exception_ptr(
        NSCocoaError(NSCocoaError::fileReadUnknown, "an operation ended without an answer"));
    deliver();
  }

 protected:
  void deliver() override {
    auto executor = boost::asio::get_associated_executor(handler_);
    boost::asio::post(executor, [handler = std::move(handler_), error = std::move(this->error_),
                                 value = std::move(this->value_)]() mutable {
      // The coroutine takes `onCancel` out of its slot itself.
      handler(std::move(error), std::move(value));
    });
  }

 private:
  Handler handler_;
};

}  // namespace detail

/// Suspends the calling task, calls `begin` with its continuation on the task's thread, and returns
/// what it is resumed with (or throws what it is failed with, or what `begin` throws). The task
/// does not go on before `begin` has returned, so `begin` may use the task's variables throughout.
/// `onCancel`, if given, is called on the task's executor when the task is cancelled while
/// suspended, and after `begin` if it is cancelled already; it may be called after the continuation
/// was resumed, and must then do nothing.
template <class T>
Task<T> suspendUntilResumed(std::function<void(Continuation<T>)> begin,
                            std::function<void()> onCancel = nullptr) {
  using Signature = void(std::exception_ptr, std::optional<T>);
  const auto cancellation = co_await boost::asio::this_coro::cancellation_state;
  const bool isCancelled = cancellation.cancelled() != boost::asio::cancellation_type::none;
  auto initiate = [&begin, &onCancel, isCancelled](auto handler) {
    using Handler = decltype(handler);
    auto slot = boost::asio::get_associated_cancellation_slot(handler);
    if (onCancel && slot.is_connected()) {
      slot.assign([onCancel](boost::asio::cancellation_type) { onCancel(); });
    }
    auto state = std::make_shared<detail::ContinuationState<T, Handler>>(std::move(handler));
    try {
      begin(Continuation<T>(state));
      if (isCancelled && onCancel) onCancel();
    } catch (...) {
      state->complete(std::current_exception(), std::nullopt);
    }
    state->begun();
  };
  std::optional<T> value =
      co_await boost::asio::async_initiate<const boost::asio::use_awaitable_t<>&, Signature>(
          std::move(initiate), boost::asio::use_awaitable);
  assert(value);  // without a value there was an exception
  co_return std::move(*value);
}

}  // namespace kestrune::platform
