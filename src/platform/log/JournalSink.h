// The standard place of the log: the journal where journald runs, else one line on standard error.
//
// Threads: see LogSink. No lock is held while a line is written: a line is one system call, so that
// lines of several threads do not mix (in a pipe, those of up to 4096 bytes).
#pragma once

#include <chrono>
#include <string>

#include "platform/log/Log.h"
#include "platform/values/Date.h"

namespace kestrune::platform {

/// The sink of a process that sets none. It is never destroyed.
LogSink& journalSink();

/// One line for people, with its line break: "2024-06-10T08:15:00.123Z error
/// [com.example.app:network] the message", each part escaped (escapeForDisplay).
std::string standardErrorLine(const LogRecord& record, Date time);

}  // namespace kestrune::platform
