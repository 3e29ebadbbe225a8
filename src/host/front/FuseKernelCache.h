// Tells the kernel through a FUSE session what it must forget.
//
// Threads: as KernelCache; the kernel is told on one thread of its own, which may wait there for a folder's lock. It waits
// only for requests that the host answers without it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "host/basics/KernelCache.h"
#include "platform/tasks/Queue.h"
#include "platform/values/Mutex.h"

struct fuse_session;

namespace kestrune::host {

class FuseKernelCache final : public KernelCache {
 public:
  /// Until `attach` there is no kernel that could remember anything.
  void attach(fuse_session* session);
  /// When it returns, the session is not used any more. REQUIRES: requests are still being answered.
  void detach();

  void tell(std::vector<CacheUpdate> updates, std::function<void()> then) override;

  /// The kernel is told nothing before `goOn`: what comes waits. False if it was still being told something after `patience`; as
  /// it is then not known to end soon. REQUIRES: requests are still being answered.
  bool hold(std::chrono::milliseconds patience);
  /// What waits now. REQUIRES: held.
  std::vector<CacheUpdate> untold() const;
  void goOn();

 private:
  /// One thing to be told, one to be done then, or both.
  struct Step {
    std::optional<CacheUpdate> update;
    std::function<void()> then;
  };
  void work();
  void pass(const CacheUpdate& update);

  platform::Mutex mutex_;  // held while the session is used
  fuse_session* session_ GUARDED_BY(mutex_) = nullptr;

  mutable platform::Mutex waitingMutex_;  // for moments only
  std::condition_variable idle_;
  std::deque<Step> waiting_ GUARDED_BY(waitingMutex_);
  bool isHeld_ GUARDED_BY(waitingMutex_) = false;
  bool isTelling_ GUARDED_BY(waitingMutex_) = false;

  platform::SerialQueue queue_{"kes-notify"};  // last: its thread ends before the rest goes
};

}  // namespace kestrune::host
