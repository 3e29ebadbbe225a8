// The platform's unified log. Lines go there with the very format that the code gave, as a constant,
// so that the system redacts private arguments, groups lines by format, and shows private values to
// whoever has the right to see them.
//
// Threads: any.
#pragma once

#include <memory>

#include "platform/log/Log.h"

namespace kestrune::macos {

/// A sink that writes to the unified log. A format that it does not know as a constant is written as
/// one public text in which private arguments are already redacted.
std::shared_ptr<platform::LogSink> unifiedLog();

}  // namespace kestrune::macos
