#include "tests/support/ManualTime.h"

#include <algorithm>
#include <utility>

#include "tests/support/Waiting.h"

namespace kestrune::support {

using platform::MutexLock;

ManualClock::ManualClock()
    : ManualClock(platform::Date(std::chrono::sys_days(std::chrono::year(2024) / 5 / 1) +
                                 std::chrono::hours(12))) {}

platform::Date ManualClock::now() const {
  MutexLock lock(mutex_);
  return now_;
}

void ManualClock::advance(std::chrono::microseconds duration) {
  MutexLock lock(mutex_);
  now_ += duration;
}

void ManualClock::set(platform::Date date) {
  MutexLock lock(mutex_);
  now_ = date;
}

platform::Task<void> ManualSleeper::sleep(std::chrono::nanoseconds duration) {
  std::size_t number = 0;
  {
    MutexLock lock(mutex_);
    number = nextNumber_++;
  }
  std::function<void(Wakeup)> start = [this, number, duration](Wakeup wakeup) {
    begin(number, duration, std::move(wakeup));
  };
  std::function<void()> onCancel = [this, number] { cancel(number); };
  bool cancelled = false;
  try {
    co_await platform::suspendUntilResumed<platform::Unit>(std::move(start), std::move(onCancel));
  } catch (const boost::system::system_error& error) {
    // A task that was cancelled before it went to sleep is stopped by the executor itself.
    if (error.code() != boost::asio::error::operation_aborted) throw;
    cancelled = true;
  }
  if (cancelled) throw platform::CancellationError();
}

void ManualSleeper::begin(std::size_t number, std::chrono::nanoseconds duration, Wakeup wakeup) {
  {
    MutexLock lock(mutex_);
    durations_.push_back(
        duration);  // with the sleep itself: who sees the one can release the other
    if (mode_ == Mode::held) {
      sleeps_.push_back(Sleep{number, std::move(wakeup)});
      return;
    }
  }
  wakeup.resume({});
}

void ManualSleeper::cancel(std::size_t number) {
  std::optional<Wakeup> cancelled;
  {
    MutexLock lock(mutex_);
    const auto found = std::find_if(sleeps_.begin(), sleeps_.end(), [number](const Sleep& sleep) {
      return sleep.number == number;
    });
    if (found == sleeps_.end()) return;
    cancelled = std::move(found->wakeup);
    sleeps_.erase(found);
  }
  cancelled->fail(platform::CancellationError());
}

std::vector<std::chrono::nanoseconds> ManualSleeper::durations() const {
  MutexLock lock(mutex_);
  return durations_;
}

std::size_t ManualSleeper::sleeping() const {
  MutexLock lock(mutex_);
  return sleeps_.size();
}

bool ManualSleeper::waitForSleeps(std::size_t count, std::chrono::milliseconds deadline) const {
  return waitUntil([&] { return durations().size() >= count; }, deadline);
}

bool ManualSleeper::release() {
  std::optional<Wakeup> first;
  {
    MutexLock lock(mutex_);
    if (sleeps_.empty()) return false;
    first = std::move(sleeps_.front().wakeup);
    sleeps_.pop_front();
  }
  return first->resume({});
}

void ManualSleeper::releaseAll() {
  {
    MutexLock lock(mutex_);
    mode_ = Mode::automatic;
  }
  while (release()) {
  }
}

}  // namespace kestrune::support
