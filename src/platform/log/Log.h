// The platform's unified log: typed arguments, format strings that say which arguments may be
// shown, one line an event.
//
//     static const Logger log("com.example.app", "network");
//     log.write(LogLevel::error, "listing %{public}s failed after %ld tries: %s", path, tries,
//     secretText);
//
// Conversions: %{public}s shown, plain %s (and %{private}s) redacted as "<private>"; %ld, %lld, %d
// integers; %.*f and
// %.Nf floating point (`*` takes an integer argument); %{bool}d "true"/"false"; %% a percent sign.
// Numbers are always shown. `%{public}ld` and the like are understood too.
//
// A format that does not fit its arguments is a bug of the caller, but never undefined behaviour: a
// missing argument reads "<missing>", one of another type is shown by its own type, surplus ones
// are ignored.
//
// Threads: every operation may be called from any thread. Fails: never; what a sink cannot write is
// lost.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace kestrune::platform {

enum class LogLevel { debug, info, standard, error, fault };

/// "debug", "info", "default", "error", "fault".
std::string_view logLevelName(LogLevel level);

/// One argument, by value.
using LogArgument = std::variant<std::int64_t, double, bool, std::string>;

struct LogRecord {
  std::string subsystem;
  std::string category;
  LogLevel level = LogLevel::standard;
  std::string format;
  std::vector<LogArgument> arguments;

  /// The line as a release log shows it, private texts redacted.
  std::string message() const;
};

/// Where records go. `write` may be called from any thread, also side by side, and must not throw.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(const LogRecord& record) = 0;
};

/// Replaces the sink of the process; null restores the standard one: on Linux the journal where
/// journald runs (with the fields SUBSYSTEM and CATEGORY), else standard error; on macOS standard
/// error (the system's own log is a sink of the program around this library). Returns the sink that
/// was set before (null for the standard one).
std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink);

/// `text` with everything that could disturb a terminal or forge a line escaped: control
/// characters, line breaks, bytes that are not UTF-8, bidirectional marks. For sinks that write to
/// people; "a\nb" becomes "a\\nb".
std::string escapeForDisplay(std::string_view text);

class Logger {
 public:
  Logger(std::string subsystem, std::string category)
      : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

  template <class... Arguments>
  void write(LogLevel level, std::string_view format, const Arguments&... arguments) const {
    send(level, format, {argument(arguments)...});
  }

 private:
  template <class T>
  static LogArgument argument(const T& value) {
    if constexpr (std::is_same_v<T, bool>) {
      return value;
    } else if constexpr (std::is_integral_v<T>) {
      return static_cast<std::int64_t>(value);
    } else if constexpr (std::is_floating_point_v<T>) {
      return static_cast<double>(value);
    } else {
      return std::string(value);
    }
  }
  void send(LogLevel level, std::string_view format, std::vector<LogArgument> arguments) const;

  std::string subsystem_;
  std::string category_;
};

}  // namespace kestrune::platform
