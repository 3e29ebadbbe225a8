// Work for the process's main thread: on the platform some objects (the pasteboard) may be touched
// there alone.
//
// A program that offers its main thread calls `open` before it starts what may need it, then `serve`
// on the main thread, which runs what comes until somebody calls `stop`. While the queue is closed,
// work is refused at once: nobody waits for a thread that never comes.
//
//     closed (open serve stop)*      `stop` may come before `serve` is reached
//
// A program whose main thread belongs to a run loop of the system cannot offer it so: it sets a
// dispatcher, which hands work to that loop.
//
// Threads: `run`, `open`, `stop` and `setDispatcher` on any thread, `serve` on the main thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>

#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

/// Whether this is the process's first thread.
bool isMainThread();

class MainQueue {
 public:
  /// The one of this process.
  static MainQueue& shared();

  /// Runs `work` on the main thread and returns when it has run; throws what it throws. Throws
  /// NSCocoaError featureUnsupported while the queue is closed and no dispatcher is set.
  static Task<void> run(std::function<void()> work);

  /// Has a piece of work called on the main thread, once, soon and in its turn, and returns without
  /// waiting for it. Called on any thread, on several at once. It may throw instead of taking the
  /// work: `run` throws the same. Work that it drops uncalled fails at its task.
  using Dispatcher = std::function<void(std::function<void()>)>;
  /// While one is set, `run` hands work to it instead of this queue, open or closed; null takes it
  /// away. What the queue has accepted before stays the queue's.
  void setDispatcher(Dispatcher dispatcher);

  /// Accepts work from now on.
  void open();
  /// Runs accepted work on this thread; returns after `stop`, when all of it has run. REQUIRES:
  /// called on the main thread, after `open`.
  void serve();
  /// Accepts no more work.
  void stop();

 private:
  MainQueue() = default;
  /// False where nobody takes it.
  bool handOver(std::function<void()> work);

  Mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_ GUARDED_BY(mutex_);
  bool isOpen_ GUARDED_BY(mutex_) = false;
  Dispatcher dispatcher_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::platform
