// What the store says is gone: believed, or held where it is much.
#include <algorithm>
#include <limits>
#include <utility>

#include "host/tree/TreeBatch.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

namespace {

// So many files with contents here may go at once without being asked, or a tenth of those below the folder.
constexpr std::size_t kMostAtOnce = 20;
constexpr std::size_t kShare = 10;

// Sent from here, not seen at the store since, and whole: that it is not shown may mean that it never stayed there.
bool isUnseen(const Item& item) {
  return !item.isFolder && item.folder != nullptr && item.there->isProvisional && item.isWhole();
}

std::size_t filesHere(const Item& folder) {
  std::size_t files = 0;
  std::vector<const Item*> pending = {&folder};
  while (!pending.empty()) {
    const Item& at = *pending.back();
    pending.pop_back();
    if (!at.isFolder) {
      files += at.content() && at.content()->state.present.byteCount() > 0 ? 1U : 0U;
      continue;
    }
    for (const Item* child : at.part()->children) pending.push_back(child);
  }
  return files;
}

}  // namespace

// What was sent after the store was asked, or is on its way, is newer than the answer.
bool Tree::isChangedSince(const Item& item, const Batch& batch) const {
  return item.isUnderWay || item.sentAt() > batch.asOf;
}

// So is what the store told of the item's place when it was asked later.
bool Tree::isOld(const Item& item, const Batch& batch) const {
  return isChangedSince(item, batch) || item.placedAt > batch.asOf;
}

// Whether a place in the folder `place` is in `folder` at the store, at any depth.
bool Tree::isThereWithin(ItemId place, const Item& folder) const {
  while (place != folder.id) {
    const Item* at = find(place);
    if (at == nullptr || !at->there || at->isRoot()) return false;
    place = at->there->folder;
  }
  return true;
}

// The same of anything in it, on its way into it, or out of it.
bool Tree::holdsOld(const Item& item, const Batch& batch) const {
  return holdsOld(item, item, batch);
}

bool Tree::holdsOld(const Item& item, const Item& top, const Batch& batch) const {
  if (isOld(item, batch)) return true;
  if (item.awaited() && !isThereWithin(item.awaited()->folder, top)) return true;
  if (!item.isFolder) return false;
  for (auto at = awaited_.lower_bound({{item.id, ""}, 0});
       at != awaited_.end() && at->first.folder == item.id; ++at) {
    if (isChangedSince(*find(at->second), batch)) return true;
  }
  const std::vector<Item*> children = childrenThere(item);
  return std::any_of(children.begin(), children.end(),
                     [&](const Item* child) { return holdsOld(*child, top, batch); });
}

// What was awaited in the folder and not seen when it was asked after that change had ended has not come. False: of some
// that was asked too early.
bool Tree::endWaits(const Item& folder, std::uint64_t asOf, const Kept& seen) {
  std::vector<Item*> ended;
  bool isAll = true;
  for (auto at = awaited_.lower_bound({{folder.id, ""}, 0});
       at != awaited_.end() && at->first.folder == folder.id; ++at) {
    Item* item = items_.find(at->second)->get();
    if (item->isUnderWay || seen.contains(item)) continue;
    if (item->sentAt() <= asOf) {
      ended.push_back(item);
    } else {
      isAll = false;
    }
  }
  for (Item* item : ended) await(*item, std::nullopt);
  return isAll;
}

// When something left the folder between two pages of the listing, what came after it may be on neither of them.
bool Tree::mayHavePassedOver(const Item& folder, const std::vector<Item*>& before,
                             const Batch& batch) {
  return folder.part()->leftAt > batch.asOf ||
         std::any_of(before.begin(), before.end(), [](const Item* child) {
           return child->isUnderWay && !child->isAtPlaceThere();
         });
}

// False: it can not be believed yet.
bool Tree::goneThere(Item& item, Batch& batch) {
  if (holdsOld(item, batch)) {
    doubt(*find(item.there->folder), batch);
    return false;
  }
  left(item.there->folder, batch.asOf);
  believeGone(item, false, batch.kept);
  return true;
}

void Tree::believeGone(Item& item, bool rescue, const Kept& kept) {
  if (item.isFolder) {
    for (Item* child : childrenThere(item)) {
      if (!kept.contains(child)) believeGone(*child, rescue, kept);
    }
  }
  const bool isMovedHere = item.folder != nullptr && !item.isAtPlaceThere();
  const bool isToBeSeen = isUnseen(item);
  const bool isChanged = item.isEdited();
  forgetThere(item);
  if (item.folder == nullptr) {
    effects_.gone.insert(item.id);
    return;
  }
  // A deletion loses against what was changed here, or sent and not seen since: it will be made again.
  const bool survives = item.isFolder ? !item.part()->children.empty()
                                      : isChanged || isToBeSeen || (isMovedHere && item.isWhole());
  if (survives) {
    if (isToBeSeen && item.timesLost < std::numeric_limits<std::uint8_t>::max()) ++item.timesLost;
    if (item.content()) item.content()->base.clear();
    if (item.part())
      item.part()->listing = {.isEnumerated = true};  // nobody else knows it any more
    note(item);
    return;
  }
  unlink(item, true);
  detachVersion(item);
  releaseContent(item, rescue);
  forget(item);
}

// A change that would take away much of what is here is not believed at once.
void Tree::holdOrBelieve(Item& folder, const std::vector<Item*>& gone, Batch& batch) {
  std::size_t files = 0;
  for (const Item* item : gone)
    files += item->folder != nullptr && !isUnseen(*item) ? filesHere(*item) : 0;
  const bool isMuch = files > kMostAtOnce && files > filesHere(folder) / kShare;
  for (Item* item : gone) {
    const bool isHeld = item->there->isHeldDeletion;
    const bool mayBeHeld = item->folder != nullptr && !isUnseen(*item);
    if ((isMuch || isHeld) && mayBeHeld && !holdsOld(*item, batch)) {
      ThereState there = *item->there;
      there.isHeldDeletion = true;
      setSideThere(*item, there);
      held_.insert(item->id);
      note(*item);
    } else {
      goneThere(*item, batch);
    }
  }
}

std::vector<ItemId> Tree::heldDeletions() const { return {held_.begin(), held_.end()}; }

void Tree::settleHeldDeletions(bool believe) {
  Batch now;
  now.asOf = std::numeric_limits<std::uint64_t>::max();
  for (const ItemId id : heldDeletions()) {
    Item* item = find(id);
    if (item == nullptr || !item->there || holdsOld(*item, now)) continue;
    if (believe) {
      believeGone(*item, true, {});
    } else {
      sendAgain(*item);
    }
  }
}

// What it is here is to be made at the store anew.
void Tree::sendAgain(Item& item) {
  if (item.isFolder) {
    for (Item* child : childrenThere(item)) sendAgain(*child);
    item.part()->listing = {.isEnumerated = true};
  } else if (item.isLinked() && !item.isWhole()) {
    believeGone(item, false, {});  // what was never here cannot be sent
    return;
  }
  forgetThere(item);
  if (!item.isLinked()) effects_.gone.insert(item.id);
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
