#include "host/basics/HostLog.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kestrune::host {

using platform::LogLevel;
using platform::MutexLock;

void HostLog::failure(std::string_view kind, const std::string& what, const std::string& reason) {
  write(LogLevel::error, kind, what + ": " + reason);
}

void HostLog::note(std::string_view kind, const std::string& text) {
  write(LogLevel::standard, kind, text);
}

void HostLog::write(LogLevel level, std::string_view kind, const std::string& text) {
  std::size_t suppressed = 0;
  {
    MutexLock lock(mutex_);
    const auto now = now_();
    auto found = allowances_.find(kind);
    if (found == allowances_.end()) {
      Allowance fresh;
      fresh.refilled = now;
      found = allowances_.emplace(std::string(kind), fresh).first;
    }
    Allowance& allowance = found->second;
    const auto refills = std::max<std::int64_t>(0, (now - allowance.refilled) / kInterval);
    if (refills > 0) {
      allowance.left = std::min(kBurst, allowance.left + static_cast<std::size_t>(refills));
      allowance.refilled += refills * kInterval;
    }
    if (allowance.left == 0) {
      ++allowance.suppressed;
      return;
    }
    --allowance.left;
    suppressed = std::exchange(allowance.suppressed, 0);
  }
  if (suppressed > 0) {
    log_.write(level, "%{public}s (%ld more like this since the last line)", text, suppressed);
  } else {
    log_.write(level, "%{public}s", text);
  }
}

}  // namespace kestrune::host
