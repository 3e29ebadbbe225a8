#include "platform/tasks/MainQueue.h"

#include <exception>
#include <utility>

#if defined(__APPLE__)
#include <pthread.h>
#else
#include <unistd.h>
#endif

#include "platform/tasks/Continuation.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

bool isMainThread() {
#if defined(__APPLE__)
  return pthread_main_np() != 0;
#else
  return ::gettid() == ::getpid();
#endif
}

MainQueue& MainQueue::shared() {
  static auto* const instance = new MainQueue;  // outlives every task that may still ask
  return *instance;
}

Task<void> MainQueue::run(std::function<void()> work) {
  // An error crosses from the main thread to the task's as a value; thrown, it would be one
  // exception object on two threads.
  // NOLINTNEXTLINE(performance-unnecessary-value-param): a reference would be one in a coroutine
  auto begin = [&work](Continuation<NSErrorPtr> continuation) {
    const bool accepted = shared().handOver([&work, continuation] {
      NSErrorPtr failure;
      try {
        work();
      } catch (...) {
        failure = currentError();
      }
      continuation.resume(std::move(failure));
    });
    if (!accepted) {
      throw NSCocoaError(NSCocoaError::featureUnsupported,
                         "The main thread of this program takes no work.");
    }
  };
  const NSErrorPtr failure = co_await suspendUntilResumed<NSErrorPtr>(begin);
  if (failure) failure->raise();
}

bool MainQueue::handOver(std::function<void()> work) {
  Dispatcher dispatcher;
  {
    MutexLock lock(mutex_);
    if (!dispatcher_) {
      if (!isOpen_) return false;
      queue_.push_back(std::move(work));
      changed_.notify_all();
      return true;
    }
    dispatcher = dispatcher_;
  }
  dispatcher(std::move(work));
  return true;
}

void MainQueue::setDispatcher(Dispatcher dispatcher) {
  MutexLock lock(mutex_);
  dispatcher_.swap(dispatcher);
}

void MainQueue::open() {
  MutexLock lock(mutex_);
  isOpen_ = true;
}

void MainQueue::serve() {
  for (;;) {
    std::function<void()> work;
    {
      MutexLock lock(mutex_);
      while (queue_.empty() && isOpen_) lock.wait(changed_);
      if (queue_.empty()) return;
      work = std::move(queue_.front());
      queue_.pop_front();
    }
    work();
  }
}

void MainQueue::stop() {
  MutexLock lock(mutex_);
  isOpen_ = false;
  changed_.notify_all();
}

}  // namespace kestrune::platform
