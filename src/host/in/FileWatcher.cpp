#include "host/in/FileWatcher.h"

#include <pthread.h>
#include <sys/inotify.h>

#include <cstdint>
#include <system_error>
#include <utility>

namespace kestrune::host {

namespace {

using platform::FileEvents;

constexpr std::chrono::milliseconds kRetry{2000};
// Other files of the folder are replaced by the hundred while much is sent: what comes within this time is read together.
constexpr std::chrono::milliseconds kTogether{5};
constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

}  // namespace

FileWatcher::FileWatcher(std::filesystem::path file, std::function<void()> changed)
    : file_(std::move(file)), name_(file_.filename()), changed_(std::move(changed)) {
  events_.begin();
  beginWatch();  // before the caller goes on: what changes afterwards is not missed
  thread_ = std::thread([this] { run(); });
}

FileWatcher::~FileWatcher() {
  events_.stop();
  thread_.join();
}

void FileWatcher::run() {
  ::pthread_setname_np(::pthread_self(), "kes-watch");
  for (;;) {
    const bool watching = watch_ >= 0;
    if (!events_.wait(watching ? FileEvents::kForEver : kRetry)) return;
    const bool changed = watching ? drainEvents() : beginWatch();
    if (changed) {
      changed_();
    } else if (watching && !events_.pause(kTogether)) {
      return;
    }
  }
}

bool FileWatcher::beginWatch() {
  const auto folder = file_.parent_path();
  std::error_code error;
  if (std::filesystem::create_directories(folder, error)) {
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all, error);
  }
  watch_ = events_.watch(folder.c_str(), kEvents);
  return watch_ >= 0;
}

// Whether there was an event that may stand for a change of the file.
bool FileWatcher::drainEvents() {
  bool changed = false;
  events_.take([&](const FileEvents::Event& event) { changed = isChange(event) || changed; });
  return changed;
}

bool FileWatcher::isChange(const FileEvents::Event& event) {
  if ((event.kinds & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
    if (event.watch != watch_) return false;
    if ((event.kinds & IN_MOVE_SELF) != 0) events_.forget(watch_);
    watch_ = -1;
    return true;
  }
  return (event.kinds & IN_Q_OVERFLOW) != 0 || event.name == name_;
}

}  // namespace kestrune::host
