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
  queue_.async([this, updates = std::move(updates), then = std::move(then)] {
    for (const CacheUpdate& update : updates) pass(update);
    if (then) then();
  });
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
