#include "tests/support/CapturingLogSink.h"

#include <algorithm>

#include "platform/values/Mutex.h"
#include "tests/support/Waiting.h"

namespace kestrune::support {

class CapturingLogSink::Sink : public platform::LogSink {
 public:
  void write(const platform::LogRecord& record) override {
    platform::MutexLock lock(mutex_);
    records_.push_back(record);
  }

  std::vector<platform::LogRecord> records() const {
    platform::MutexLock lock(mutex_);
    return records_;
  }

 private:
  mutable platform::Mutex mutex_;
  std::vector<platform::LogRecord> records_ GUARDED_BY(mutex_);
};

CapturingLogSink::CapturingLogSink()
    : sink_(std::make_shared<Sink>()), before_(platform::setLogSink(sink_)) {}

CapturingLogSink::~CapturingLogSink() { platform::setLogSink(before_); }

std::vector<platform::LogRecord> CapturingLogSink::records() const { return sink_->records(); }

std::vector<std::string> CapturingLogSink::messages() const {
  std::vector<std::string> lines;
  for (const platform::LogRecord& record : sink_->records()) lines.push_back(record.message());
  return lines;
}

bool CapturingLogSink::contains(std::string_view text) const {
  const std::vector<std::string> lines = messages();
  return std::any_of(lines.begin(), lines.end(), [text](const std::string& line) {
    return line.find(text) != std::string::npos;
  });
}

bool CapturingLogSink::waitForRecords(std::size_t count, std::chrono::milliseconds deadline) const {
  return waitUntil([&] { return sink_->records().size() >= count; }, deadline);
}

}  // namespace kestrune::support
