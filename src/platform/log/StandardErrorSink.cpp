#include "platform/log/StandardErrorSink.h"

#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace kestrune::platform {

namespace {

class StandardErrorSink : public LogSink {
 public:
  void write(const LogRecord& record) override {
    const std::string line = standardErrorLine(record, dateNow());
    std::string_view rest = line;
    while (!rest.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) return;  // nobody is left to tell
      rest.remove_prefix(static_cast<std::size_t>(written));
    }
  }
};

}  // namespace

LogSink& standardErrorSink() {
  static auto* const instance = new StandardErrorSink;  // outlives every thread that may still log
  return *instance;
}

std::string standardErrorLine(const LogRecord& record, Date time) {
  std::string line = formatISO8601Milliseconds(time);
  line.append(" ").append(logLevelName(record.level));
  line.append(" [").append(escapeForDisplay(record.subsystem));
  line.append(":").append(escapeForDisplay(record.category)).append("] ");
  line.append(escapeForDisplay(record.message())).append("\n");
  return line;
}

}  // namespace kestrune::platform
