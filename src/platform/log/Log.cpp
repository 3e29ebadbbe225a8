#include "platform/log/Log.h"

#include <utility>

#include "platform/values/Mutex.h"

#if defined(__APPLE__)
#include "platform/log/StandardErrorSink.h"
#else
#include "platform/log/JournalSink.h"
#endif

namespace kestrune::platform {

namespace {

struct Setting {
  Mutex mutex;
  std::shared_ptr<LogSink> sink GUARDED_BY(mutex);
};

Setting& setting() {
  static auto* const instance = new Setting;  // outlives every thread that may still log
  return *instance;
}

/// Of a process that sets none.
LogSink& standardSink() {
#if defined(__APPLE__)
  return standardErrorSink();
#else
  return journalSink();
#endif
}

}  // namespace

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return "debug";
    case LogLevel::info:
      return "info";
    case LogLevel::standard:
      return "default";
    case LogLevel::error:
      return "error";
    case LogLevel::fault:
      return "fault";
  }
  return "default";
}

std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink) {
  MutexLock lock(setting().mutex);
  return std::exchange(setting().sink, std::move(sink));
}

void Logger::send(LogLevel level, std::string_view format,
                  std::vector<LogArgument> arguments) const {
  const LogRecord record{subsystem_, category_, level, std::string(format), std::move(arguments)};
  std::shared_ptr<LogSink> sink;
  {
    // Only to copy the pointer: a sink may log itself, or wait for somebody who logs.
    MutexLock lock(setting().mutex);
    sink = setting().sink;
  }
  if (sink) {
    sink->write(record);
  } else {
    standardSink().write(record);
  }
}

}  // namespace kestrune::platform
