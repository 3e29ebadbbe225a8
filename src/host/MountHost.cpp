#include "host/MountHost.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "host/front/FuseFront.h"
#include "host/front/FuseKernelCache.h"
#include "host/front/MountPoint.h"
#include "host/front/MountSession.h"
#include "host/in/FileWatcher.h"
#include "platform/files/Directories.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

// The signals that end the host, readable from a descriptor instead of delivered to some thread.
class EndSignals {
 public:
  EndSignals() : descriptor_(blocked()) {
    if (descriptor_.number() < 0) throw NSPOSIXError(errno, "wait for signals");
  }
  int number() const { return descriptor_.number(); }

 private:
  static int blocked() {
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return ::signalfd(-1, &signals, SFD_CLOEXEC);
  }
  Descriptor descriptor_;
};

// Every open file of the mount holds a descriptor; the usual soft limit of 1,024 is one program's, not a file system's.
void raiseDescriptorLimit() {
  struct rlimit limit = {};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);  // without success the old limit holds
}

void waitForEnd(int signals, int ended) {
  std::array<pollfd, 2> polled = {pollfd{signals, POLLIN, 0}, pollfd{ended, POLLIN, 0}};
  while (::poll(polled.data(), polled.size(), -1) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
}

// What the host remembers of a replica. Where it cannot be used a new memory is begun; contents that nobody else may have are
// set aside first, since nothing tells any more whose they were.
struct Remembered {
  std::shared_ptr<ContentDirectory> directory;
  std::filesystem::path file;
  std::shared_ptr<HostLog> log;

  std::shared_ptr<ItemStore> begin(OpenedItems opened) const {
    if (!opened.setAside.empty()) {
      std::size_t kept = 0;
      for (const ContentNumber number : directory->numbers()) {
        directory->rescue(number, "contents " + std::to_string(number));
        ++kept;
      }
      log->note("memory", "What was remembered cannot be used (" + opened.reason +
                              ") and lies at '" + opened.setAside.string() + "' now; " +
                              std::to_string(kept) + " files of contents were moved to '" +
                              (directory->path() / "rescued").string() + "'.");
    }
    return std::make_shared<ItemStore>(std::move(opened.database));
  }
};

std::unique_ptr<FileSystem> openFileSystem(const Remembered& remembered, Volume::Services services,
                                           const FileSystemOptions& options) {
  services.store = remembered.begin(openItems(remembered.file));
  try {
    return std::make_unique<FileSystem>(services, options);
  } catch (const StoreError& error) {
    if (error.which() != StoreError::Case::damaged) throw;
    services.store = nullptr;
    services.store = remembered.begin(replaceItems(remembered.file, error.localizedDescription()));
    return std::make_unique<FileSystem>(services, options);
  }
}

std::string machineName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "here";
}

}  // namespace

void runMountHost(const HostOptions& options, const ExtensionFactory& makeExtension) {
  const EndSignals endSignals;
  raiseDescriptorLimit();
  requireApart(options.mountPoint, options.replicaDirectory);
  requireApart(options.mountPoint, options.signalFile.parent_path());
  prepareMountPoint(options.mountPoint);
  Remembered remembered;
  remembered.directory = std::make_shared<ContentDirectory>(options.replicaDirectory);
  remembered.file = options.replicaDirectory / "items.sqlite";
  remembered.log = std::make_shared<HostLog>();
  platform::setTemporaryDirectory(remembered.directory->temporaryDirectory());

  auto kernelCache = std::make_shared<FuseKernelCache>();
  Volume::Services services;
  services.extension = makeExtension(std::make_shared<const platform::NSFileProviderDomain>(
      options.domainIdentifier, options.domainDisplayName));
  services.timers = systemTimers();
  services.kernel = kernelCache;
  services.clock = std::make_shared<const platform::SystemClock>();
  services.log = remembered.log;
  services.directory = remembered.directory;
  services.machine = machineName();
  const auto fileSystem =
      openFileSystem(remembered, services, {options.lookersOn, options.extendedAttributes});
  FuseFront front(*fileSystem, kernelCache);
  MountSession session(
      front, {options.mountPoint, options.allowOtherUsers, true, options.extendedAttributes});
  kernelCache->attach(session.kernelSession());
  {
    const FileWatcher watcher(options.signalFile,
                              [&fileSystem] { fileSystem->changesSignalled(); });
    session.start();
    fileSystem->start();
    if (options.mounted) options.mounted();
    waitForEnd(endSignals.number(), session.endedDescriptor());
  }
  // Everybody who waits is answered before the threads end: a notification may wait for a folder's lock that one of them
  // holds, and the kernel library must not be left while that lasts.
  front.endAll();
  fileSystem->stop();
  kernelCache->detach();
  session.stop();
}

}  // namespace kestrune::host
