// The host's log lines, one for each failure, but never a flood: a loop in some program that fails a thousand times a
// second must not fill the journal. Each kind of line has its own allowance of a burst and then one line every few
// seconds; the next line that is let through says how many were not.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "platform/log/Log.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class HostLog {
 public:
  using Now = std::function<std::chrono::steady_clock::time_point()>;

  static constexpr std::size_t kBurst = 20;
  static constexpr std::chrono::seconds kInterval{3};

  explicit HostLog(Now now = &std::chrono::steady_clock::now) : now_(std::move(now)) {}

  /// Logs "<what>: <reason>". `kind` names the allowance ("enumerate").
  void failure(std::string_view kind, const std::string& what, const std::string& reason);
  /// Logs a line that is no error.
  void note(std::string_view kind, const std::string& text);

 private:
  struct Allowance {
    std::size_t left = kBurst;
    std::chrono::steady_clock::time_point refilled;
    std::size_t suppressed = 0;
  };
  void write(platform::LogLevel level, std::string_view kind, const std::string& text);

  const platform::Logger log_{"com.orvanta.kestrune.host", "host"};
  const Now now_;
  platform::Mutex mutex_;
  std::map<std::string, Allowance, std::less<>> allowances_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
