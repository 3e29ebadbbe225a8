#include "companion/RecentLog.h"

#include <utility>

#include "platform/log/StandardErrorSink.h"
#include "platform/values/Date.h"

namespace kestrune {

namespace {

constexpr const char* kExtension = "com.orvanta.kestrune.fileprovider";

}  // namespace

void RecentLog::write(const platform::LogRecord& record) {
  next_.write(record);
  // The extension's lines name files in ways that cannot be told from other words: what happened is kept, not to which.
  platform::LogRecord kept = record;
  if (record.subsystem == kExtension) {
    kept.format = "%{public}s";
    kept.arguments = {record.format};
  }
  std::string line = platform::standardErrorLine(kept, platform::dateNow());
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
