#include "host/front/MountSession.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "host/front/FuseRequest.h"
#include "host/front/MountPoint.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

// Reads of what is here take turns on the processor, not on one thread. More threads than this only add switches.
constexpr int kServers = 4;
constexpr std::size_t kReadAhead = kLargestRead;
constexpr int kWakeSignal = SIGUSR2;

// `add` of libfuse's argument list fails only without memory.
void add(fuse_args& arguments, const std::string& text) {
  if (fuse_opt_add_arg(&arguments, text.c_str()) != 0) throw std::bad_alloc();
}

fuse_session* newSession(FuseFront& front, const MountSettings& settings) {
  fuse_args arguments = FUSE_ARGS_INIT(0, nullptr);
  add(arguments, "kestrune");
  add(arguments, "-o");
  add(arguments, std::string("fsname=kestrune,subtype=kestrune,nosuid,nodev,default_permissions,"
                             "max_read=") +
                     std::to_string(kLargestRead) + (settings.writable ? ",rw" : ",ro") +
                     (settings.allowOtherUsers ? ",allow_other" : ""));
  FuseFront::Options options;
  options.othersMayEnter = settings.allowOtherUsers;
  options.extendedAttributes = settings.extendedAttributes;
  fuse_session* session = front.newSession(arguments, options);
  fuse_opt_free_args(&arguments);
  if (session == nullptr) throw NSPOSIXError(EINVAL, "set up a FUSE session");
  return session;
}

std::unique_ptr<Descriptor> eventCounter() {
  auto counter = std::make_unique<Descriptor>(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (counter->number() < 0) throw NSPOSIXError(errno, "create an event counter");
  return counter;
}

}  // namespace

MountSession::MountSession(FuseFront& front, const MountSettings& settings)
    : front_(front), session_(newSession(front, settings)), ended_(eventCounter()) {
  errno = 0;
  if (fuse_session_mount(session_, settings.mountPoint.c_str()) != 0) {
    const int error = errno != 0 ? errno : EPERM;
    fuse_session_destroy(session_);
    throw NSPOSIXError(error, "mount on '" + settings.mountPoint.string() + "'");
  }
  try {
    front.mounted(session_);
  } catch (...) {
    fuse_session_unmount(session_);
    fuse_session_destroy(session_);
    throw;
  }
  raiseReadAhead(settings.mountPoint, kReadAhead);
}

MountSession::MountSession(FuseFront& front, const MountSettings& settings,
                           const Handover& handover, const std::vector<OpenFilePtr>& files)
    : front_(front),
      session_(newSession(front, settings)),
      inherited_(handover.head.mountPoint),
      ended_(eventCounter()) {
  try {
    front.takeOver(session_, handover, files);
  } catch (...) {
    fuse_session_destroy(session_);
    throw;
  }
}

MountSession::~MountSession() {
  stop();
  if (inherited_.empty()) {
    fuse_session_unmount(session_);
  } else {
    unmountInherited();
  }
  fuse_session_destroy(session_);
}

// Somebody else may have unmounted it, and mounted something else there: the device knows.
void MountSession::unmountInherited() {
  pollfd device = {front_.device().descriptor(), 0, 0};
  if (::poll(&device, 1, 0) == 1 && (device.revents & POLLERR) != 0) return;
  try {
    detachMount(inherited_);
  } catch (const NSPOSIXError&) {
    // It has gone meanwhile, or goes with the device.
  }
}

void MountSession::start() {
  stopping_ = false;
  struct sigaction wake = {};
  wake.sa_handler = [](int) {};  // without SA_RESTART: it ends a read of the device
  ::sigaction(kWakeSignal, &wake, nullptr);
  for (int i = 0; i < kServers; ++i) {
    auto& server = servers_.emplace_back(std::make_unique<Server>());
    server->thread = std::thread([this, &server = *server] { serve(server); });
  }
}

void MountSession::serve(Server& server) {
  ::pthread_setname_np(::pthread_self(), "kes-fuse");
  fuse_buf buffer = {};
  while (!stopping_ && fuse_session_exited(session_) == 0) {
    const int received = fuse_session_receive_buf(session_, &buffer);
    if (received == -EINTR) continue;
    if (received <= 0) break;
    fuse_session_process_buf(session_, &buffer);
  }
  std::free(buffer.mem);
  server.done = true;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(ended_->number(), &one, sizeof(one));
}

bool MountSession::pause() {
  stop();
  if (fuse_session_exited(session_) != 0) return false;
  std::uint64_t ended = 0;
  [[maybe_unused]] const auto got = ::read(ended_->number(), &ended, sizeof(ended));
  return true;
}

void MountSession::process(const std::vector<std::string>& requests) {
  for (const std::string& request : requests) front_.device().process(session_, request);
}

void MountSession::stop() {
  stopping_ = true;
  for (const auto& server : servers_) {
    // Again and again: a signal that comes just before the thread begins to wait is lost.
    while (!server->done) {
      ::pthread_kill(server->thread.native_handle(), kWakeSignal);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    server->thread.join();
  }
  servers_.clear();
}

}  // namespace kestrune::host
