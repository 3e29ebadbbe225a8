// Whether bubblewrap works here. Nothing but a trial tells: it may be missing, the system may forbid name spaces of users
// (a setting of the kernel, a security module, a container's filter), and each says so in its own way.
//
// Threads: callable from any thread; blocks until the deadline at most.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "sandbox/BubblewrapCommand.h"
#include "sandbox/SandboxRules.h"

namespace kestrune::sandbox {

/// Why bubblewrapCommand's sandbox cannot be made here, in words for the user; nothing if it can. Makes it around a
/// program of the system that does nothing, with the bubblewrap at `bubblewrap`. Throws NSPOSIXError where this process
/// has no descriptor left, or ignores the ends of its children (SIGCHLD).
std::optional<std::string> whyNoBubblewrap(
    const SandboxRules& rules, const std::filesystem::path& bubblewrap = kBubblewrap,
    std::chrono::milliseconds deadline = std::chrono::seconds(5));

}  // namespace kestrune::sandbox
