// Work for the process's main thread: on the platform some objects (the pasteboard) may be touched
// there alone.
//
// A program that offers its main thread calls `open` before it starts what may need it, then `serve`
// on the main thread, which runs what comes until somebody calls `stop`. While the queue is closed,
// work is refused at once: nobody waits for a thread that never comes.
//
//     closed (open serve stop)*      `stop` may come before `serve` is reached
//
// Threads: `run`, `open` and `stop` on any thread, `serve` on the main thread.
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
  /// NSCocoaError featureUnsupported while the queue is closed.
  static Task<void> run(std::function<void()> work);

  /// Accepts work from now on.
  void open();
  /// Runs accepted work on this thread; returns after `stop`, when all of it has run. REQUIRES:
  /// called on the main thread, after `open`.
  void serve();
  /// Accepts no more work.
  void stop();

 private:
  MainQueue() = default;
  bool enqueue(std::function<void()> work);

  Mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> queue_ GUARDED_BY(mutex_);
  bool isOpen_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::platform
