#include "host/MountHost.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "host/control/ControlServer.h"
#include "host/front/FuseFront.h"
#include "host/front/FuseKernelCache.h"
#include "host/front/MountPoint.h"
#include "host/front/MountSession.h"
#include "host/in/FileWatcher.h"
#include "host/volume/Manager.h"
#include "host/volume/VolumeControl.h"
#include "platform/files/Directories.h"
#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/MainQueue.h"
#include "platform/tasks/Queue.h"

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

// What the host remembers of a replica. Where it cannot be used a new memory is begun: changed files are taken up by what is
// noted beside them, and what else was here is set aside, since nothing tells any more what it was.
struct Remembered {
  std::shared_ptr<ContentDirectory> directory;
  std::filesystem::path file;
  std::shared_ptr<HostLog> log;

  void begin(OpenedItems opened, Volume::Services& services) const {
    services.lostEdits.clear();
    if (!opened.setAside.empty()) {
      std::size_t kept = 0;
      for (const ContentNumber number : directory->numbers()) {
        if (auto edit = EditDescription::parse(directory->notedEdit(number))) {
          services.lostEdits.push_back({number, std::move(*edit)});
          continue;
        }
        directory->rescue(number, "contents " + std::to_string(number));
        ++kept;
      }
      log->note("memory", "What was remembered cannot be used (" + opened.reason +
                              ") and lies at '" + opened.setAside.string() + "' now; " +
                              std::to_string(services.lostEdits.size()) +
                              " changed files are sent by what was noted beside them, " +
                              std::to_string(kept) + " files of contents were moved to '" +
                              (directory->path() / "rescued").string() + "'.");
    }
    services.store = std::make_shared<ItemStore>(std::move(opened.database));
  }
};

std::unique_ptr<FileSystem> openFileSystem(const Remembered& remembered, Volume::Services services,
                                           const FileSystemOptions& options) {
  remembered.begin(openItems(remembered.file), services);
  try {
    return std::make_unique<FileSystem>(services, options);
  } catch (const StoreError& error) {
    if (error.which() != StoreError::Case::damaged) throw;
    services.store = nullptr;
    remembered.begin(replaceItems(remembered.file, error.localizedDescription()), services);
    return std::make_unique<FileSystem>(services, options);
  }
}

// Managers come from here while it lives.
class ManagerProvision {
 public:
  explicit ManagerProvision(const std::string& domain) {
    platform::NSFileProviderManager::setProvider(
        [domain, manager = manager_](const platform::NSFileProviderDomain& asked) {
          return asked.identifier() == domain ? manager : nullptr;
        });
  }
  ~ManagerProvision() {
    platform::NSFileProviderManager::setProvider(nullptr);
    manager_->detach();
  }
  ManagerProvision(const ManagerProvision&) = delete;
  ManagerProvision& operator=(const ManagerProvision&) = delete;
  void attach(const FileSystem& fileSystem) {
    manager_->attach(fileSystem.volume(), fileSystem.contents(), fileSystem.refresher());
  }

 private:
  const std::shared_ptr<Manager> manager_ = std::make_shared<Manager>();
};

// What the extension copies, for whoever asked; and on the session's pasteboard, if there is one.
class NotedPasteboard final : public platform::NSPasteboard {
 public:
  NotedPasteboard(std::shared_ptr<NSPasteboard> session, std::shared_ptr<HostLog> log)
      : session_(std::move(session)), log_(std::move(log)) {}
  void replaceContents(const std::string& text) override {
    {
      platform::MutexLock lock(mutex_);
      text_ = text;
    }
    try {
      session_->replaceContents(text);
    } catch (const platform::NSError& error) {
      log_->note("pasteboard", error.localizedDescription());
    }
  }
  std::string take() {
    platform::MutexLock lock(mutex_);
    return std::exchange(text_, {});
  }

 private:
  const std::shared_ptr<NSPasteboard> session_;
  const std::shared_ptr<HostLog> log_;
  platform::Mutex mutex_;
  std::string text_ GUARDED_BY(mutex_);
};

// The process's main thread waits for its end, so that work for it has another thread while this lives.
class MainWork {
 public:
  explicit MainWork(const std::shared_ptr<HostLog>& log)
      : pasteboard_(std::make_shared<NotedPasteboard>(platform::NSPasteboard::general(), log)) {
    platform::NSPasteboard::setGeneral(pasteboard_);
    platform::MainQueue::shared().setDispatcher(
        [queue = queue_](std::function<void()> work) { queue->async(std::move(work)); });
  }
  ~MainWork() {
    platform::MainQueue::shared().setDispatcher(nullptr);
    platform::NSPasteboard::setGeneral(nullptr);
  }
  MainWork(const MainWork&) = delete;
  MainWork& operator=(const MainWork&) = delete;
  const std::shared_ptr<NotedPasteboard>& pasteboard() const { return pasteboard_; }

 private:
  const std::shared_ptr<NotedPasteboard> pasteboard_;
  const std::shared_ptr<platform::SerialQueue> queue_ =
      std::make_shared<platform::SerialQueue>("kes-main");
};

// Takes requests, if it can.
std::unique_ptr<ControlServer> listenFor(const HostOptions& options, VolumeControl& control,
                                         HostLog& log) {
  if (options.controlSocket.empty()) return nullptr;
  try {
    return std::make_unique<ControlServer>(
        ControlOptions{options.controlSocket, std::filesystem::canonical(options.mountPoint),
                       options.domainIdentifier},
        control);
  } catch (const platform::NSError& error) {
    log.failure("control", "take requests at '" + options.controlSocket.string() + "'",
                error.localizedDescription());
    return nullptr;
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

  const MainWork mainWork(remembered.log);
  ManagerProvision provision(options.domainIdentifier);
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
  const auto fileSystem = openFileSystem(
      remembered, services, {options.lookersOn, options.extendedAttributes, options.limits});
  provision.attach(*fileSystem);
  FuseFront front(*fileSystem, kernelCache);
  MountSession session(
      front, {options.mountPoint, options.allowOtherUsers, true, options.extendedAttributes});
  kernelCache->attach(session.kernelSession());
  {
    const FileWatcher watcher(options.signalFile,
                              [&fileSystem] { fileSystem->changesSignalled(); });
    session.start();
    fileSystem->start();
    VolumeControl control(*fileSystem,
                          {[&front] { return front.passthroughInUse(); }, options.unpin,
                           [pasteboard = mainWork.pasteboard()] { return pasteboard->take(); }});
    const auto server = listenFor(options, control, *remembered.log);
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
