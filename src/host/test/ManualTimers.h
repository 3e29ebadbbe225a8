// Timers that go off when a test moves the time.
//
// Threads: any; work runs on the thread that moves the time.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <utility>
#include <vector>

#include "host/basics/Timers.h"
#include "platform/values/Mutex.h"

namespace kestrune::host::test {

class ManualTimers final : public Timers {
 public:
  Token after(std::chrono::nanoseconds delay, std::function<void()> work) override {
    platform::MutexLock lock(mutex_);
    entries_.push_back({next_, now_ + delay, std::move(work)});
    changed_.notify_all();
    return next_++;
  }
  void cancel(Token token) override {
    platform::MutexLock lock(mutex_);
    std::erase_if(entries_, [&](const Entry& entry) { return entry.token == token; });
  }
  std::chrono::nanoseconds now() const override {
    platform::MutexLock lock(mutex_);
    return now_;
  }

  /// Lets `duration` pass and runs what has become due.
  void advance(std::chrono::nanoseconds duration) {
    std::vector<Entry> due;
    {
      platform::MutexLock lock(mutex_);
      now_ += duration;
      const auto later =
          std::partition(entries_.begin(), entries_.end(),
                         [now = now_](const Entry& entry) { return entry.due <= now; });
      due.assign(std::make_move_iterator(entries_.begin()), std::make_move_iterator(later));
      entries_.erase(entries_.begin(), later);
    }
    for (const Entry& entry : due) entry.work();
  }
  /// Waits until one is set to go off after exactly `delay`; false when it was not within 10 s.
  bool waitForTimer(std::chrono::nanoseconds delay) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    platform::MutexLock lock(mutex_);
    while (!has(delay)) {
      if (!lock.waitUntil(changed_, deadline)) return has(delay);
    }
    return true;
  }

 private:
  struct Entry {
    Token token;
    std::chrono::nanoseconds due;
    std::function<void()> work;
  };
  bool has(std::chrono::nanoseconds delay) const REQUIRES_LOCK(mutex_) {
    return std::any_of(entries_.begin(), entries_.end(),
                       [due = now_ + delay](const Entry& entry) { return entry.due == due; });
  }

  mutable platform::Mutex mutex_;
  std::condition_variable changed_;
  Token next_ GUARDED_BY(mutex_) = 1;
  std::chrono::nanoseconds now_ GUARDED_BY(mutex_){0};
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host::test
