// `kestrune doctor`: looks at everything that Kestrune stands on, on this machine and at the service, and says what to do.
//
// Threads: one, which it blocks for half a minute at most. Fails: never; what is wrong is what it tells.
#pragma once

#include <filesystem>
#include <string>

#include "companion/control/HostFinder.h"
#include "companion/doctor/Findings.h"
#include "host/front/InheritedMount.h"

namespace kestrune {

struct DoctorOptions {
  std::string domainIdentifier = "main";
  /// As it was given to mount; empty: the default.
  std::filesystem::path replicaDirectory;
  bool asJson = false;
  host::ProgramStart program;
};

Findings examine(const HostFinder& finder, const DoctorOptions& options);

/// Prints what was found; false if there is a problem.
bool runDoctor(const DoctorOptions& options);

}  // namespace kestrune
