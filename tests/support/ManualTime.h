// Time that the test moves: a clock that stands still, and a sleeper whose sleeps end when the test
// says so.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <vector>

#include "platform/tasks/Continuation.h"
#include "platform/tasks/Task.h"
#include "platform/values/Date.h"
#include "platform/values/Mutex.h"

namespace kestrune::support {

/// Shows the same time until it is moved.
class ManualClock : public platform::Clock {
 public:
  /// Begins at 2024-05-01T12:00:00Z unless told otherwise.
  ManualClock();
  explicit ManualClock(platform::Date start) : now_(start) {}

  platform::Date now() const override;
  void advance(std::chrono::microseconds duration);
  void set(platform::Date date);

 private:
  mutable platform::Mutex mutex_;
  platform::Date now_ GUARDED_BY(mutex_);
};

/// Records how long everybody wanted to sleep. In the mode `automatic` each sleep ends at once; in
/// the mode `held` each lasts until `release`, or until its task is cancelled, when it throws
/// CancellationError. It must outlive the sleeps.
class ManualSleeper : public platform::Sleeper {
 public:
  enum class Mode { automatic, held };
  explicit ManualSleeper(Mode mode = Mode::automatic) : mode_(mode) {}

  platform::Task<void> sleep(std::chrono::nanoseconds duration) override;

  /// What was asked for, in order, sleeps that have ended included.
  std::vector<std::chrono::nanoseconds> durations() const;
  /// How many sleep now.
  std::size_t sleeping() const;
  /// Waits until `count` sleeps have begun since the start; false when `deadline` passed first.
  [[nodiscard]] bool waitForSleeps(
      std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
  /// Ends the sleep that began first. False if nobody sleeps.
  bool release();
  /// Ends all sleeps, and every later one at once.
  void releaseAll();

 private:
  using Wakeup = platform::Continuation<platform::Unit>;
  struct Sleep {
    std::size_t number;
    Wakeup wakeup;
  };
  void begin(std::size_t number, std::chrono::nanoseconds duration, Wakeup wakeup);
  void cancel(std::size_t number);

  mutable platform::Mutex mutex_;
  Mode mode_ GUARDED_BY(mutex_);
  std::size_t nextNumber_ GUARDED_BY(mutex_) = 0;
  std::vector<std::chrono::nanoseconds> durations_ GUARDED_BY(mutex_);
  std::deque<Sleep> sleeps_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::support
