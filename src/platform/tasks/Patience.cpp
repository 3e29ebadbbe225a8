#include "platform/tasks/Patience.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <memory>
#include <utility>

#include "platform/tasks/Continuation.h"

namespace kestrune::platform {

namespace {

Task<void> runThenResume(Task<void> task, Continuation<bool> ended) {
  co_await std::move(task);
  ended.resume(true);
}

}  // namespace

Task<bool> startAndWaitAtMost(std::chrono::nanoseconds limit, std::string name, Task<void> task) {
  auto executor = co_await boost::asio::this_coro::executor;
  boost::asio::steady_timer timer(executor, limit);
  auto begin = [&](Continuation<bool> continuation) {
    timer.async_wait(
        [continuation](const boost::system::error_code&) { continuation.resume(false); });
    spawnDetached(std::move(name), runThenResume(std::move(task), continuation));
  };
  const bool hasEnded = co_await suspendUntilResumed<bool>(begin);
  // The timer is this coroutine's alone again: its handler is posted to the same executor, and
  // whichever resumption came second was ignored.
  timer.cancel();
  co_return hasEnded;
}

}  // namespace kestrune::platform
