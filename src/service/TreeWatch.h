// Notices what other programs change in the tree, and announces it like the service's own changes.
//
// Every folder has a watch of the kernel's (inotify). They are added by a thread of its own, some at a time, from the root
// downwards; what changed before a folder had its watch is announced afterwards, at the latest when all have theirs. A folder
// is watched before it is read, so that nothing that comes into it is missed; one that moves within the tree keeps its
// watch, one that leaves the tree loses it. Symbolic links are not followed: folders are opened through Tree.
//
//       ┌──────────┐  all have their watch   ┌──────────┐
//   ───►│ walking  ├────────────────────────►│ watching │
//       └────▲─────┘                         └────┬─────┘
//            └────── events were lost ────────────┘
//
// Besides, in both states, the watch may be partial: the kernel allows no more watches (fs.inotify.max_user_watches) or
// descriptors, there are more folders than WatchPace allows, or the root is on a network file system, of which the kernel does
// not tell what other machines change. Then there is one log line, changes are announced every half minute whether there
// are any or not, and all of it is tried anew after an hour.
//
// Announced is what a listing shows: names that come and go, sizes, times. The service's own changes are seen here too; they
// are announced a second time, which those who listen take together. Not seen are writes to mapped memory before the
// file is closed, changes through a hard link outside of the tree, and what is mounted in the tree while the service runs.
//
// Threads: one of its own.
// Owns: that thread; the destructor ends and joins it.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "platform/files/FileEvents.h"
#include "service/Changes.h"
#include "service/FileDescriptor.h"
#include "service/Folders.h"
#include "service/Tree.h"
#include "service/WatchedFolders.h"

namespace kestrune::service {

struct WatchPace {
  /// What happens within this time is announced together.
  std::chrono::milliseconds together{10};
  /// A file that is written without being closed is announced as often as this, and so are the folders walked through.
  std::chrono::milliseconds growth{1000};
  /// How often changes are supposed while the watch is partial.
  std::chrono::milliseconds unwatched{30'000};
  /// When a partial watch is tried anew.
  std::chrono::milliseconds anew{3'600'000};
  /// At most so many folders are watched. Each takes about 130 bytes here and 1 KiB of the kernel's memory.
  std::size_t folders = 250'000;
};

class TreeWatch {
 public:
  /// `tree` and `changes` outlive this object. Throws NSPOSIXError where descriptors are short.
  TreeWatch(const Tree& tree, Changes& changes, WatchPace pace = {});
  ~TreeWatch();
  TreeWatch(const TreeWatch&) = delete;
  TreeWatch& operator=(const TreeWatch&) = delete;

 private:
  using Clock = std::chrono::steady_clock;
  using Event = platform::FileEvents::Event;

  void run();
  void beginWalk();
  void walkOn();
  /// When something is to be announced, if nothing else happens.
  std::optional<Clock::time_point> due() const;
  std::chrono::milliseconds untilNext() const;
  void takeEvents();
  void handle(const Event& event);
  void checkPlace(int watch);
  void forget(int watch);
  FileDescriptor open(int watch);
  bool readOn();
  int attach(int folder, int above, const std::string& name);
  int addWatch(const FileDescriptor& folder);
  void becomePartial(const std::string& reason);
  void announceWhatIsDue();

  const Tree& tree_;
  Changes& changes_;
  const WatchPace pace_;
  platform::FileEvents events_;

  /// All of these are the thread's.
  WatchedFolders folders_;
  /// Have their watch, and the folders in them are to be looked for. The first of them is being read.
  std::deque<int> unread_;
  std::optional<SubfolderReader> reader_;
  /// Were not found where they should be: they have moved, which the next events tell. They are read then.
  std::set<int> astray_;
  Clock::time_point walkBegan_;
  Clock::time_point announced_ = Clock::now();
  /// Something is to be announced now; within the pace of growth.
  bool soon_ = false;
  bool later_ = false;
  bool lost_ = false;
  bool partial_ = false;
  bool partialLogged_ = false;
  bool lostLogged_ = false;

  std::thread thread_;
};

}  // namespace kestrune::service
