#include "platform/log/JournalSink.h"

// The journal would record this file and this function as the origin of every line.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <errno.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "platform/log/StandardErrorSink.h"

namespace kestrune::platform {

namespace {

/// The level as syslog numbers it.
char priorityDigit(LogLevel level) {
  switch (level) {
    case LogLevel::debug:
      return '7';
    case LogLevel::info:
      return '6';
    case LogLevel::standard:
      return '5';
    case LogLevel::error:
      return '3';
    case LogLevel::fault:
      return '2';
  }
  return '5';
}

iovec field(const std::string& text) {
  // The interface is not const-correct; the library only reads.
  return {const_cast<char*>(text.data()), text.size()};
}

bool writeToJournal(const LogRecord& record) {
  // The library reports success where no journal runs. It may start, stop or be restarted while we
  // run.
  if (::access("/run/systemd/journal/socket", W_OK) != 0) return false;
  const std::array<std::string, 5> texts = {
      "MESSAGE=" + escapeForDisplay(record.message()),
      std::string("PRIORITY=") + priorityDigit(record.level),
      "SUBSYSTEM=" + escapeForDisplay(record.subsystem),
      "CATEGORY=" + escapeForDisplay(record.category),
      std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name,
  };
  std::array<iovec, 5> fields{};
  std::transform(texts.begin(), texts.end(), fields.begin(), field);
  return ::sd_journal_sendv(fields.data(), static_cast<int>(fields.size())) >= 0;
}

class JournalSink : public LogSink {
 public:
  void write(const LogRecord& record) override {
    if (!writeToJournal(record)) standardErrorSink().write(record);
  }
};

}  // namespace

LogSink& journalSink() {
  static auto* const instance = new JournalSink;  // outlives every thread that may still log
  return *instance;
}

}  // namespace kestrune::platform
