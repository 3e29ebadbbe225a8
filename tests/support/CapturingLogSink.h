// Takes over the process's log for the time of a scope and keeps what is written, so that a test
// can say what was logged and, as important, what was not.
//
// Threads: every operation may be called from any thread; scopes of this kind nest on one thread.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/log/Log.h"

namespace kestrune::support {

class CapturingLogSink {
 public:
  CapturingLogSink();
  /// Puts back the sink that was there before.
  ~CapturingLogSink();
  CapturingLogSink(const CapturingLogSink&) = delete;
  CapturingLogSink& operator=(const CapturingLogSink&) = delete;

  std::vector<platform::LogRecord> records() const;
  /// The lines as a release log shows them, in the order written.
  std::vector<std::string> messages() const;
  /// Whether some line, as a release log shows it, contains `text`.
  bool contains(std::string_view text) const;
  /// Waits until at least `count` records are there; false when `deadline` passed first.
  [[nodiscard]] bool waitForRecords(
      std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;

 private:
  class Sink;
  std::shared_ptr<Sink> sink_;
  std::shared_ptr<platform::LogSink> before_;
};

}  // namespace kestrune::support
