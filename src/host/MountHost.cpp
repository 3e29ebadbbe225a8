#include "host/MountHost.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "host/FileSystem.h"
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

}  // namespace

void runMountHost(const HostOptions& options, const ExtensionFactory& makeExtension) {
  const EndSignals endSignals;
  raiseDescriptorLimit();
  requireApart(options.mountPoint, options.replicaDirectory);
  requireApart(options.mountPoint, options.signalFile.parent_path());
  prepareMountPoint(options.mountPoint);
  auto replica = std::make_shared<Replica>(options.replicaDirectory);
  platform::setTemporaryDirectory(replica->temporaryDirectory());

  auto kernelCache = std::make_shared<FuseKernelCache>();
  LiveTree::Services services;
  services.extension = makeExtension(std::make_shared<const platform::NSFileProviderDomain>(
      options.domainIdentifier, options.domainDisplayName));
  services.timers = systemTimers();
  services.kernel = kernelCache;
  services.clock = std::make_shared<const platform::SystemClock>();
  services.log = std::make_shared<HostLog>();
  FileSystem fileSystem(services, std::move(replica));
  FuseFront front(fileSystem);
  MountSession session(front, {options.mountPoint, options.allowOtherUsers});
  kernelCache->attach(session.kernelSession());
  {
    const FileWatcher watcher(options.signalFile, [&fileSystem] { fileSystem.changesSignalled(); });
    session.start();
    if (options.mounted) options.mounted();
    waitForEnd(endSignals.number(), session.endedDescriptor());
  }
  // Everybody who waits is answered before the threads end: a notification may wait for a folder's lock that one of them
  // holds, and the kernel library must not be left while that lasts.
  front.endAll();
  fileSystem.stop();
  kernelCache->detach();
  session.stop();
}

}  // namespace kestrune::host
