#include "companion/MountCommand.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "companion/RecentLog.h"
#include "companion/ServiceManager.h"
#include "companion/configuration/CommandError.h"
#include "companion/configuration/InvalidateCommand.h"
#include "companion/configuration/MountConfiguration.h"
#include "companion/control/HostFinder.h"
#include "companion/events/EventListener.h"
#include "config/SharedConfig.h"
#include "config/StorageLocations.h"
#include "desktop/DesktopService.h"
#include "extension/FileProviderExtension.h"
#include "host/MountHost.h"
#include "host/control/ControlRequest.h"
#include "host/launch/LaunchedExtension.h"
#include "host/launch/Launcher.h"
#include "host/launch/PlatformServices.h"
#include "host/launch/SandboxedCommand.h"
#include "namespace/FileProviderItem.h"
#include "namespace/PinStore.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Directories.h"
#include "platform/log/JournalSink.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

constexpr boundary::Offers kOffers = {true, true, true};

void requireConfiguration() {
  if (SharedConfig::apiURL() && SharedConfig::token()) return;
  throw CommandError("There is no service to mount: '" + SharedConfig::file().string() +
                     "' holds no address and token. Write it with: kestrune configure");
}

// What hosts and extensions that were killed left behind, in all the folders where files are replaced.
void tidyUp() {
  constexpr std::chrono::hours kAbandoned{1};
  platform::removeAbandonedReplacements(storage::sharedDirectory(), kAbandoned);
  platform::removeAbandonedReplacements(storage::listingCacheDirectory(), kAbandoned);
}

void requireFuse() {
  if (std::filesystem::exists("/dev/fuse")) return;
  throw CommandError(
      "Nothing can be mounted on this machine: there is no /dev/fuse (load the kernel's module "
      "fuse, or give the container the device). kestrune ls and kestrune cat work without it.");
}

std::shared_ptr<host::Launcher> makeLauncher(const platform::NSFileProviderDomain& domain,
                                             const host::HostOptions& host) {
  host::LaunchOptions launch;
  sandbox::SandboxPaths paths;
  paths.shared = storage::sharedDirectory();
  paths.temporary = platform::temporaryDirectory();
  paths.outgoing = host.replicaDirectory / "outgoing";
  paths.program = extensionProgram(host.program);
  if (const char* certificates = std::getenv("SSL_CERT_FILE")) paths.certificates = certificates;
  const auto command = std::make_shared<host::SandboxedCommand>(std::move(paths));
  launch.command = [command] { return command->next(); };
  launch.domain = domain;
  launch.leftBehind = host::childProcesses(::getpid());
  launch.offers = kOffers;
  launch.services = host::platformServices(domain);
  launch.log = std::make_shared<host::HostLog>();
  launch.timers = host::systemTimers();
  launch.reports = host.replicaDirectory / "crashes";
  return std::make_shared<host::Launcher>(std::move(launch));
}

}  // namespace

std::filesystem::path extensionProgram(const host::ProgramStart& own) {
  auto beside = own.file.parent_path() / "kestrune-fileprovider";
  if (std::filesystem::exists(beside)) return beside;
  auto behindLinks =
      std::filesystem::weakly_canonical(own.file).parent_path() / "kestrune-fileprovider";
  if (std::filesystem::exists(behindLinks)) return behindLinks;
  throw CommandError("The program '" + beside.string() +
                     "' is missing; it belongs beside kestrune. Install both from one release.");
}

std::filesystem::path defaultReplica(const std::string& domainIdentifier) {
  return storage::sharedDirectory() / "replica" / domainIdentifier;
}

void runMount(const MountOptions& options) {
  requireFuse();
  requireConfiguration();
  tidyUp();
  host::HostOptions host;
  host.mountPoint = options.mountPoint;
  host.replicaDirectory = options.replicaDirectory.empty()
                              ? defaultReplica(options.domainIdentifier)
                              : options.replicaDirectory;
  host.signalFile = storage::invalidationTokenFile();
  host.domainIdentifier = options.domainIdentifier;
  host.allowOtherUsers = options.allowOtherUsers;
  host.lookersOn = MountConfiguration::read().lookersOn(host::defaultLookersOn());
  host.version = options.version;
  host.program = options.program;
  host.inherited = options.inherited;
  host.limits = {options.cacheBytes, options.keepFreeBytes};
  host.controlSockets = controlSocketFiles(options.domainIdentifier);
  host.unpin = [](const platform::NSFileProviderItemIdentifier& identifier) {
    PinStore::setPinned(false, FileProviderItem::path(identifier));
  };
  const auto launcher = std::make_shared<std::weak_ptr<host::Launcher>>();
  if (!options.inOneProcess) {
    host.extensionStatus = [launcher] {
      const auto running = launcher->lock();
      return running ? running->status() : host::ExtensionStatus();
    };
  }
  const auto log = std::make_shared<RecentLog>(platform::journalSink());
  platform::setLogSink(log);
  host.recentLog = [log] { return log->lines(); };
  // From when the folder can be used: no thread may run before.
  std::optional<EventListener> listener;
  std::optional<ServiceManager> serviceManager;
  const bool isNew = options.inherited == nullptr || !options.inherited->exists();
  host.mounted = [&options, &listener, &serviceManager, isNew] {
    EventListenerOptions events;
    events.refresh = std::chrono::seconds(options.refreshSeconds);
    listener.emplace(events, [] { writeInvalidationToken(); });
    serviceManager.emplace(options.mountPoint.string());
    if (!isNew) return;
    if (options.asJson) {
      const platform::Json told{
          {"mountPoint", host::pathToJson(std::filesystem::absolute(options.mountPoint).native())},
          {"process", ::getpid()}};
      std::printf("%s\n", platform::encodeJson(told).c_str());
      std::fflush(stdout);
      return;
    }
    std::printf("Mounted at %s; Ctrl-C or kestrune unmount ends it.\n", options.mountPoint.c_str());
    std::fflush(stdout);
  };
  host.beside = [&options](host::HostControl& control) {
    return std::make_shared<desktop::DesktopService>(
        desktop::MountFacts{std::filesystem::canonical(options.mountPoint).string(),
                            options.domainIdentifier, options.version},
        control);
  };
  try {
    host::runMountHost(host,
                       [&](const platform::NSFileProviderDomainPtr& domain)
                           -> std::shared_ptr<platform::NSFileProviderReplicatedExtension> {
                         if (options.inOneProcess) return FileProviderExtension::make(domain);
                         const auto made = makeLauncher(*domain, host);
                         *launcher = made;  // before anybody can ask
                         return host::makeLaunchedExtension(made, kOffers);
                       });
  } catch (const platform::NSError& error) {
    throw CommandError("Cannot mount at '" + options.mountPoint.string() +
                       "': " + error.localizedDescription() +
                       (error.localizedDescription().ends_with('.') ? "" : ".") +
                       " Nothing was changed; kestrune doctor tells what is amiss.");
  }
}

}  // namespace kestrune
