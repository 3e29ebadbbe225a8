// Waiting with a limit for something that goes on without us.
#pragma once

#include <chrono>
#include <string>

#include "platform/tasks/Task.h"

namespace kestrune::platform {

/// Starts `task` as a detached one (see spawnDetached: it owns what it uses and handles its own
/// errors) and returns when it has ended, or when `limit` has passed; it goes on by itself then. No
/// thread is blocked meanwhile. Returns whether it has ended.
Task<bool> startAndWaitAtMost(std::chrono::nanoseconds limit, std::string name, Task<void> task);

}  // namespace kestrune::platform
