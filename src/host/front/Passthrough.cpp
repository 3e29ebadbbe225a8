#include "host/front/Passthrough.h"

#include <cassert>

namespace kestrune::host {

using platform::MutexLock;

void Passthrough::allow() {
  MutexLock lock(mutex_);
  allowed_ = true;
}

bool Passthrough::isOffered() const {
  MutexLock lock(mutex_);
  return allowed_;
}

bool Passthrough::inUse() const {
  MutexLock lock(mutex_);
  return allowed_ && succeeded_;
}

bool Passthrough::beginChange(NodeId id) {
  MutexLock lock(mutex_);
  Node& node = nodes_[id];
  if (node.byKernel > 0) {
    pause();
    return false;
  }
  ++node.throughRequests;
  ++node.changes;
  return true;
}

Passthrough::Ticket Passthrough::beginOpening(NodeId id) {
  MutexLock lock(mutex_);
  Node& node = nodes_[id];
  ++node.opening;
  return node.changes;
}

Passthrough::Opened Passthrough::endOpening(NodeId id, Ticket ticket, const LocalFilePtr& whole) {
  MutexLock lock(mutex_);
  const auto place = nodes_.find(id);
  assert(place != nodes_.end());
  Node& node = place->second;
  --node.opening;
  if (node.byKernel > 0) {
    if (!whole) {
      pause();
      return {Way::conflict};
    }
    ++node.byKernel;
    return {Way::kernel, node.backing};
  }
  const bool isFree = node.throughRequests == 0 && node.changes == ticket;
  if (isFree && whole && leaveToKernel(node, whole)) return {Way::kernel, node.backing};
  ++node.throughRequests;
  return {Way::requests};
}

void Passthrough::pause() { pausedUntil_ = now_() + kPauseAfterConflict; }

bool Passthrough::leaveToKernel(Node& node, const LocalFilePtr& whole) {
  if (!allowed_ || now_() < pausedUntil_) return false;
  const auto backing = files_.open(whole->descriptor());
  if (!backing) {
    allowed_ = false;
    return false;
  }
  succeeded_ = true;
  node.byKernel = 1;
  node.backing = *backing;
  return true;
}

void Passthrough::abandonOpening(NodeId id) {
  MutexLock lock(mutex_);
  const auto place = nodes_.find(id);
  assert(place != nodes_.end());
  --place->second.opening;
  dropIfUnused(place);
}

void Passthrough::end(NodeId id, Way way) {
  MutexLock lock(mutex_);
  const auto place = nodes_.find(id);
  assert(place != nodes_.end());
  Node& node = place->second;
  if (way == Way::requests) {
    --node.throughRequests;
  } else if (--node.byKernel == 0) {
    files_.close(node.backing);
  }
  dropIfUnused(place);
}

Passthrough::Standing Passthrough::standing() const {
  MutexLock lock(mutex_);
  return {allowed_, succeeded_};
}

void Passthrough::restore(Standing standing) {
  MutexLock lock(mutex_);
  allowed_ = standing.isOffered;
  succeeded_ = standing.isInUse;
}

std::int32_t Passthrough::backingOf(NodeId id) const {
  MutexLock lock(mutex_);
  const auto place = nodes_.find(id);
  return place == nodes_.end() || place->second.byKernel == 0 ? 0 : place->second.backing;
}

void Passthrough::restoreOpen(NodeId id, std::int32_t backing) {
  MutexLock lock(mutex_);
  Node& node = nodes_[id];
  if (backing == 0) {
    ++node.throughRequests;
  } else {
    ++node.byKernel;
    node.backing = backing;
  }
}

void Passthrough::dropIfUnused(Nodes::iterator place) {
  const Node& node = place->second;
  if (node.opening + node.throughRequests + node.byKernel == 0) nodes_.erase(place);
}

}  // namespace kestrune::host
