// What is known of the extension where it runs in a process of its own. No names of the store's, nothing secret.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::host {

/// How a process is confined, in what differs from the best: name spaces by bubblewrap, Landlock, a filter of system calls. All texts
/// are in words for people.
struct ExtensionConfinement {
  /// Why bubblewrap is not used; none: it is.
  std::optional<std::string> whyNoBubblewrap;
  /// What of the rest could not be had.
  std::vector<std::string> notEnforced;
};

struct ExtensionStatus {
  /// The process that holds the extension, not what it was started by. 0: it does not run.
  int pid = 0;
  std::uint64_t starts = 0;
  /// Ends that were not asked for.
  std::uint64_t deaths = 0;
  /// How it died the last time; empty: never.
  std::string lastDeath;
  /// Of the last one that ran; none: there was none yet.
  std::optional<ExtensionConfinement> confinement;
  /// Why it was not started when it was last needed; empty: it was.
  std::string refusal;
};

}  // namespace kestrune::host
