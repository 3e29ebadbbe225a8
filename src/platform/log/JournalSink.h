// The standard place of the log on Linux: the journal where journald runs, else one line on
// standard error (StandardErrorSink).
//
// Threads: see LogSink. No lock is held while a line is written.
#pragma once

#include "platform/log/Log.h"

namespace kestrune::platform {

/// The sink of a process that sets none. It is never destroyed.
LogSink& journalSink();

}  // namespace kestrune::platform
