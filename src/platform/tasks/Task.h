// Coroutine tasks on the shared executor.
//
// A Task<T> is a coroutine that starts when it is awaited (or spawned) and ends with a value or an
// exception. Tasks run on the process-wide pool of executor threads; they never block there on the
// network, and file work on them is short.
//
// An unstructured task is started with `spawnDetached`: nobody awaits it, so it owns everything it
// uses (arguments by value) and answers for its own errors. An exception that leaves it is a bug
// and ends the process.
//
// Threads: all functions here may be called from any thread.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "platform/values/Date.h"

namespace kestrune::platform {

template <class T>
using Task = boost::asio::awaitable<T>;

/// The executor that all tasks of the process share. It lives until the process ends.
boost::asio::any_io_executor sharedExecutor();

/// Whether the calling thread is one of the shared executor's, or counts as one.
bool isOnSharedExecutor();

/// While it lives, the calling thread counts as one of the shared executor's: a task that it starts begins on it, before the start
/// returns, and goes on on the others.
class ExecutorScope {
 public:
  ExecutorScope();
  ~ExecutorScope();
  ExecutorScope(const ExecutorScope&) = delete;
  ExecutorScope& operator=(const ExecutorScope&) = delete;

 private:
  const bool previous_;
};

/// Starts `task` on the shared executor and returns at once. `name` says what it does, for the
/// report of a bug. Where the calling thread has a TaskLedger::Scope open, the ledger counts the
/// task.
void spawnDetached(std::string name, Task<void> task);

/// Runs `task` on the shared executor and blocks the calling thread until it ends; its exception is
/// thrown here. REQUIRES: not called on an executor thread. For programs' main threads and tests.
void runBlocking(Task<void> task);

/// Suspends the task. Throws CancellationError as soon as the task is cancelled, at once if it is
/// already.
Task<void> sleepFor(std::chrono::nanoseconds duration);

/// How code that waits between attempts sleeps; tests put a clock of their own behind it.
class Sleeper {
 public:
  virtual ~Sleeper() = default;
  /// Throws CancellationError when the task is cancelled meanwhile.
  virtual Task<void> sleep(std::chrono::nanoseconds duration) = 0;
};

/// Sleeps for real.
class TimerSleeper : public Sleeper {
 public:
  Task<void> sleep(std::chrono::nanoseconds duration) override { return sleepFor(duration); }
};

/// Counts the detached tasks that one thread starts while a Scope is open, so that whoever called
/// an operation can tell when all that it started has ended. A ledger is made held: tasks wait at
/// its gate until `open` is called, which lets the caller finish its own bookkeeping before the
/// first of them runs.
class TaskLedger : public std::enable_shared_from_this<TaskLedger> {
 public:
  static std::shared_ptr<TaskLedger> make();
  /// Opens the gate: a task that was started always runs.
  ~TaskLedger();
  TaskLedger(const TaskLedger&) = delete;
  TaskLedger& operator=(const TaskLedger&) = delete;

  /// While it lives, `spawnDetached` on this thread reports to `ledger`. Scopes nest.
  class Scope {
   public:
    explicit Scope(std::shared_ptr<TaskLedger> ledger);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    std::shared_ptr<TaskLedger> previous_;
  };

  /// Lets the tasks run, those held and those still to come.
  void open();

  /// Calls `handler` once: when every counted task has ended and the gate is open, at once if that
  /// is so now. It runs on the thread that ended the last task, or on the caller's. REQUIRES:
  /// called at most once.
  void whenIdle(std::function<void()> handler);

 private:
  friend void spawnDetached(std::string name, Task<void> task);
  struct State;
  explicit TaskLedger(std::shared_ptr<State> state) : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

}  // namespace kestrune::platform
