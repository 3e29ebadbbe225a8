// The extension's log categories, made on first use and kept until the process ends. Callable from
// any thread.
#pragma once

#include "platform/log/Log.h"

namespace kestrune {

/// The extension's operations.
const platform::Logger& fpLog();
/// The enumerator.
const platform::Logger& enumLog();
/// Uploads in parts.
const platform::Logger& mpLog();

}  // namespace kestrune
