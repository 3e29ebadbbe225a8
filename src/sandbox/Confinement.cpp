#include "sandbox/Confinement.h"

#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

#include "platform/values/NSError.h"
#include "sandbox/Landlock.h"
#include "sandbox/SystemCallFilter.h"

namespace kestrune::sandbox {

namespace {

void require(long result, const char* what) {
  if (result != 0) throw platform::NSPOSIXError(errno, what);
}

void protectMemory() {
  const rlimit none{0, 0};
  require(::setrlimit(RLIMIT_CORE, &none), "forbid core dumps");
  require(::prctl(PR_SET_DUMPABLE, 0), "forbid traces of the program");
}

/// A program that runs as root would else be more than the files' owner.
void dropCapabilities() {
  require(::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), "drop ambient capabilities");
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  require(::syscall(SYS_capset, &header, none.data()), "drop capabilities");
}

/// By a call that does nothing to a process of one thread and fails for others: no list of threads need be reachable.
bool isSingleThreaded() {
#ifdef KESTRUNE_SANITIZED
  return true;  // but for ThreadSanitizer's own
#else
  return ::unshare(CLONE_THREAD) == 0;
#endif
}

void closeRange(unsigned first, unsigned last) {
  if (first <= last) require(::close_range(first, last, 0), "close descriptors");
}

}  // namespace

void closeDescriptorsExcept(std::span<const int> kept) {
  std::vector<int> sorted(kept.begin(), kept.end());
  std::ranges::sort(sorted);
  unsigned next = STDERR_FILENO + 1;
  for (const int descriptor : sorted) {
    if (descriptor < static_cast<int>(next)) continue;
    const auto keptNumber = static_cast<unsigned>(descriptor);
    if (keptNumber > next) closeRange(next, keptNumber - 1);
    next = keptNumber + 1;
  }
  closeRange(next, UINT_MAX);
}

ConfinementReport confine(const SandboxRules& rules, Surroundings surroundings) {
  ConfinementReport report;
  require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "renounce new privileges");
  protectMemory();
  const bool isAlone = isSingleThreaded();
  dropCapabilities();
  report.landlockVersion = landlockVersion();
  if (report.landlockVersion > 0) {
    applyLandlock(rules);
    if (!isAlone)
      report.notEnforced.emplace_back("Landlock does not bind threads that ran before it");
  } else {
    report.notEnforced.emplace_back("Landlock is not available on this kernel");
  }
  if (surroundings == Surroundings::system && !rules.covered.empty()) {
    report.notEnforced.emplace_back(
        "the replica lies in the shared directory, and without bubblewrap all of it can be "
        "reached");
  }
  try {
    applySystemCallFilter();
  } catch (const platform::NSPOSIXError& error) {
    report.notEnforced.push_back(std::string("system calls are not filtered: ") + error.what());
  }
  return report;
}

}  // namespace kestrune::sandbox
