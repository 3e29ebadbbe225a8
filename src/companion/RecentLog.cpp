#include "companion/RecentLog.h"

#include <utility>

#include "platform/log/StandardErrorSink.h"
#include "platform/values/Date.h"

namespace kestrune {

void RecentLog::write(const platform::LogRecord& record) {
  next_.write(record);
  std::string line = platform::standardErrorLine(record, platform::dateNow());
  if (line.ends_with('\n')) line.pop_back();
  if (line.size() > kMostBytes) line.resize(kMostBytes);
  platform::MutexLock lock(mutex_);
  lines_.push_back(std::move(line));
  if (lines_.size() > kMost) lines_.pop_front();
}

std::vector<std::string> RecentLog::lines() {
  platform::MutexLock lock(mutex_);
  return {lines_.begin(), lines_.end()};
}

}  // namespace kestrune
