// The latest log lines of this process, for "kestrune report": where a host runs in a terminal, nobody else keeps them.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "platform/log/Log.h"
#include "platform/values/Mutex.h"

namespace kestrune {

/// Keeps the last kMost lines, those of the extension without what they were about, and passes every record on to `next`.
class RecentLog final : public platform::LogSink {
 public:
  static constexpr std::size_t kMost = 500;
  /// A line that is longer is cut.
  static constexpr std::size_t kMostBytes = 2000;

  /// `next` outlives the object.
  explicit RecentLog(platform::LogSink& next) : next_(next) {}

  void write(const platform::LogRecord& record) override;
  /// The oldest first, without line breaks.
  std::vector<std::string> lines();

 private:
  platform::LogSink& next_;
  platform::Mutex mutex_;
  std::deque<std::string> lines_ GUARDED_BY(mutex_);
};

}  // namespace kestrune
