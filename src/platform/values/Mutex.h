// A mutex that clang's thread-safety analysis understands, so that each guarded field can name its
// lock and a missing lock fails the build. Nothing else is added to std::mutex.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KESTRUNE_TSA(x) __attribute__((x))
#else
#define KESTRUNE_TSA(x)
#endif

#define GUARDED_BY(m) KESTRUNE_TSA(guarded_by(m))
#define REQUIRES_LOCK(m) KESTRUNE_TSA(requires_capability(m))
#define EXCLUDES_LOCK(m) KESTRUNE_TSA(locks_excluded(m))

namespace kestrune::platform {

class KESTRUNE_TSA(capability("mutex")) Mutex {
 public:
  void lock() KESTRUNE_TSA(acquire_capability()) { mutex_.lock(); }
  void unlock() KESTRUNE_TSA(release_capability()) { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds a Mutex for a scope. `wait` releases it while it waits, like std::condition_variable.
class KESTRUNE_TSA(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KESTRUNE_TSA(acquire_capability(mutex)) : lock_(mutex.mutex_) {}
  ~MutexLock() KESTRUNE_TSA(release_capability()) {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void wait(std::condition_variable& condition) { condition.wait(lock_); }

  /// False when `deadline` passed first.
  template <class TimePoint>
  bool waitUntil(std::condition_variable& condition, const TimePoint& deadline) {
    return condition.wait_until(lock_, deadline) == std::cv_status::no_timeout;
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace kestrune::platform
