// Whether there is a configuration, a service that accepts it, and clocks that agree; and how hosts that run are doing.
//
// Threads: callable from any thread; block for the network for as long as ServiceProbe.h says, and for hosts.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "companion/configuration/ServiceProbe.h"
#include "companion/control/HostFinder.h"
#include "companion/doctor/Findings.h"
#include "platform/values/Date.h"

namespace kestrune {

/// "configuration"; and if that holds an address and a token, "service", "clock", "certificate".
Findings checkService();

/// "clock", "certificate", by what was answered at `now`.
Findings checkTimes(const ServiceProbe& probe, platform::Date now);

struct MountsChecked {
  /// "mount", one for each folder of ours in the table; one if there is none.
  Findings findings;
  /// Of the hosts that answered.
  std::vector<std::filesystem::path> replicas;
};
MountsChecked checkMounts(const HostFinder& finder, const std::string& mountTable);

}  // namespace kestrune
