#include "host/front/FuseKernelCache.h"

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>

#include <utility>

namespace kestrune::host {

using platform::MutexLock;

void FuseKernelCache::attach(fuse_session* session) {
  MutexLock lock(mutex_);
  session_ = session;
}

void FuseKernelCache::detach() {
  MutexLock lock(mutex_);
  session_ = nullptr;
}

void FuseKernelCache::tell(std::vector<CacheUpdate> updates, std::function<void()> then) {
  {
    MutexLock lock(waitingMutex_);
    for (CacheUpdate& update : updates) waiting_.push_back({std::move(update), nullptr});
    if (then) waiting_.push_back({std::nullopt, std::move(then)});
  }
  queue_.async([this] { work(); });
}

void FuseKernelCache::work() {
  for (;;) {
    Step step;
    {
      MutexLock lock(waitingMutex_);
      if (isHeld_ || waiting_.empty()) return;
      step = std::move(waiting_.front());
      waiting_.pop_front();
      isTelling_ = true;
    }
    if (step.update) pass(*step.update);
    if (step.then) step.then();
    MutexLock lock(waitingMutex_);
    isTelling_ = false;
    idle_.notify_all();
  }
}

bool FuseKernelCache::hold(std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  MutexLock lock(waitingMutex_);
  isHeld_ = true;
  while (isTelling_) {
    if (!lock.waitUntil(idle_, deadline) && isTelling_) return false;
  }
  return true;
}

std::vector<CacheUpdate> FuseKernelCache::untold() const {
  std::vector<CacheUpdate> updates;
  MutexLock lock(waitingMutex_);
  for (const Step& step : waiting_) {
    if (step.update) updates.push_back(*step.update);
  }
  return updates;
}

void FuseKernelCache::goOn() {
  {
    MutexLock lock(waitingMutex_);
    isHeld_ = false;
  }
  queue_.async([this] { work(); });
}

void FuseKernelCache::pass(const CacheUpdate& update) {
  MutexLock lock(mutex_);
  if (session_ == nullptr) return;
  const std::string& name = update.name;
  switch (update.kind) {
    case CacheUpdate::Kind::entry:
      fuse_lowlevel_notify_inval_entry(session_, update.node, name.c_str(), name.size());
      return;
    case CacheUpdate::Kind::deletion:
      // Refused for a folder of which the kernel still knows entries; then the name alone is forgotten.
      if (fuse_lowlevel_notify_delete(session_, update.node, update.child, name.c_str(),
                                      name.size()) != 0) {
        fuse_lowlevel_notify_inval_entry(session_, update.node, name.c_str(), name.size());
      }
      return;
    case CacheUpdate::Kind::attributes:
      // A negative offset: the attributes alone, never the pages, for which a reader may be waiting.
      fuse_lowlevel_notify_inval_inode(session_, update.node, -1, 0);
      return;
    case CacheUpdate::Kind::listing:
      fuse_lowlevel_notify_inval_inode(session_, update.node, 0, 0);
      return;
  }
}

}  // namespace kestrune::host
