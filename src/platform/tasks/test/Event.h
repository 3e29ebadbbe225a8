// Something that happens once, for tests that order threads by events instead of by time.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>

#include "platform/values/Mutex.h"

namespace kestrune::platform {

class Event {
 public:
  void set() {
    // Notified under the lock: a waiter may destroy the event as soon as it has seen it.
    MutexLock lock(mutex_);
    isSet_ = true;
    changed_.notify_all();
  }

  bool isSet() {
    MutexLock lock(mutex_);
    return isSet_;
  }

  /// Waits until it has happened; false if `patience` ends first.
  [[nodiscard]] bool wait(std::chrono::milliseconds patience = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    MutexLock lock(mutex_);
    while (!isSet_) {
      if (!lock.waitUntil(changed_, deadline)) return isSet_;
    }
    return true;
  }

 private:
  Mutex mutex_;
  std::condition_variable changed_;
  bool isSet_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::platform
