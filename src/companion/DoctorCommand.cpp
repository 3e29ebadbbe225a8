#include "companion/DoctorCommand.h"

#include <unistd.h>

#include <iostream>
#include <utility>

#include "companion/MountCommand.h"
#include "companion/configuration/CommandError.h"
#include "companion/control/MountTable.h"
#include "companion/doctor/ServiceChecks.h"
#include "companion/doctor/StorageChecks.h"
#include "companion/doctor/SystemChecks.h"
#include "config/StorageLocations.h"

namespace kestrune {

namespace {

void add(Findings& findings, Findings more) {
  for (Finding& finding : more) findings.push_back(std::move(finding));
}

}  // namespace

Findings examine(const HostFinder& finder, const DoctorOptions& options) {
  Findings findings = checkMounting(SystemPlaces::here());
  try {
    add(findings, checkSandbox(extensionProgram(options.program)));
  } catch (const CommandError& error) {
    findings.push_back(problem("extension", error.what(), {}));
  }
  add(findings, checkLimits());
  MountsChecked mounts = checkMounts(finder, presentMountTable());
  auto replicas = std::move(mounts.replicas);
  if (!options.replicaDirectory.empty()) replicas = {options.replicaDirectory};
  // What a mount would take that was started now.
  if (replicas.empty()) replicas = {defaultReplica(options.domainIdentifier)};
  add(findings, checkStorage(storage::sharedDirectory(), replicas));
  add(findings, checkService());
  add(findings, std::move(mounts.findings));
  return findings;
}

bool runDoctor(const DoctorOptions& options) {
  const Findings findings = examine(HostFinder::here(), options);
  if (options.asJson) {
    std::cout << platform::encodeJson(findingsJson(findings)) << "\n";
  } else {
    std::cout << findingsText(
        findings, ::isatty(STDOUT_FILENO) != 0 ? Escaping::forTerminal : Escaping::none);
  }
  return !hasProblem(findings);
}

}  // namespace kestrune
