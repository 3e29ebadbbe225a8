// Tells the kernel through a FUSE session what it must forget.
//
// Threads: as KernelCache; the kernel is told on one thread of its own, which may wait there for a folder's lock. It waits
// only for requests that the host answers without it.
#pragma once

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

 private:
  void pass(const CacheUpdate& update);

  platform::Mutex mutex_;  // held while the session is used
  fuse_session* session_ GUARDED_BY(mutex_) = nullptr;
  platform::SerialQueue queue_{"kes-notify"};  // last: its thread ends before the rest goes
};

}  // namespace kestrune::host
