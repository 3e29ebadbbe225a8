#include "companion/doctor/ServiceChecks.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>

#include "companion/configuration/CommandError.h"
#include "companion/configuration/ConfigureCommand.h"
#include "companion/control/MountTable.h"
#include "config/SharedConfig.h"
#include "host/control/ControlClient.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

using host::ControlRequest;
using platform::Json;

namespace {

constexpr std::chrono::seconds kHostPatience{5};
/// What no protocol minds.
constexpr std::chrono::seconds kNoticedSkew{60};
/// Beyond this, signed addresses and tokens of a stated time count as expired, or not valid yet.
constexpr std::chrono::seconds kHarmfulSkew{300};
constexpr std::chrono::hours kSoonEnds{24 * 14};
constexpr mode_t kOthersBits = 077;

std::string inQuotes(const std::filesystem::path& path) {
  return "'" + platform::escapeForDisplay(path.native()) + "'";
}

Finding checkConfiguration() {
  constexpr const char* kAbout = "configuration";
  constexpr const char* kWriteIt = "Run: kestrune configure";
  const auto file = SharedConfig::file();
  struct stat status {};
  if (::stat(file.c_str(), &status) != 0) {
    return problem(
        kAbout,
        "There is no " + inQuotes(file) + " that can be read: " + platform::errnoText(errno) + ".",
        kWriteIt);
  }
  const auto address = SharedConfig::apiURL();
  if (!address || !SharedConfig::token())
    return problem(kAbout, inQuotes(file) + " holds no address and token.", kWriteIt);
  try {
    checkedServiceAddress(*address);
  } catch (const CommandError& error) {
    return problem(kAbout, error.what(), kWriteIt);
  }
  if ((status.st_mode & kOthersBits) != 0)
    return problem(kAbout, "Others may read the token in " + inQuotes(file) + ".",
                   "Run: chmod 600 " + inQuotes(file));
  return fine(kAbout, "There are an address and a token.");
}

// Adds the replica of a host that answers.
Finding checkMount(const HostFinder& finder, const std::filesystem::path& place,
                   std::vector<std::filesystem::path>& replicas) {
  constexpr const char* kAbout = "mount";
  Json status;
  try {
    const auto client = finder.ofMount(place);
    ControlRequest request;
    request.op = ControlRequest::Op::status;
    status = client->ask(request, nullptr, kHostPatience);
  } catch (const std::runtime_error& error) {  // CommandError, ControlRefusal
    return problem(
        kAbout, "The host of " + inQuotes(place) + " does not answer.",
        "If it belongs to another user, ask there. If it has died, run: fusermount3 -u -z " +
            inQuotes(place));
  } catch (const platform::NSError& error) {
    return problem(kAbout,
                   "The host of " + inQuotes(place) +
                       " does not answer: " + error.localizedDescription() + ".",
                   "If it stays so, end it and mount again; nothing is lost.");
  }
  if (const auto replica = status.find("replica"); replica != status.end())
    replicas.emplace_back(host::pathFromJson(*replica));
  const auto number = [&status](const char* name) { return status.value(name, std::uint64_t{0}); };
  if (status.contains("extension") && status["extension"].is_object() &&
      status["extension"].contains("refusal"))
    return problem(kAbout,
                   "The extension of " + inQuotes(place) +
                       " does not start: " + status["extension"]["refusal"].get<std::string>(),
                   "Install all programs of one release; kestrune report tells more.");
  if (status.contains("storeReachable") && status["storeReachable"] == false)
    return warning(kAbout,
                   inQuotes(place) + " cannot reach the store: " + status.value("storeError", ""),
                   "What is here works; what is changed is sent later.");
  if (const auto failing = number("failingChanges"); failing > 0)
    return warning(
        kAbout,
        inQuotes(place) + ": " + std::to_string(failing) + " changes could not be sent so far.",
        "See kestrune pending.");
  if (const auto held = status["heldDeletions"].value("count", std::uint64_t{0}); held > 0)
    return warning(
        kAbout,
        inQuotes(place) + ": " + std::to_string(held) + " deletions at the store are held back.",
        "Decide with kestrune allow-deletions or kestrune keep-deleted.");
  return fine(kAbout,
              inQuotes(place) + " is served by version " + status.value("version", "") + ".");
}

}  // namespace

Findings checkTimes(const ServiceProbe& probe, platform::Date now) {
  Findings findings;
  if (probe.serverTime) {
    const auto skew = std::chrono::duration_cast<std::chrono::seconds>(now - *probe.serverTime);
    const auto size = std::chrono::abs(skew);
    const std::string text = "This machine's clock is " + std::to_string(size.count()) + " s " +
                             (skew.count() > 0 ? "ahead of" : "behind") + " the service's.";
    const char* advice = "Set the clock (timedatectl set-ntp true).";
    if (size > kHarmfulSkew) {
      findings.push_back(problem("clock", text, advice));
    } else if (size > kNoticedSkew) {
      findings.push_back(warning("clock", text, advice));
    } else {
      findings.push_back(fine("clock", "The clocks agree to a minute."));
    }
  }
  if (probe.certificateUntil) {
    const std::string text =
        "The service's certificate ends " + platform::formatISO8601(*probe.certificateUntil) + ".";
    if (*probe.certificateUntil - now < kSoonEnds) {
      findings.push_back(warning("certificate", text, "Tell who runs the service."));
    } else {
      findings.push_back(fine("certificate", text));
    }
  }
  return findings;
}

Findings checkService() {
  Findings findings{checkConfiguration()};
  const auto address = SharedConfig::apiURL();
  const auto token = SharedConfig::token();
  if (!address || !token) return findings;
  const ServiceProbe probe = probeService(*address, *token);
  if (probe.outcome == ServiceProbe::Outcome::listed) {
    findings.push_back(fine("service", "It accepts the token and lists its root."));
  } else {
    findings.push_back(problem("service", probe.problem, {}));
  }
  for (Finding& finding : checkTimes(probe, platform::dateNow()))
    findings.push_back(std::move(finding));
  return findings;
}

MountsChecked checkMounts(const HostFinder& finder, const std::string& mountTable) {
  MountsChecked checked;
  for (const auto& place : mountPointsOfOurs(mountTable))
    checked.findings.push_back(checkMount(finder, place, checked.replicas));
  if (checked.findings.empty()) checked.findings.push_back(fine("mount", "Nothing is mounted."));
  return checked;
}

}  // namespace kestrune
