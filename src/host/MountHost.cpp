#include "host/MountHost.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>

#include "host/HostReplacement.h"
#include "host/control/ControlServer.h"
#include "host/front/FuseFront.h"
#include "host/front/FuseKernelCache.h"
#include "host/front/MountPoint.h"
#include "host/front/MountSession.h"
#include "host/in/FileWatcher.h"
#include "host/volume/Manager.h"
#include "host/volume/VolumeControl.h"
#include "host/volume/VolumeHandover.h"
#include "platform/files/Directories.h"
#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/MainQueue.h"
#include "platform/tasks/Queue.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
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

// Until the end; where somebody asks for a replacement before, this does not return unless that fails.
void waitForEnd(int signals, int ended, RestartWish& wish, HostReplacement& replacement) {
  std::array<pollfd, 3> polled = {pollfd{signals, POLLIN, 0}, pollfd{ended, POLLIN, 0},
                                  pollfd{wish.descriptor(), POLLIN, 0}};
  for (;;) {
    if (::poll(polled.data(), polled.size(), -1) < 0) {
      if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
      continue;
    }
    if (polled[0].revents != 0 || polled[1].revents != 0) return;
    const auto wishes = wish.take();
    const NSErrorPtr error = replacement.run();
    for (const auto& reply : wishes.letters) reply(error);
  }
}

// What the host remembers of a replica. Where it cannot be used a new memory is begun: changed files are taken up by what is
// noted beside them, and what else was here is set aside, since nothing tells any more what it was.
struct Remembered {
  std::shared_ptr<ContentDirectory> directory;
  std::filesystem::path file;
  std::shared_ptr<HostLog> log;
  bool wasLost = false;

  void begin(OpenedItems opened, Volume::Services& services) {
    services.lostEdits.clear();
    if (!opened.setAside.empty()) {
      wasLost = true;
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

std::unique_ptr<FileSystem> openFileSystem(Remembered& remembered, Volume::Services services,
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

// The host in whose place this one was executed, if there was one.
class Predecessor {
 public:
  explicit Predecessor(const HostOptions& options) {
    if (options.inherited == nullptr || !options.inherited->exists()) return;
    handover_ = options.inherited->read();
    const bool isSame = handover_->othersMayEnter == options.allowOtherUsers &&
                        handover_->extendedAttributes == options.extendedAttributes &&
                        handover_->head.mountPoint == absolutePlace(options.mountPoint);
    if (!isSame) throw NSPOSIXError(EINVAL, "go on with a mount of other options");
  }
  /// Null if there was none.
  const Handover* handover() const { return handover_ ? &*handover_ : nullptr; }
  int heldLock() const { return handover_ ? handover_->replicaLock : -1; }
  std::uint64_t restarts() const { return handover_ ? handover_->restarts : 0; }
  void served(HostLog& log) {
    if (!handover_) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    standstill_ = std::chrono::ceil<std::chrono::milliseconds>(
        now - std::chrono::nanoseconds(handover_->begun));
    log.note("restart", "Goes on with the mount of the program before: " +
                            std::to_string(handover_->files.size()) + " open files, " +
                            std::to_string(handover_->requests.size()) +
                            " unanswered requests; programs waited " +
                            std::to_string(standstill_.count()) + " ms.");
  }
  std::chrono::milliseconds standstill() const { return standstill_; }

 private:
  std::optional<Handover> handover_;
  std::chrono::milliseconds standstill_{0};
};

std::string machineName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "here";
}

// All but who speaks for the store and for the kernel.
Volume::Services servicesFor(const Remembered& remembered, const Predecessor& before) {
  Volume::Services services;
  services.timers = systemTimers();
  services.clock = std::make_shared<const platform::SystemClock>();
  services.log = remembered.log;
  services.directory = remembered.directory;
  services.machine = machineName();
  if (before.handover() != nullptr) keepWhatIsOpen(*before.handover(), services);
  return services;
}

std::unique_ptr<MountSession> sessionFor(const HostOptions& options, const Predecessor& before,
                                         FuseFront& front, FileSystem& fileSystem) {
  const MountSettings settings = {options.mountPoint, options.allowOtherUsers, true,
                                  options.extendedAttributes};
  if (before.handover() == nullptr) return std::make_unique<MountSession>(front, settings);
  const Handover& handover = *before.handover();
  const auto files = takeOverVolume(fileSystem, handover);
  auto session = std::make_unique<MountSession>(front, settings, handover, files);
  options.inherited->taken();
  return session;
}

// What the one before had received, and not told the kernel yet.
void goOnAfter(const Predecessor& before, MountSession& session, FuseKernelCache& kernel) {
  if (before.handover() == nullptr) return;
  kernel.tell(before.handover()->updates, nullptr);
  session.process(before.handover()->requests);
}

// Takes requests, if it can.
std::unique_ptr<ControlServer> listenFor(const HostOptions& options, const Predecessor& before,
                                         VolumeControl& control, HostLog& log) {
  for (const auto& file : options.controlSockets) {
    try {
      return std::make_unique<ControlServer>(
          ControlOptions{file, std::filesystem::canonical(options.mountPoint),
                         options.domainIdentifier, options.version, before.restarts(),
                         before.standstill(), std::filesystem::absolute(options.replicaDirectory)},
          control);
    } catch (const platform::NSError& error) {
      const bool isTaken =
          error.domain() == platform::kNSPOSIXErrorDomain && error.code() == EADDRINUSE;
      if (isTaken && &file != &options.controlSockets.back()) continue;
      log.failure("control", "take requests at '" + file.string() + "'",
                  error.localizedDescription());
      return nullptr;
    }
  }
  return nullptr;
}

}  // namespace

void runMountHost(const HostOptions& options, const ExtensionFactory& makeExtension) {
  const EndSignals endSignals;
  raiseDescriptorLimit();
  requireApart(options.mountPoint, options.replicaDirectory);
  requireApart(options.mountPoint, options.signalFile.parent_path());
  Predecessor before(options);
  if (before.handover() == nullptr) prepareMountPoint(options.mountPoint);
  Remembered remembered;
  remembered.directory =
      std::make_shared<ContentDirectory>(options.replicaDirectory, before.heldLock());
  remembered.file = options.replicaDirectory / "items.sqlite";
  remembered.log = std::make_shared<HostLog>();
  platform::setTemporaryDirectory(remembered.directory->temporaryDirectory());

  const MainWork mainWork(remembered.log);
  ManagerProvision provision(options.domainIdentifier);
  auto kernelCache = std::make_shared<FuseKernelCache>();
  auto services = servicesFor(remembered, before);
  services.extension = makeExtension(std::make_shared<const platform::NSFileProviderDomain>(
      options.domainIdentifier, options.domainDisplayName));
  services.kernel = kernelCache;
  const auto fileSystem = openFileSystem(
      remembered, services, {options.lookersOn, options.extendedAttributes, options.limits});
  // Numbers mean other items now than what the kernel knows by them.
  if (remembered.wasLost && before.handover() != nullptr)
    throw NSPOSIXError(EIO, "go on with a replica whose database was damaged");
  provision.attach(*fileSystem);
  FuseFront front(*fileSystem, kernelCache);
  const auto session = sessionFor(options, before, front, *fileSystem);
  kernelCache->attach(session->kernelSession());
  {
    const FileWatcher watcher(options.signalFile,
                              [&fileSystem] { fileSystem->changesSignalled(); });
    goOnAfter(before, *session, *kernelCache);
    session->start();
    before.served(*remembered.log);
    fileSystem->start();
    RestartWish wish;
    HostReplacement replacement({*fileSystem, front, *session, *kernelCache, *remembered.directory},
                                options.program, absolutePlace(options.mountPoint),
                                before.restarts());
    VolumeControl control(
        *fileSystem,
        {[&front] { return front.passthroughInUse(); }, options.unpin,
         [pasteboard = mainWork.pasteboard()] { return pasteboard->take(); },
         [&wish](Reply<Done> reply) { wish.put(std::move(reply)); }, options.extensionStatus,
         options.recentLog,
         [] { ::kill(::getpid(), SIGTERM); }});  // read by EndSignals, as any other end
    const auto server = listenFor(options, before, control, *remembered.log);
    const std::shared_ptr<void> beside = options.beside ? options.beside(control) : nullptr;
    if (options.mounted) options.mounted();
    waitForEnd(endSignals.number(), session->endedDescriptor(), wish, replacement);
  }
  // Everybody who waits is answered before the threads end: a notification may wait for a folder's lock that one of them
  // holds, and the kernel library must not be left while that lasts.
  front.endAll();
  fileSystem->stop();
  kernelCache->detach();
  session->stop();
}

}  // namespace kestrune::host
