// The program's own renunciation of everything that the table does not name, before it reads its first message: no new
// privileges, no capabilities, no traces or core dumps of its memory (the token passes through it), Landlock, and a filter
// of system calls. Within bubblewrap too: each layer holds where the other has a hole, or cannot be had.
//
// A signal ends the program as ever: abort, a fault.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "sandbox/SandboxRules.h"

namespace kestrune::sandbox {

/// What the program was started in.
enum class Surroundings { bubblewrap, system };

struct ConfinementReport {
  int landlockVersion = 0;  // 0: none
  /// What could not be enforced, each in words for the user; empty if all is.
  std::vector<std::string> notEnforced;
};

/// Closes every descriptor but the standard ones and `kept`. The first call of main: nothing of the program's own may be
/// open.
void closeDescriptorsExcept(std::span<const int> kept);

/// Confines the process for good; what cannot be had here is told and left out. REQUIRES: no other thread runs, else
/// Landlock, which does not bind it, counts as not enforced. Throws NSPOSIXError where a place of the rules has gone.
ConfinementReport confine(const SandboxRules& rules, Surroundings surroundings);

}  // namespace kestrune::sandbox
