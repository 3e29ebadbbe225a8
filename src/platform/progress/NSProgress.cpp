#include "platform/progress/NSProgress.h"

#include <utility>

namespace kestrune::platform {

struct NSProgress::Registration {
  // Recursive: an observer may end its own observation.
  std::recursive_mutex running;
  Observer observer;  // empty once ended; guarded by `running`
};

struct NSProgress::Captured {
  Mutex mutex;
  bool isTaken GUARDED_BY(mutex) = false;
  const NSProgress* progress GUARDED_BY(mutex) = nullptr;

  // Where the thread's captures meet the constructor.
  static std::shared_ptr<Captured>& current() {
    thread_local std::shared_ptr<Captured> captured;
    return captured;
  }

  /// The thread's capture, if `candidate` is the first progress that it sees.
  static std::shared_ptr<Captured> offer(const NSProgress* candidate) {
    std::shared_ptr<Captured> captured = current();
    if (!captured) return nullptr;
    MutexLock lock(captured->mutex);
    if (std::exchange(captured->isTaken, true)) return nullptr;
    captured->progress = candidate;
    return captured;
  }
};

double NSProgress::Snapshot::fractionCompleted() const {
  if (totalUnitCount <= 0) return 0;
  return static_cast<double>(completedUnitCount) / static_cast<double>(totalUnitCount);
}

NSProgress::NSProgress(std::int64_t totalUnitCount)
    : counts_{totalUnitCount, 0}, captured_(Captured::offer(this)) {}

NSProgress::~NSProgress() {
  if (!captured_) return;
  MutexLock lock(captured_->mutex);
  captured_->progress = nullptr;
}

NSProgress::Snapshot NSProgress::snapshot() const {
  MutexLock lock(mutex_);
  return counts_;
}

template <class Change>
void NSProgress::change(const Change& apply) {
  std::lock_guard delivering(delivery_);
  std::vector<std::shared_ptr<Registration>> observers;
  {
    MutexLock lock(mutex_);
    const Snapshot before = counts_;
    apply(counts_);
    if (counts_ == before) return;
    std::erase_if(observers_, [](const auto& observer) { return observer.expired(); });
    for (const auto& observer : observers_) {
      if (auto alive = observer.lock()) observers.push_back(std::move(alive));
    }
  }
  for (const auto& registration : observers) {
    std::lock_guard running(registration->running);
    const Observer observer =
        registration->observer;  // a copy: the observer may end itself while it runs
    if (observer) observer(snapshot());
  }
}

void NSProgress::setTotalUnitCount(std::int64_t units) {
  change([units](Snapshot& counts) { counts.totalUnitCount = units; });
}

void NSProgress::setCompletedUnitCount(std::int64_t units) {
  change([units](Snapshot& counts) { counts.completedUnitCount = units; });
}

void NSProgress::addCompletedUnits(std::int64_t units) {
  change([units](Snapshot& counts) { counts.completedUnitCount += units; });
}

void NSProgress::raiseCompletedUnitCount(std::int64_t units) {
  change([units](Snapshot& counts) {
    if (counts.completedUnitCount < units) counts.completedUnitCount = units;
  });
}

void NSProgress::cancel() {
  std::function<void()> handler;
  {
    MutexLock lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    handler = std::move(cancellationHandler_);
  }
  if (handler) handler();
}

bool NSProgress::isCancelled() const {
  MutexLock lock(mutex_);
  return cancelled_;
}

void NSProgress::setCancellationHandler(std::function<void()> handler) {
  {
    MutexLock lock(mutex_);
    if (!cancelled_) {
      cancellationHandler_.swap(handler);  // the old one is destroyed without the lock
      return;
    }
  }
  if (handler) handler();
}

NSProgress::Observation NSProgress::observe(Observer observer) {
  auto registration = std::make_shared<Registration>();
  registration->observer = std::move(observer);
  MutexLock lock(mutex_);
  observers_.push_back(registration);
  return Observation(std::move(registration));
}

void NSProgress::mirror(Observer observer) {
  std::lock_guard delivering(delivery_);  // no change overtakes the present value
  const Observer present = observer;
  Observation observation = observe(std::move(observer));
  {
    MutexLock lock(mutex_);
    mirrors_.push_back(std::move(observation));
  }
  present(snapshot());
}

NSProgress::Observation& NSProgress::Observation::operator=(Observation&& other) noexcept {
  if (this != &other) {
    invalidate();
    registration_ = std::move(other.registration_);
  }
  return *this;
}

void NSProgress::Observation::invalidate() {
  if (!registration_) return;
  Observer ended;  // destroyed without the lock
  {
    std::lock_guard running(registration_->running);
    ended.swap(registration_->observer);
  }
  registration_.reset();
}

NSProgress::Capture::Capture()
    : captured_(std::make_shared<Captured>()),
      previous_(std::exchange(Captured::current(), captured_)) {}

NSProgress::Capture::~Capture() { Captured::current() = std::move(previous_); }

std::optional<NSProgress::Snapshot> NSProgress::Capture::snapshot() const {
  MutexLock lock(captured_->mutex);
  if (!captured_->progress) return std::nullopt;
  return captured_->progress->snapshot();
}

}  // namespace kestrune::platform
