// Who had contents fetched, of the latest items: what people ask who find their disk filling.
//
// It is memory alone, of kMost items, and begins empty with each host.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <utility>

#include "host/basics/NodeId.h"
#include "host/control/HostControl.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class FetchCauses {
 public:
  static constexpr std::size_t kMost = 1000;

  /// `item` is being fetched, of which nothing was here, because of `cause`.
  void note(InodeNumber item, DownloadCause cause) {
    platform::MutexLock lock(mutex_);
    const bool isNew = causes_.insert_or_assign(item, std::move(cause)).second;
    if (!isNew) return;
    order_.push_back(item);
    if (order_.size() <= kMost) return;
    causes_.erase(order_.front());
    order_.pop_front();
  }
  std::optional<DownloadCause> of(InodeNumber item) {
    platform::MutexLock lock(mutex_);
    const auto found = causes_.find(item);
    if (found == causes_.end()) return std::nullopt;
    return found->second;
  }

 private:
  platform::Mutex mutex_;
  std::map<InodeNumber, DownloadCause> causes_ GUARDED_BY(mutex_);
  /// The oldest first.
  std::deque<InodeNumber> order_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
