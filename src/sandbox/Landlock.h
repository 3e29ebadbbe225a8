// Landlock: the kernel's own list of what a process may do with files, by the places of the table. It holds without any
// name space, for good, and for all that the process starts.
//
// It does not stop: asking whether a file exists and of what kind it is, and changing modes, owners and times by a path;
// the filter of system calls refuses the latter. It cannot take away what lies within a place.
//
// Threads: binds the calling thread and those that it starts later; so it is called before there are others.
#pragma once

#include <string>

#include "sandbox/SandboxRules.h"

namespace kestrune::sandbox {

/// The version of the kernel's Landlock; 0 where there is none.
int landlockVersion();

/// Confines the calling thread to the rules' places, signals and abstract sockets to its own process, and forbids to
/// receive TCP connections, as far as the version goes. REQUIRES: landlockVersion() > 0, and no_new_privs is set. Throws
/// NSPOSIXError, and nothing is confined then.
void applyLandlock(const SandboxRules& rules);

}  // namespace kestrune::sandbox
