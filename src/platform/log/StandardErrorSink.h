// The log for people: one line on standard error for each record.
//
// Threads: see LogSink. No lock is held while a line is written: a line is one system call, so that
// lines of several threads do not mix (in a pipe, those of as many bytes as the system writes at
// once: 4096 on Linux, 512 on macOS).
#pragma once

#include <string>

#include "platform/log/Log.h"
#include "platform/values/Date.h"

namespace kestrune::platform {

/// The sink that writes to standard error. It is never destroyed.
LogSink& standardErrorSink();

/// One line for people, with its line break: "2024-06-10T08:15:00.123Z error
/// [com.example.app:network] the message", each part escaped (escapeForDisplay).
std::string standardErrorLine(const LogRecord& record, Date time);

}  // namespace kestrune::platform
