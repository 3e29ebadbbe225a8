#include "companion/ReportCommand.h"

#include <sys/utsname.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "companion/DoctorCommand.h"
#include "companion/MountCommand.h"
#include "companion/configuration/CommandError.h"
#include "companion/configuration/MountConfiguration.h"
#include "companion/control/ControlText.h"
#include "companion/control/MountTable.h"
#include "companion/report/Anonymizer.h"
#include "config/SharedConfig.h"
#include "host/control/ControlClient.h"
#include "host/control/ControlRequest.h"
#include "host/launch/CrashReports.h"
#include "platform/files/AtomicFile.h"
#include "platform/log/Log.h"
#include "platform/net/URL.h"
#include "platform/values/NSError.h"
#include "sandbox/BubblewrapCommand.h"

namespace kestrune {

namespace fs = std::filesystem;
using host::ControlRequest;
using platform::Json;

namespace {

constexpr const char* kLeftOut = "(left out)";
constexpr std::chrono::seconds kPatience{5};
constexpr std::size_t kMostPending = 1000;

// ---- the machine and how things are set up

std::string distribution() {
  std::ifstream file("/etc/os-release");
  constexpr std::string_view kKey = "PRETTY_NAME=";
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(kKey)) continue;
    std::erase(line, '"');
    return line.substr(kKey.size());
  }
  return "an unknown distribution";
}

std::string systemText() {
  utsname name{};
  ::uname(&name);  // fails for a bad address only
  return std::string(name.sysname) + " " + name.release + " " + name.version + " " + name.machine +
         ", " + distribution();
}

std::string serviceText() {
  const auto address = SharedConfig::apiURL();
  std::string text = "no address";
  if (address) {
    text = "an address of another scheme";
    for (const char* scheme : {"https", "http"}) {
      if (address->starts_with(std::string(scheme) + "://")) text = scheme;
    }
  }
  return text + ", token " + (SharedConfig::token() ? "present" : "missing");
}

std::string settingsText() {
  try {
    const auto settings = MountConfiguration::read();
    return std::to_string(settings.addedLookersOn.size()) + " programs without downloads added, " +
           std::to_string(settings.removedLookersOn.size()) + " removed";
  } catch (const CommandError&) {
    return "a file that cannot be used";  // why would quote it
  }
}

// The type and the options of each mount of ours; where they are stays out.
std::string mountsText(const std::string& mountTable) {
  std::istringstream table(mountTable);
  std::string text;
  for (std::string line; std::getline(table, line);) {
    const auto at = line.find(" - fuse.kestrune ");
    if (at == std::string::npos) continue;
    const std::string options = line.substr(line.rfind(' ') + 1);
    text += "Mounted: " + platform::escapeForDisplay(options) + "\n";
  }
  return text.empty() ? "Mounted: nothing\n" : text;
}

const char* yesOrNo(bool is) { return is ? "yes" : "no"; }

// ---- the host that runs

struct Told {
  Json about;
  Json status;
  /// Null where the host does not tell.
  Json pending;
  Json log;
};

// A host of an earlier version may not know what is asked.
Json askIfOffered(host::ControlClient& client, ControlRequest::Op op) {
  ControlRequest request;
  request.op = op;
  request.most = kMostPending;
  try {
    return client.ask(request, nullptr, kPatience);
  } catch (const host::ControlRefusal&) {
    return {};
  }
}

// None where no host answers.
std::optional<Told> askHost(const HostFinder& finder, const ReportOptions& options) {
  std::optional<PlaceInMount> place;
  if (!options.path.empty()) place = finder.place(options.path);
  try {
    const auto client =
        place ? finder.ofMount(place->mountPoint) : finder.ofDomain(options.domainIdentifier);
    ControlRequest request;
    request.op = ControlRequest::Op::status;
    Told told;
    told.about = client->ask(ControlRequest(), nullptr, kPatience);
    told.status = client->ask(request, nullptr, kPatience);
    told.pending = askIfOffered(*client, ControlRequest::Op::pending);
    told.log = askIfOffered(*client, ControlRequest::Op::log);
    return told;
  } catch (const CommandError&) {
  } catch (const host::ControlRefusal&) {
  } catch (const platform::NSError&) {
  }
  return std::nullopt;
}

std::string hostText(const std::optional<Told>& told) {
  if (!told) return "No host answers.\n";
  return "Host: version " + platform::escapeForDisplay(told->about.value("version", "")) +
         ", replaced " + std::to_string(told->about.value("restarts", std::uint64_t{0})) +
         " times\n" + statusText(statusForStrangers(told->status), Escaping::forTerminal);
}

fs::path replicaOf(const std::optional<Told>& told, const ReportOptions& options) {
  if (!options.replicaDirectory.empty()) return options.replicaDirectory;
  if (told && told->about.contains("replica")) {
    const std::string said = host::pathFromJson(told->about["replica"]);
    if (!said.empty()) return said;
  }
  return defaultReplica(options.domainIdentifier);
}

// ---- crashes

// A call is told by the file of its code, "/usr/bin/program(+0x12)": what folders that lies in is nobody's business.
std::string crashText(const std::string& report) {
  std::istringstream lines(report);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('/')) line.erase(0, line.substr(0, line.find('(')).rfind('/') + 1);
    text += "  " + line + "\n";
  }
  return text;
}

// ---- the parts of the file

/// What may be told, as `options` has it.
class Teller {
 public:
  explicit Teller(const ReportOptions& options)
      : withNames_(options.withNames), anonymizer_(Anonymizer::here()) {
    if (const auto token = SharedConfig::token()) token_ = token->reveal();
    const auto address = SharedConfig::apiURL();
    if (!address) return;
    const auto url = platform::URL::parse(*address);
    if (!url) return;
    const std::string origin = url->origin();
    const auto host = origin.substr(std::min(origin.find("//") + 2, origin.size()));
    anonymizer_.hide(host);
    anonymizer_.hide(host.substr(0, host.rfind(':')));
  }
  std::string text(const std::string& text) const {
    return withNames_ ? text : anonymizer_.text(text);
  }
  Json status(const Json& status) const { return withNames_ ? status : statusForStrangers(status); }
  Json pending(const Json& pending) const {
    return withNames_ ? pending : anonymizer_.pending(pending);
  }
  Findings findings(Findings findings) const {
    for (Finding& finding : findings) {
      finding.text = text(finding.text);
      finding.advice = text(finding.advice);
    }
    return findings;
  }
  Json configuration() const {
    Json told{{"token", token_.empty() ? "missing" : "present"}, {"service", serviceText()}};
    const auto address = SharedConfig::apiURL();
    if (address && withNames_) told["apiURL"] = platform::escapeForDisplay(*address);
    if (address && !withNames_) told["apiURL"] = anonymizer_.name(*address);
    told["mounts"] = settingsText();
    return told;
  }
  /// Whatever got past all of the above.
  ArchivedFile withoutToken(ArchivedFile file) const {
    if (token_.empty()) return file;
    constexpr std::string_view kToken = "(token)";
    std::string& text = file.contents;
    for (auto at = text.find(token_); at != std::string::npos;
         at = text.find(token_, at + kToken.size()))
      text.replace(at, token_.size(), kToken);
    return file;
  }

 private:
  const bool withNames_;
  Anonymizer anonymizer_;
  std::string token_;
};

std::string jsonText(const Json& json) { return platform::encodeJson(json) + "\n"; }

void addHost(const std::optional<Told>& told, const Teller& teller,
             std::vector<ArchivedFile>& files) {
  if (!told) return;
  files.push_back({"status.json", jsonText(teller.status(told->status))});
  if (!told->pending.is_null())
    files.push_back({"pending.json", jsonText(teller.pending(told->pending))});
  if (told->log.is_null()) return;
  std::string log;
  for (const Json& line : told->log.at("lines")) log += teller.text(line.get<std::string>()) + "\n";
  files.push_back({"log.txt", std::move(log)});
}

fs::path placeFor(const ReportOptions& options) {
  if (!options.output.empty()) return options.output;
  std::string time = platform::formatISO8601(platform::dateNow());
  std::erase_if(time, [](char c) { return c == ':' || c == '-'; });
  return "kestrune-report-" + time.substr(0, time.find('.')) + ".tar.gz";
}

void copyIfThere(const Json& from, Json& to, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (from.contains(name)) to[name] = from[name];
  }
}

}  // namespace

std::string withoutNames(const std::string& text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (at > 0 && text[at - 1] != ' ' && text[at - 1] != '(') continue;
    const std::string_view rest = std::string_view(text).substr(at);
    const bool isFile =
        rest.starts_with('/') && !rest.starts_with("/usr/bin/") && !rest.starts_with("/proc/sys/");
    if (isFile || rest.starts_with('\'') || rest.starts_with('"'))
      return text.substr(0, at) + kLeftOut;
  }
  return text;
}

Json statusForStrangers(const Json& status) {
  Json told{{"mountPoint", kLeftOut}, {"domain", kLeftOut}, {"storeError", kLeftOut}};
  copyIfThere(status, told,
              {"process", "passthrough", "knownItems", "itemsHere", "bytesHere", "pendingChanges",
               "failingChanges", "uploads", "downloads", "storeReachable", "cacheLimitBytes",
               "lastSignal"});
  for (const char* counted : {"heldDeletions", "conflicts"}) {
    if (status.contains(counted))  // a host of an older version may run
      told[counted] = {{"count", status.at(counted).at("count")}, {"paths", Json::array()}};
  }
  if (status.contains("lastAudit")) {
    told["lastAudit"] = {{"path", kLeftOut}};
    copyIfThere(status["lastAudit"], told["lastAudit"],
                {"at", "differences", "comparedInAll", "differencesInAll"});
  }
  if (!status.contains("extension") || status["extension"].is_null()) {
    copyIfThere(status, told, {"extension"});
    return told;
  }
  const Json& given = status["extension"];
  Json extension = Json::object();
  copyIfThere(given, extension, {"process", "starts", "deaths", "lastDeath"});
  if (given.contains("refusal")) extension["refusal"] = withoutNames(given.value("refusal", ""));
  if (given.contains("confinement")) {
    const Json& confinement = given["confinement"];
    Json notEnforced = Json::array();
    for (const Json& what : confinement.at("notEnforced"))
      notEnforced.push_back(withoutNames(what.get<std::string>()));
    extension["confinement"] = {{"notEnforced", std::move(notEnforced)}};
    if (confinement.contains("whyNoBubblewrap"))
      extension["confinement"]["whyNoBubblewrap"] =
          withoutNames(confinement.value("whyNoBubblewrap", ""));
  }
  told["extension"] = std::move(extension);
  return told;
}

namespace {

void printSummary(const std::optional<Told>& told, const ReportOptions& options,
                  std::ostream& output) {
  const fs::path replica = replicaOf(told, options);
  std::error_code unknown;
  output << "kestrune " << options.version << "\n"
         << "System: " << systemText() << "\n"
         << "Service: " << serviceText() << "\n"
         << "Settings of mounts: " << settingsText() << "\n"
         << "/dev/fuse: " << yesOrNo(fs::exists("/dev/fuse", unknown))
         << ", bubblewrap: " << yesOrNo(fs::exists(sandbox::kBubblewrap, unknown)) << "\n"
         << "Replica in its default place: "
         << yesOrNo(fs::weakly_canonical(replica, unknown) ==
                    fs::weakly_canonical(defaultReplica(options.domainIdentifier), unknown))
         << "\n"
         << mountsText(presentMountTable()) << "\n"
         << hostText(told) << "\n";
  const auto crashes = host::CrashReports::keptIn(replica / "crashes");
  output << "Crashes of the extension: " << crashes.size() << "\n";
  for (const std::string& crash : crashes) output << "\n" << crashText(crash);
}

}  // namespace

void printReport(const HostFinder& finder, const ReportOptions& options, std::ostream& output) {
  printSummary(askHost(finder, options), options, output);
}

std::vector<ArchivedFile> gatherReport(const HostFinder& finder, const ReportOptions& options) {
  const auto told = askHost(finder, options);
  const Teller teller(options);
  std::ostringstream summary;
  printSummary(told, options, summary);
  std::vector<ArchivedFile> files{{"summary.txt", summary.str()}};
  const Findings findings =
      teller.findings(examine(finder, {.domainIdentifier = options.domainIdentifier,
                                       .replicaDirectory = options.replicaDirectory,
                                       .asJson = false,
                                       .program = options.program}));
  files.push_back({"doctor.txt", findingsText(findings, Escaping::forTerminal)});
  files.push_back({"doctor.json", jsonText(findingsJson(findings))});
  files.push_back({"configuration.json", jsonText(teller.configuration())});
  addHost(told, teller, files);
  for (ArchivedFile& file : files) file = teller.withoutToken(std::move(file));
  return files;
}

void writeReport(const HostFinder& finder, const ReportOptions& options, std::ostream& output) {
  const fs::path place = placeFor(options);
  const std::string shown = "'" + platform::escapeForDisplay(place.native()) + "'";
  std::error_code unknown;
  if (fs::symlink_status(place, unknown).type() != fs::file_type::not_found) {
    throw CommandError("The report is not written, because there is " + shown +
                       " already. Choose another name with --output, or remove it.");
  }
  const auto files = gatherReport(finder, options);
  try {
    platform::replaceFile(fs::absolute(place), tarGz(files, platform::dateNow()),
                          platform::Durability::atomic);
  } catch (const platform::NSError& error) {
    throw CommandError("Cannot write the report: " + error.localizedDescription() +
                       ". Choose another place with --output.");
  }
  if (options.asJson) {
    Json names = Json::array();
    for (const ArchivedFile& file : files) names.push_back(file.name);
    output << platform::encodeJson({{"file", host::pathToJson(fs::absolute(place).native())},
                                    {"withNames", options.withNames},
                                    {"parts", std::move(names)}})
           << "\n";
    return;
  }
  output << "Wrote " << shown << ". It holds no token"
         << (options.withNames ? ", but names of files and the service's address."
                               : ", and hashes instead of names of files.")
         << " To look into it: tar xzf " << shown << "\n";
}

}  // namespace kestrune
