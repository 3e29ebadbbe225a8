#include "macos/UnifiedLog.h"

#include <os/log.h>

#include <map>
#include <utility>

#include "macos/LogFormats.h"
#include "platform/values/Mutex.h"

namespace kestrune::macos {

namespace {

using platform::LogLevel;
using platform::LogRecord;

os_log_type_t typeOf(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return OS_LOG_TYPE_DEBUG;
    case LogLevel::info:
      return OS_LOG_TYPE_INFO;
    case LogLevel::standard:
      return OS_LOG_TYPE_DEFAULT;
    case LogLevel::error:
      return OS_LOG_TYPE_ERROR;
    case LogLevel::fault:
      return OS_LOG_TYPE_FAULT;
  }
  return OS_LOG_TYPE_DEFAULT;
}

/// The arguments of a record as C's variadic functions take them. One that is missing or of another
/// kind reads as nothing.
class Arguments {
 public:
  explicit Arguments(const LogRecord& record) : arguments_(record.arguments) {}

  const char* text(std::size_t index) const {
    const auto* text = at<std::string>(index);
    return text ? text->c_str() : "";
  }
  long integer(std::size_t index) const { return static_cast<long>(value(index)); }
  long long longInteger(std::size_t index) const { return value(index); }
  int smallInteger(std::size_t index) const { return static_cast<int>(value(index)); }
  int flag(std::size_t index) const {
    const auto* flag = at<bool>(index);
    return flag && *flag ? 1 : 0;
  }
  double real(std::size_t index) const {
    const auto* real = at<double>(index);
    return real ? *real : 0;
  }

 private:
  template <class T>
  const T* at(std::size_t index) const {
    return index < arguments_.size() ? std::get_if<T>(&arguments_[index]) : nullptr;
  }
  std::int64_t value(std::size_t index) const {
    const auto* integer = at<std::int64_t>(index);
    return integer ? *integer : 0;
  }

  const std::vector<platform::LogArgument>& arguments_;
};

/// Writes the record if its format is one of the known ones.
bool writeWithConstantFormat(os_log_t log, os_log_type_t type, const LogRecord& record) {
  const Arguments arguments(record);
#define KESTRUNE_WRITE_LINE(constant, ...)              \
  if (record.format == constant) {                      \
    os_log_with_type(log, type, constant, __VA_ARGS__); \
    return true;                                        \
  }
  KESTRUNE_LOG_FORMATS(KESTRUNE_WRITE_LINE)
#undef KESTRUNE_WRITE_LINE
  return false;
}

class UnifiedLog final : public platform::LogSink {
 public:
  void write(const LogRecord& record) override {
    os_log_t log = logOf(record.subsystem, record.category);
    const os_log_type_t type = typeOf(record.level);
    if (!writeWithConstantFormat(log, type, record))
      os_log_with_type(log, type, "%{public}s", record.message().c_str());
  }

 private:
  // The platform never takes a log object back either.
  os_log_t logOf(const std::string& subsystem, const std::string& category) {
    platform::MutexLock lock(mutex_);
    os_log_t& log = logs_[{subsystem, category}];
    if (!log) log = os_log_create(subsystem.c_str(), category.c_str());
    return log;
  }

  platform::Mutex mutex_;
  std::map<std::pair<std::string, std::string>, os_log_t> logs_ GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<platform::LogSink> unifiedLog() { return std::make_shared<UnifiedLog>(); }

}  // namespace kestrune::macos
