#include "host/in/FileWatcher.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

constexpr int kRetryMilliseconds = 2000;
// Other files of the folder are replaced by the hundred while much is sent: what comes within this time is read together.
constexpr int kTogetherMilliseconds = 5;
constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

std::unique_ptr<Descriptor> checked(int number, const char* what) {
  if (number < 0) throw platform::NSPOSIXError(errno, what);
  return std::make_unique<Descriptor>(number);
}

}  // namespace

FileWatcher::FileWatcher(std::filesystem::path file, std::function<void()> changed)
    : file_(std::move(file)),
      changed_(std::move(changed)),
      stop_(checked(::eventfd(0, EFD_CLOEXEC), "create an event counter")),
      inotify_(checked(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "watch for changes of files")) {
  beginWatch();  // before the caller goes on: what changes afterwards is not missed
  thread_ = std::thread([this] { run(); });
}

FileWatcher::~FileWatcher() {
  const std::uint64_t one = 1;
  // An event counter's write fails only when it would overflow.
  [[maybe_unused]] const auto written = ::write(stop_->number(), &one, sizeof(one));
  thread_.join();
}

void FileWatcher::run() {
  ::pthread_setname_np(::pthread_self(), "kes-watch");
  for (;;) {
    const bool watching = watch_ >= 0;
    if (!waitForEvents(watching ? -1 : kRetryMilliseconds)) return;
    const bool changed = watching ? drainEvents() : beginWatch();
    if (changed) {
      changed_();
    } else if (watching && !pause()) {
      return;
    }
  }
}

// False when the watcher is to stop.
bool FileWatcher::waitForEvents(int timeoutMilliseconds) {
  std::array<pollfd, 2> polled = {pollfd{stop_->number(), POLLIN, 0},
                                  pollfd{inotify_->number(), POLLIN, 0}};
  while (::poll(polled.data(), polled.size(), timeoutMilliseconds) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
  return polled[0].revents == 0;
}

// False when the watcher is to stop.
bool FileWatcher::pause() {
  pollfd stop = {stop_->number(), POLLIN, 0};
  while (::poll(&stop, 1, kTogetherMilliseconds) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
  return stop.revents == 0;
}

bool FileWatcher::beginWatch() {
  const auto folder = file_.parent_path();
  std::error_code error;
  if (std::filesystem::create_directories(folder, error)) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
  }
  watch_ = ::inotify_add_watch(inotify_->number(), folder.c_str(), kEvents);
  return watch_ >= 0;
}

// Whether there was an event that may stand for a change of the file.
bool FileWatcher::drainEvents() {
  bool changed = false;
  const std::string name = file_.filename().string();
  alignas(inotify_event) std::array<char, 16384> buffer{};
  for (;;) {
    const ssize_t length = ::read(inotify_->number(), buffer.data(), buffer.size());
    if (length <= 0) return changed;
    for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof(event));
      const char* eventName = buffer.data() + at + sizeof(event);
      at += sizeof(event) + event.len;
      if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
        if (event.wd != watch_) continue;
        if ((event.mask & IN_MOVE_SELF) != 0) ::inotify_rm_watch(inotify_->number(), watch_);
        watch_ = -1;
        changed = true;
      } else if ((event.mask & IN_Q_OVERFLOW) != 0 || (event.len > 0 && name == eventName)) {
        changed = true;
      }
    }
  }
}

}  // namespace kestrune::host
