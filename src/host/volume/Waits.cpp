#include "host/volume/Waits.h"

namespace kestrune::host {

Waits::Wait& Waits::of(ItemId id, Clock at) {
  const auto [found, isNew] = waits_.try_emplace(id);
  Wait& wait = found->second;
  if (isNew) {
    wait.since_ = at;
    order_.emplace(std::pair(at, id), &wait);
  }
  return wait;
}

Waits::Wait* Waits::find(ItemId id) {
  const auto found = waits_.find(id);
  return found == waits_.end() ? nullptr : &found->second;
}

const Waits::Wait* Waits::find(ItemId id) const {
  const auto found = waits_.find(id);
  return found == waits_.end() ? nullptr : &found->second;
}

void Waits::renew(ItemId id, Clock at) {
  Wait& wait = waits_.at(id);
  order_.erase({wait.since_, id});
  wait.since_ = at;
  order_.emplace(std::pair(at, id), &wait);
}

std::map<ItemId, Waits::Wait>::iterator Waits::forget(std::map<ItemId, Wait>::iterator at) {
  order_.erase({at->second.since_, at->first});
  return waits_.erase(at);
}

void Waits::agree(const std::set<ItemId>& differing, Clock at) {
  // Both are in the order of the numbers.
  auto known = waits_.begin();
  for (const ItemId id : differing) {
    while (known != waits_.end() && known->first < id) known = forget(known);
    if (known != waits_.end() && known->first == id) {
      ++known;
    } else {
      of(id, at).notBefore = at;
    }
  }
  while (known != waits_.end()) known = forget(known);
}

std::vector<NodeId> Waits::byAge(Clock at) const {
  std::vector<NodeId> ready;
  std::vector<NodeId> others;
  for (const auto& [place, wait] : order_)
    (wait->notBefore <= at ? ready : others).push_back(place.second);
  ready.insert(ready.end(), others.begin(), others.end());
  return ready;
}

}  // namespace kestrune::host
