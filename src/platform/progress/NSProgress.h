// Progress of one operation: how many of how many units are done. The extension returns one per
// call and moves it; the system shows it and may cancel it; observers hear of every change.
//
// Threads: every operation may be called from any thread. Observers run on the thread that made the
// change, one at a time and in the order of the changes: the last call that an observer gets sees
// the last value. An observer may itself change the progress, end its observation or ask anything
// of the progress. Fails: nothing here fails.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/values/Mutex.h"

namespace kestrune::platform {

class NSProgress {
 public:
  class Observation;
  class Capture;

  /// What an observer is told. `fractionCompleted` is completed ÷ total, 0 where total is 0 or
  /// less.
  struct Snapshot {
    std::int64_t totalUnitCount;
    std::int64_t completedUnitCount;
    double fractionCompleted() const;
    bool operator==(const Snapshot&) const = default;
  };
  using Observer = std::function<void(const Snapshot&)>;

  explicit NSProgress(std::int64_t totalUnitCount);
  ~NSProgress();
  NSProgress(const NSProgress&) = delete;
  NSProgress& operator=(const NSProgress&) = delete;

  Snapshot snapshot() const;
  std::int64_t totalUnitCount() const { return snapshot().totalUnitCount; }
  std::int64_t completedUnitCount() const { return snapshot().completedUnitCount; }
  double fractionCompleted() const { return snapshot().fractionCompleted(); }

  /// Sets a count and tells the observers if it changed.
  void setTotalUnitCount(std::int64_t units);
  void setCompletedUnitCount(std::int64_t units);
  /// Adds to the completed count as one step: two threads adding 1 always make 2.
  void addCompletedUnits(std::int64_t units);
  /// Raises the completed count to `units` if it is lower; never lowers it.
  void raiseCompletedUnitCount(std::int64_t units);

  /// Marks the progress as cancelled and runs the cancellation handler, once, on this thread.
  /// Whether the work stops is the handler's business: without one, cancelling changes nothing but
  /// `isCancelled`.
  void cancel();
  bool isCancelled() const;
  /// Runs at once, on this thread, if the progress is cancelled already.
  void setCancellationHandler(std::function<void()> handler);

  /// Calls `observer` after every change from now on (not for the present value). The observation
  /// ends when the returned object is destroyed or `invalidate` is called on it.
  [[nodiscard]] Observation observe(Observer observer);

  /// Calls `observer` with the present value, before it returns, and after every change; keeps it
  /// until this progress is destroyed, and destroys it then. For what shows a progress without being
  /// asked to. REQUIRES: `observer` does not own this progress.
  void mirror(Observer observer);

 private:
  struct Registration;
  struct Captured;
  template <class Change>
  void change(const Change& apply);

  mutable Mutex mutex_;
  Snapshot counts_ GUARDED_BY(mutex_);
  bool cancelled_ GUARDED_BY(mutex_) = false;
  std::function<void()> cancellationHandler_ GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<Registration>> observers_ GUARDED_BY(mutex_);
  std::vector<Observation> mirrors_ GUARDED_BY(mutex_);

  const std::shared_ptr<Captured> captured_;

  // Held while observers run, so that they run one at a time; recursive, because an observer may
  // change the progress.
  std::recursive_mutex delivery_;
};

/// The right to be told. Movable; ends in its destructor.
class NSProgress::Observation {
 public:
  Observation() = default;
  explicit Observation(std::shared_ptr<Registration> registration)
      : registration_(std::move(registration)) {}
  Observation(Observation&&) noexcept = default;
  Observation& operator=(Observation&& other) noexcept;
  ~Observation() { invalidate(); }

  /// Ends the observation. When it returns, the observer is not running on another thread and will
  /// not be called again. Calling it twice is harmless.
  void invalidate();

 private:
  std::shared_ptr<Registration> registration_;
};

/// Knows the first progress that its thread makes while it lives. An operation may call its
/// completion handler before it returns its progress; a host that wants to know how that progress
/// stood then asks the capture. Threads: made and destroyed on one thread, in the order of scopes;
/// `snapshot` may be called on any thread meanwhile.
class NSProgress::Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// None while no progress has been made, and after it has been destroyed.
  std::optional<Snapshot> snapshot() const;

 private:
  std::shared_ptr<Captured> captured_;
  std::shared_ptr<Captured> previous_;
};

}  // namespace kestrune::platform
