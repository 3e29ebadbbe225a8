// Starting the program in name spaces of its own, by bubblewrap: it sees the places of the table and nothing else of the
// file system, no other process, no shared memory of others; the network stays.
//
// Who starts the command
// - gives it an empty environment, "/" as its directory and no descriptor but those that the program is meant to have:
//   bubblewrap hands them all on. Its own environment could be read by the program, its directory is looked at first,
//   and that may lie in a mount that does not answer.
// - starts it from a thread that lives as long as the program shall: the end of that thread ends it (PR_SET_PDEATHSIG).
// - finds 128 plus the signal's number as the exit code where a signal ended the program.
//
// Threads: callable from any thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "sandbox/SandboxRules.h"

namespace kestrune::sandbox {

/// Where the system's package manager puts it. Not looked for in PATH, which is the user's.
inline constexpr const char* kBubblewrap = "/usr/bin/bwrap";

/// The command that starts `rules.program` with `arguments` (without its own name) and this environment alone. All of it
/// can be read by every user of the machine in the list of processes.
std::vector<std::string> bubblewrapCommand(const SandboxRules& rules,
                                           const std::map<std::string, std::string>& environment,
                                           const std::vector<std::string>& arguments);

}  // namespace kestrune::sandbox
