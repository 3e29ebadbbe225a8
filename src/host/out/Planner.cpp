#include "host/out/Planner.h"

#include <algorithm>
#include <utility>

namespace kestrune::host {

namespace {

using Kind = Change::Kind;

bool hasTarget(const Change& change) {
  return change.kind == Kind::create || change.kind == Kind::move || change.kind == Kind::moveAside;
}

class Planning {
 public:
  Planning(const OutgoingView& items, std::span<const NodeId> differing,
           std::span<const Change> underWay, const MayBegin& mayBegin)
      : items_(items),
        differing_(differing),
        mayBegin_(mayBegin),
        together_(underWay.begin(), underWay.end()) {}

  std::vector<Change> ready(std::size_t limit) {
    const std::size_t before = together_.size();
    for (const NodeId id : differing_) {
      if (together_.size() >= limit) break;
      const OutgoingItem* item = items_.find(id);
      if (item != nullptr && mayBegin(*item)) offer(*item);
    }
    if (together_.empty() && limit > 0) breakCircle();
    return {together_.begin() + static_cast<std::ptrdiff_t>(before), together_.end()};
  }

 private:
  bool mayBegin(const OutgoingItem& item) const { return !mayBegin_ || mayBegin_(item); }

  /// Adds what is next for `item`, if it may begin.
  void offer(const OutgoingItem& item) {
    if (item.isToBeRemoved()) {
      const bool mayGo = !item.isFolder || !isWaitedFor(item.id);
      if (mayGo && !isRemovedWithItsFolder(item)) add({Kind::remove, item.id, {}});
    } else if (item.isToBeCreated()) {
      if (mayGoTo(item, item.here)) add({Kind::create, item.id, item.here});
    } else if (item.isToBeMoved() && mayGoTo(item, item.here)) {
      add({Kind::move, item.id, item.here});
    } else if (item.isToBeSent()) {
      add({Kind::send, item.id, {}});
    }
  }

  void add(const Change& change) {
    const bool fits = std::all_of(together_.begin(), together_.end(),
                                  [&](const Change& other) { return goTogether(change, other); });
    if (fits) together_.push_back(change);
  }

  /// Null for the root and for what is not there.
  const Place* placeThere(NodeId id) const {
    const OutgoingItem* item = items_.find(id);
    return item != nullptr ? item->placeThere() : nullptr;
  }

  bool isThere(NodeId folder) const {
    if (folder == kRootNode) return true;
    const OutgoingItem* item = items_.find(folder);
    return item != nullptr && item->isLinked && item->there;
  }

  /// Whether `ancestor` is `folder`, or above it there.
  bool isAbove(NodeId ancestor, NodeId folder) const {
    while (folder != kRootNode) {
      if (folder == ancestor) return true;
      const Place* place = placeThere(folder);
      if (place == nullptr) return false;
      folder = place->folder;
    }
    return ancestor == kRootNode;
  }

  bool mayGoTo(const OutgoingItem& item, const Place& place) const {
    if (!isThere(place.folder) || isAbove(item.id, place.folder)) return false;
    const OutgoingItem* occupant = items_.occupant(place);
    return occupant == nullptr || occupant->id == item.id;
  }

  /// A folder that goes takes along what is in it: not what is to stay. All that differs has to be looked at for that, so only where a
  /// folder is to go.
  void findFoldersThatAreLeft() {
    if (std::exchange(leftAreFound_, true)) return;
    for (const NodeId id : differing_) {
      const OutgoingItem* item = items_.find(id);
      if (item == nullptr || !item->isToBeMoved()) continue;
      for (const Place* place = item->placeThere(); place != nullptr;
           place = placeThere(place->folder)) {
        waitedFor_.push_back(place->folder);
      }
    }
    std::sort(waitedFor_.begin(), waitedFor_.end());
  }

  bool isWaitedFor(NodeId folder) {
    findFoldersThatAreLeft();
    return std::binary_search(waitedFor_.begin(), waitedFor_.end(), folder);
  }

  bool isRemovedWithItsFolder(const OutgoingItem& item) {
    const Place* place = item.placeThere();
    const OutgoingItem* folder = place != nullptr ? items_.find(place->folder) : nullptr;
    return folder != nullptr && folder->isToBeRemoved() && !isWaitedFor(folder->id);
  }

  /// The folders there that `change` goes through: above where its item is, and above where it goes.
  bool goesThrough(const Change& change, NodeId folder) const {
    const Place* place = placeThere(change.id);
    if (place != nullptr && isAbove(folder, place->folder)) return true;
    return hasTarget(change) && isAbove(folder, change.to.folder);
  }

  /// Whether everything below the change's item has another place, or none, afterwards.
  bool takesItsTreeAlong(const Change& change) const {
    const OutgoingItem* item = items_.find(change.id);
    const bool moves = change.kind != Kind::create && change.kind != Kind::send;
    return moves && item != nullptr && item->isFolder;
  }

  bool goTogether(const Change& a, const Change& b) const {
    if (a.id == b.id) return false;
    if (takesItsTreeAlong(a) && goesThrough(b, a.id)) return false;
    if (takesItsTreeAlong(b) && goesThrough(a, b.id)) return false;
    return !(hasTarget(a) && hasTarget(b) && a.to == b.to);
  }

  /// Nothing can begin and nothing is under way: whatever waits, waits for a name, or for something that
  /// does. The first that is in the way is moved aside.
  void breakCircle() {
    for (const NodeId id : differing_) {
      const OutgoingItem* item = items_.find(id);
      if (item == nullptr || !(item->isToBeCreated() || item->isToBeMoved())) continue;
      if (!mayBegin(*item)) continue;
      if (!isThere(item->here.folder) || isAbove(item->id, item->here.folder)) continue;
      const OutgoingItem* occupant = items_.occupant(item->here);
      if (occupant == nullptr || occupant->id == item->id || !mayBegin(*occupant)) continue;
      Place aside{item->here.folder, asideName(occupant->id)};
      while (items_.occupant(aside) != nullptr) aside.name += '-';  // somebody wants that name too
      together_.push_back({Kind::moveAside, occupant->id, aside});
      return;
    }
  }

  const OutgoingView& items_;
  const std::span<const NodeId> differing_;
  const MayBegin& mayBegin_;
  bool leftAreFound_ = false;
  std::vector<NodeId> waitedFor_;  // in order
  std::vector<Change> together_;   // under way, then ready
};

}  // namespace

std::vector<Change> readyChanges(const OutgoingView& items, std::span<const NodeId> differing,
                                 std::span<const Change> underWay, std::size_t limit,
                                 const MayBegin& mayBegin) {
  return Planning(items, differing, underWay, mayBegin).ready(limit);
}

std::string asideName(NodeId id) { return ".kestrune-moving-" + std::to_string(id); }

}  // namespace kestrune::host
