// Remembers in which folders the states of entries may have changed (here or not, kept, on its way, failed), and which conflict
// copies have come into being, for one who asks now and then. Costs nothing while nobody does.
//
// Threads: every operation may be called from any thread, also with locks of the host held: it only remembers, and wakes.
#pragma once

#include <atomic>
#include <functional>
#include <set>
#include <utility>

#include "host/basics/NodeId.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class StateWatch {
 public:
  /// As HostControl::watch.
  void watch(std::function<void()> wake) {
    platform::MutexLock lock(mutex_);
    wake_ = std::move(wake);
    changes_ = {};
    isWatched_ = wake_ != nullptr;
  }
  bool isWatched() const { return isWatched_; }

  struct Changes {
    /// Folders with changed entries.
    std::set<ItemId> folders;
    std::set<ItemId> conflicts;
  };
  void folderChanged(ItemId folder) {
    platform::MutexLock lock(mutex_);
    if (wake_ && changes_.folders.insert(folder).second) wake_();
  }
  void conflictArose(ItemId copy) {
    platform::MutexLock lock(mutex_);
    if (wake_ && changes_.conflicts.insert(copy).second) wake_();
  }
  /// Something that belongs to no folder changed.
  void somethingChanged() {
    platform::MutexLock lock(mutex_);
    if (wake_) wake_();
  }
  Changes take() {
    platform::MutexLock lock(mutex_);
    return std::exchange(changes_, {});
  }

 private:
  std::atomic<bool> isWatched_ = false;
  platform::Mutex mutex_;
  std::function<void()> wake_ GUARDED_BY(mutex_);
  Changes changes_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
