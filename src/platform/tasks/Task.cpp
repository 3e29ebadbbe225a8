#include "platform/tasks/Task.h"

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace asio = boost::asio;

namespace kestrune::platform {

namespace {

// A few more threads than cores: short file work on one of them must not keep answers from being
// delivered.
std::size_t executorThreads() {
  return std::max<std::size_t>(4, std::thread::hardware_concurrency());
}

asio::thread_pool& pool() {
  // Never destroyed: detached tasks may run until the process ends.
  static auto* const instance = new asio::thread_pool(executorThreads());
  return *instance;
}

[[noreturn]] void reportEscaped(const std::string& name, const NSErrorPtr& error) {
  std::fprintf(stderr, "kestrune: task '%s' ended with an error that nobody handles: %s\n",
               name.c_str(), error->localizedDescription().c_str());
  std::abort();
}

thread_local std::shared_ptr<TaskLedger> currentLedger;
thread_local bool isInScope = false;  // an ExecutorScope

// The pool's executor, which takes the threads in an ExecutorScope for threads of the pool.
// https://www.boost.org/doc/libs/1_81_0/doc/html/boost_asio/std_executors.html has what an executor must offer.
class SharedExecutor {
 public:
  explicit SharedExecutor(bool mayRunHere) : mayRunHere_(mayRunHere) {}

  asio::execution_context& query(asio::execution::context_t) const noexcept { return pool(); }
  asio::execution::blocking_t query(asio::execution::blocking_t) const noexcept {
    if (mayRunHere_) return asio::execution::blocking.possibly;
    return asio::execution::blocking.never;
  }
  SharedExecutor require(asio::execution::blocking_t::never_t) const {
    return SharedExecutor(false);
  }
  SharedExecutor require(asio::execution::blocking_t::possibly_t) const {
    return SharedExecutor(true);
  }
  template <class Work>
  void execute(Work&& work) const {
    if (!mayRunHere_) {
      asio::require(pool().get_executor(), asio::execution::blocking.never)
          .execute(std::forward<Work>(work));
    } else if (isInScope) {
      std::decay_t<Work> here(std::forward<Work>(work));
      here();
    } else {
      pool().get_executor().execute(std::forward<Work>(work));
    }
  }
  bool operator==(const SharedExecutor&) const noexcept = default;

 private:
  bool mayRunHere_;
};

}  // namespace

asio::any_io_executor sharedExecutor() { return SharedExecutor(true); }

bool isOnSharedExecutor() { return isInScope || pool().get_executor().running_in_this_thread(); }

ExecutorScope::ExecutorScope() : previous_(std::exchange(isInScope, true)) {}

ExecutorScope::~ExecutorScope() { isInScope = previous_; }

struct TaskLedger::State {
  Mutex mutex;
  bool isOpen GUARDED_BY(mutex) = false;
  std::size_t running GUARDED_BY(mutex) = 0;
  std::vector<std::function<void()>> held GUARDED_BY(mutex);
  std::function<void()> idleHandler GUARDED_BY(mutex);

  void start(std::function<void()> launch) {
    {
      MutexLock lock(mutex);
      ++running;
      if (!isOpen) {
        held.push_back(std::move(launch));
        return;
      }
    }
    launch();
  }

  void open() {
    std::vector<std::function<void()>> launches;
    std::function<void()> handler;
    {
      MutexLock lock(mutex);
      isOpen = true;
      launches.swap(held);
      if (running == 0) handler = std::exchange(idleHandler, nullptr);
    }
    for (auto& launch : launches) launch();
    if (handler) handler();
  }

  void ended() {
    std::function<void()> handler;
    {
      MutexLock lock(mutex);
      assert(running > 0);
      if (--running == 0) handler = std::exchange(idleHandler, nullptr);
    }
    if (handler) handler();
  }
};

std::shared_ptr<TaskLedger> TaskLedger::make() {
  return std::shared_ptr<TaskLedger>(new TaskLedger(std::make_shared<State>()));
}

TaskLedger::Scope::Scope(std::shared_ptr<TaskLedger> ledger)
    : previous_(std::exchange(currentLedger, std::move(ledger))) {}

TaskLedger::Scope::~Scope() { currentLedger = std::move(previous_); }

TaskLedger::~TaskLedger() { open(); }

void TaskLedger::open() { state_->open(); }

void TaskLedger::whenIdle(std::function<void()> handler) {
  {
    MutexLock lock(state_->mutex);
    assert(!state_->idleHandler);
    if (state_->running > 0 || !state_->isOpen) {
      state_->idleHandler = std::move(handler);
      return;
    }
  }
  handler();
}

void spawnDetached(std::string name, Task<void> task) {
  auto ended = [name = std::move(name)](const std::exception_ptr& exception) {
    if (exception) reportEscaped(name, errorFrom(exception));
  };
  if (!currentLedger) {
    asio::co_spawn(sharedExecutor(), std::move(task), std::move(ended));
    return;
  }
  auto state = currentLedger->state_;
  // std::function wants a copyable target; the task is not, so it waits in a shared place.
  auto waiting = std::make_shared<Task<void>>(std::move(task));
  state->start([state, waiting, ended = std::move(ended)]() {
    asio::co_spawn(sharedExecutor(), std::move(*waiting),
                   [state, ended](const std::exception_ptr& exception) {
                     ended(exception);
                     state->ended();
                   });
  });
}

void runBlocking(Task<void> task) {
  assert(!isOnSharedExecutor());
  std::promise<void> promise;
  auto done = promise.get_future();
  asio::co_spawn(sharedExecutor(), std::move(task),
                 [&promise](const std::exception_ptr& exception) {
                   if (exception) {
                     promise.set_exception(exception);
                   } else {
                     promise.set_value();
                   }
                 });
  done.get();
}

Task<void> sleepFor(std::chrono::nanoseconds duration) {
  const auto cancellation = co_await asio::this_coro::cancellation_state;
  if (cancellation.cancelled() != asio::cancellation_type::none) throw CancellationError();
  auto executor = co_await asio::this_coro::executor;
  asio::steady_timer timer(executor, duration);
  bool cancelled = false;
  try {
    co_await timer.async_wait(asio::use_awaitable);
  } catch (const boost::system::system_error& error) {
    if (error.code() != asio::error::operation_aborted) throw;
    cancelled = true;
  }
  if (cancelled) throw CancellationError();
}

}  // namespace kestrune::platform
