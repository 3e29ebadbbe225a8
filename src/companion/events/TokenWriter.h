// When the invalidation token is written: soon after somebody wants one, but not for each of many wishes in a row, and every
// so often where nobody would say that it is time.
//
// The first wish after a quiet while is granted at once; those that come within `leastInterval` of a token are granted
// together at its end, so the last one is never lost. What is wished for when the object goes is still written.
//
// Threads: every operation may be called from any thread; tokens are written on a thread of its own, `kes-token`.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <thread>

#include "platform/values/Mutex.h"

namespace kestrune {

class TokenWriter {
 public:
  /// `write` may throw CommandError, which is logged, once for failures in a row.
  TokenWriter(std::function<void()> write, std::chrono::milliseconds leastInterval);
  ~TokenWriter();
  TokenWriter(const TokenWriter&) = delete;
  TokenWriter& operator=(const TokenWriter&) = delete;

  /// Wants a token.
  void want();
  /// From now on a token is also wanted whenever none was written for so long; none ends that.
  void repeatEvery(std::optional<std::chrono::milliseconds> interval);

 private:
  using Clock = std::chrono::steady_clock;
  void run();
  /// False at the end.
  bool waitUntilDue();
  /// When the next token is due; none before somebody wants one.
  std::optional<Clock::time_point> due() const REQUIRES_LOCK(mutex_);
  void writeOne();

  const std::function<void()> write_;
  const std::chrono::milliseconds leastInterval_;
  platform::Mutex mutex_;
  std::condition_variable changed_;
  bool wanted_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::optional<std::chrono::milliseconds> repeat_ GUARDED_BY(mutex_);
  std::optional<Clock::time_point> last_ GUARDED_BY(mutex_);
  Clock::time_point repeatsSince_ GUARDED_BY(mutex_){};
  bool failedBefore_ = false;  // used by the thread alone
  std::thread thread_;
};

}  // namespace kestrune
