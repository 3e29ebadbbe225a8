#include "service/TreeWatch.h"

#include <fmt/format.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <exception>
#include <optional>
#include <utility>

#include "platform/values/NSError.h"
#include "service/RemotePath.h"
#include "service/ServiceError.h"
#include "service/ServiceLog.h"

namespace kestrune::service {
namespace {

using platform::FileEvents;
using std::chrono::milliseconds;

/// Names that come and go change a listing, and the time of the folder in the listing above, whatever they stand for.
constexpr std::uint32_t kNameKinds = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kContentKinds = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB;
constexpr std::uint32_t kKinds =
    kNameKinds | kContentKinds | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

/// Folders are looked through for so long before events are taken again: about a thousand that the kernel has in memory.
constexpr milliseconds kPiece{10};

/// From here on a ServiceError says that the machine cannot, not that the folder is not there.
constexpr unsigned kServersFault = 500;

bool isOnNetwork(const FileDescriptor& folder) {
  struct statfs status {};
  if (::fstatfs(folder.get(), &status) != 0) return false;
  const auto type = static_cast<std::uint32_t>(status.f_type);
  constexpr std::array<std::uint32_t, 8> kRemote = {
      NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC, CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC,
      CEPH_SUPER_MAGIC, AFS_SUPER_MAGIC, V9FS_MAGIC,       FUSE_SUPER_MAGIC};
  return std::find(kRemote.begin(), kRemote.end(), type) != kRemote.end();
}

/// Whether `name` in `folder` is `found`.
bool isIn(int folder, const std::string& name, const FileDescriptor& found) {
  try {
    return attributesAt(folder, name.c_str()).inode == attributesOf(found).inode;
  } catch (const ServiceError&) {
    return false;
  }
}

}  // namespace

TreeWatch::TreeWatch(const Tree& tree, Changes& changes, WatchPace pace)
    : tree_(tree), changes_(changes), pace_(pace), thread_([this] { run(); }) {}

TreeWatch::~TreeWatch() {
  events_.stop();
  thread_.join();
}

void TreeWatch::run() {
  ::pthread_setname_np(::pthread_self(), "kes-tree");
  beginWalk();
  while (events_.wait(untilNext())) {
    if (!events_.pause(pace_.together)) return;
    try {
      takeEvents();
      walkOn();
    } catch (const std::exception& error) {
      // Memory is short: what was being looked at has no watch.
      becomePartial(error.what());
    }
    announceWhatIsDue();
  }
}

void TreeWatch::beginWalk() {
  folders_.clear();
  unread_.clear();
  reader_.reset();
  astray_.clear();
  lost_ = false;
  partial_ = false;
  walkBegan_ = Clock::now();
  try {
    events_.begin();
    const FileDescriptor root = tree_.openFolder(RemotePath::parse("/"));
    if (isOnNetwork(root)) becomePartial("the root is on a network file system");
    const int watch = addWatch(root);
    if (watch == WatchedFolders::kNone) return;
    folders_.put(watch, WatchedFolders::kNone, "");
    unread_.push_back(watch);
  } catch (const std::exception& error) {
    becomePartial(error.what());
  }
}

void TreeWatch::walkOn() {
  unread_.insert(unread_.end(), astray_.begin(), astray_.end());
  astray_.clear();
  if (unread_.empty()) return;
  const auto end = Clock::now() + kPiece;
  while (readOn() && Clock::now() < end) continue;
  // What changed in a folder before it had its watch.
  (unread_.empty() ? soon_ : later_) = true;
}

std::optional<TreeWatch::Clock::time_point> TreeWatch::due() const {
  if (soon_) return announced_;
  if (later_) return announced_ + pace_.growth;
  if (partial_) return announced_ + pace_.unwatched;
  return std::nullopt;
}

milliseconds TreeWatch::untilNext() const {
  if (!unread_.empty()) return milliseconds(0);
  const auto next = due();
  if (!next) return FileEvents::kForEver;
  return std::max(std::chrono::ceil<milliseconds>(*next - Clock::now()), milliseconds(0));
}

void TreeWatch::announceWhatIsDue() {
  const auto next = due();
  const auto now = Clock::now();
  if (!next || now < *next) return;
  soon_ = false;
  later_ = false;
  announced_ = now;
  changes_.announce();
}

void TreeWatch::takeEvents() {
  events_.take([this](const Event& event) { handle(event); });
  if (lost_) {
    soon_ = true;
    if (!std::exchange(lostLogged_, true)) {
      serviceLog().write(platform::LogLevel::standard,
                         "more changes at once than fs.inotify.max_queued_events allows; the "
                         "folders are looked through again");
    }
  }
  if (lost_ || (partial_ && Clock::now() - walkBegan_ >= pace_.anew)) beginWalk();
}

void TreeWatch::handle(const Event& event) {
  const std::uint32_t kinds = event.kinds;
  if ((kinds & IN_Q_OVERFLOW) != 0) lost_ = true;
  // Late events of a folder that left the tree are of no interest.
  if (!folders_.has(event.watch)) return;
  if ((kinds & IN_IGNORED) != 0) return forget(event.watch);
  if ((kinds & IN_MOVE_SELF) != 0) return checkPlace(event.watch);
  // A folder's attributes count because it may just have become readable.
  if ((kinds & IN_ISDIR) != 0 && (kinds & (IN_CREATE | IN_MOVED_TO | IN_ATTRIB)) != 0 &&
      !event.name.empty()) {
    const FileDescriptor folder = open(event.watch);
    if (folder) attach(folder.get(), event.watch, std::string(event.name));
  }
  if ((kinds & kNameKinds) == 0 && !event.name.empty() && !isAcceptableName(event.name)) return;
  ((kinds & IN_MODIFY) != 0 ? later_ : soon_) = true;
}

/// The folder of `watch` has moved: where to is known by now, if that is within the tree.
void TreeWatch::checkPlace(int watch) {
  const int above = folders_.above(watch);
  if (above == WatchedFolders::kNone) return;
  const std::string name = folders_.name(watch);
  const FileDescriptor folder = open(above);
  if (!folder || attach(folder.get(), above, name) != watch) forget(watch);
}

void TreeWatch::forget(int watch) {
  for (const int forgotten : folders_.forget(watch)) events_.forget(forgotten);
}

/// The folder of `watch`, if it is where it was last. Else it goes astray, and is read when it is known again where it is.
FileDescriptor TreeWatch::open(int watch) {
  const std::string path = folders_.pathOf(watch).value_or("");
  // Deeper down nothing is served.
  if (path.size() >= PATH_MAX) return {};
  try {
    FileDescriptor folder = tree_.openFolder(RemotePath::parse(path.empty() ? "/" : path));
    const int found = addWatch(folder);
    if (found == watch) return folder;
    if (found != WatchedFolders::kNone && !folders_.has(found)) events_.forget(found);
  } catch (const ServiceError& error) {
    if (error.status() >= kServersFault) becomePartial(error.what());
  }
  astray_.insert(watch);
  return {};
}

/// Takes the next folder from the one that is being read, or begins with the next of those. False when all are read.
bool TreeWatch::readOn() {
  if (unread_.empty()) return false;
  const int watch = unread_.front();
  const char* name = nullptr;
  try {
    if (!folders_.has(watch)) {
      reader_.reset();
    } else if (!reader_) {
      if (FileDescriptor folder = open(watch)) reader_.emplace(std::move(folder));
    }
    if (reader_) name = reader_->next();
  } catch (const ServiceError& error) {
    becomePartial(error.what());
  }
  if (reader_ && name != nullptr) {
    attach(reader_->descriptor(), watch, name);
  } else {
    reader_.reset();
    unread_.pop_front();
  }
  return true;
}

/// Sees to it that the folder `name` in `folder`, whose watch is `above`, has a watch, and returns that. kNone if there is
/// no such folder, or none that the service would list; or if it can have no watch, which makes the whole partial.
int TreeWatch::attach(int folder, int above, const std::string& name) {
  if (!isAcceptableName(name)) return WatchedFolders::kNone;
  FileDescriptor found;
  try {
    found = Tree::openFolderIn(folder, name.c_str());
  } catch (const ServiceError& error) {
    if (error.status() >= kServersFault) becomePartial(error.what());
    return WatchedFolders::kNone;
  }
  // What may be read but not searched cannot be listed. It is looked at again when its attributes change.
  if (::faccessat(found.get(), ".", X_OK, 0) != 0) return WatchedFolders::kNone;
  const int watch = addWatch(found);
  if (watch == WatchedFolders::kNone) return watch;
  const bool isNew = !folders_.has(watch);
  const bool isTooMany = isNew && folders_.count() >= pace_.folders;
  if (isTooMany) becomePartial("there are too many folders");
  // Of a move before it had its watch the folder itself tells nothing; whoever holds it now does, if that is in the tree.
  if (isTooMany || (isNew && !isIn(folder, name, found))) {
    events_.forget(watch);
    return WatchedFolders::kNone;
  }
  if (!folders_.put(watch, above, name)) becomePartial("a folder lies in itself");
  if (isNew) unread_.push_back(watch);
  return watch;
}

int TreeWatch::addWatch(const FileDescriptor& folder) {
  // By descriptor, as a path may lead elsewhere by now.
  const int watch = events_.watch(fmt::format("/proc/self/fd/{}", folder.get()).c_str(), kKinds);
  if (watch >= 0) return watch;
  becomePartial(errno == ENOSPC ? "fs.inotify.max_user_watches is reached"
                                : "inotify_add_watch: " + platform::errnoText(errno));
  return WatchedFolders::kNone;
}

void TreeWatch::becomePartial(const std::string& reason) {
  partial_ = true;
  if (std::exchange(partialLogged_, true)) return;
  serviceLog().write(platform::LogLevel::error,
                     "changes by other programs may be announced late, up to %ld s: %{public}s "
                     "(%ld folders watched)",
                     std::chrono::ceil<std::chrono::seconds>(pace_.unwatched).count(), reason,
                     folders_.count());
}

}  // namespace kestrune::service
