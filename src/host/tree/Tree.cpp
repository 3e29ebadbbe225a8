#include "host/tree/Tree.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/out/ConflictName.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

namespace {

using Kind = CacheUpdate::Kind;

Place placeThere(const Item& item) { return {item.there->folder, item.there->name}; }

}  // namespace

bool TreeEffects::isEmpty() const {
  return cache.empty() && changed.empty() && forgotten.empty() && detached.empty() &&
         abandoned.empty() && dropped.empty() && rescued.empty() && adopted.empty() &&
         gone.empty() && movedFolders.empty() && doubtful.empty() && leftOut == 0;
}

Tree::Tree(Setting setting) : setting_(std::move(setting)) {
  root_ = &make(nextItem_++, true);
  root_->node = kRootNode;
  const FileTime now = FileTime::of(setting_.now());
  root_->setTimes({{}, now, now});
  ThereState there;
  there.identifier = setting_.rootIdentifier;
  setSideThere(*root_, there);
  byIdentifier_.insert(root_);
}

// ------------------------------------------------------------------------------------------- memory

TreeEffects Tree::takeEffects() { return std::exchange(effects_, {}); }

ItemRow Tree::row(const Item& item) const {
  ItemRow row;
  row.id = item.id;
  row.isFolder = item.isFolder;
  row.isLinked = item.isLinked();
  row.folder = item.folder != nullptr ? item.folder->id : kRootItem;
  row.name = item.name();
  row.isExecutable = item.isExecutable;
  row.staysHere = item.staysHere;
  row.sizeBytes = item.sizeBytes;
  const ItemTimes times = item.times();
  row.modified = times.modified;
  row.changed = times.changed;
  if (item.there) row.there = *item.there;
  if (item.awaited() != nullptr) row.awaited = *item.awaited();
  if (item.content() != nullptr) row.content = *item.content();
  if (item.part()) row.listing = item.part()->listing;
  // After a restart nobody knows any more what is to be told: a whole listing tells it.
  if (item.part() && !item.part()->untold.empty()) row.listing->anchor = std::nullopt;
  return row;
}

Item& Tree::make(ItemId id, bool isFolder) {
  auto made = std::make_unique<Item>(id, isFolder);
  return **items_.insert(std::move(made)).first;
}

void Tree::note(Item& item) {
  if (!isRestoring_) effects_.changed.insert(item.id);
  if (differs(item)) {
    differing_.insert(item.id);
  } else {
    differing_.erase(item.id);
  }
}

// REQUIRES: not linked, or nothing is in it.
void Tree::forget(Item& item) {
  assert(!item.part() || item.part()->children.empty());
  if (item.folder != nullptr) unlink(item, true);
  if (item.there) forgetThere(item);
  await(item, std::nullopt);
  detachVersion(item);
  releaseContent(item, false);
  differing_.erase(item.id);
  held_.erase(item.id);
  effects_.changed.erase(item.id);
  effects_.gone.erase(item.id);
  effects_.doubtful.erase(item.id);
  effects_.forgotten.insert(item.id);
  items_.erase(items_.find(item.id));
}

void Tree::forgetIfGone(Item& item) {
  if (!item.isLinked() && !item.there && !item.awaited() && !item.isUnderWay) forget(item);
}

// ------------------------------------------------------------------------------------------- asking

Item* Tree::find(ItemId id) {
  const auto found = items_.find(id);
  return found == items_.end() ? nullptr : found->get();
}

const Item* Tree::find(ItemId id) const {
  const auto found = items_.find(id);
  return found == items_.end() ? nullptr : found->get();
}

Item* Tree::child(const Item& folder, std::string_view name) const {
  const auto found = byName_.find(NameInFolder{&folder, name});
  return found == byName_.end() ? nullptr : *found;
}

Item* Tree::byIdentifier(const IdentifierView& identifier) const {
  const auto found = byIdentifier_.find(identifier);
  return found == byIdentifier_.end() ? nullptr : *found;
}

Item* Tree::byIdentifier(const platform::NSFileProviderItemIdentifier& identifier) const {
  return byIdentifier(IdentifierView{identifier, {}});
}

bool Tree::isSure(const Item& item) const {
  return item.there && byIdentifier(item.there->identifier) == &item;
}

bool Tree::isMoving(const Item& item) const {
  for (const Item* at = &item; at != nullptr && at->there && !at->isRoot();
       at = find(at->there->folder)) {
    if (at->isUnderWay || at->awaited()) return true;
  }
  return false;
}

Item* Tree::occupant(const Place& there) const {
  if (const Item* folder = find(there.folder); folder != nullptr && folder->isFolder) {
    Item* named = child(*folder, there.name);
    if (named != nullptr && named->there && named->isAtPlaceThere()) return named;
  }
  const auto found = astray_.lower_bound({there, 0});
  return found == astray_.end() || found->first != there ? nullptr
                                                         : items_.find(found->second)->get();
}

Item* Tree::claimant(const Place& there) const {
  if (Item* item = occupant(there)) return item;
  const auto found = awaited_.lower_bound({there, 0});
  return found == awaited_.end() || found->first != there ? nullptr
                                                          : items_.find(found->second)->get();
}

std::string Tree::path(const Item& item) const {
  std::string text;
  for (const Item* at = &item; !at->isRoot();) {
    const bool linked = at->folder != nullptr;
    text.insert(0, linked || !at->there ? at->name() : at->there->name).insert(0, "/");
    const Item* above = linked ? at->folder : at->there ? find(at->there->folder) : nullptr;
    if (above == nullptr) break;
    at = above;
  }
  return text.empty() ? "/" : text;
}

bool Tree::isWithin(const Item& item, const Item& folder) {
  for (const Item* at = &item; at != nullptr; at = at->folder) {
    if (at == &folder) return true;
  }
  return false;
}

void Tree::forEachChildThere(ItemId folder, const std::function<void(const Item&)>& visit) const {
  const Item* item = find(folder);
  if (item == nullptr || !item->isFolder) return;
  for (const Item* child : childrenThere(*item)) visit(*child);
}

void Tree::forEach(const std::function<void(Item&)>& visit) {
  for (const auto& item : items_) {
    if (!item->isRoot()) visit(*item);
  }
}

std::vector<Item*> Tree::childrenThere(const Item& folder) const {
  std::vector<Item*> children;
  for (Item* item : folder.part()->children) {
    if (item->there && item->isAtPlaceThere()) children.push_back(item);
  }
  for (auto at = astray_.lower_bound({{folder.id, ""}, 0});
       at != astray_.end() && at->first.folder == folder.id; ++at) {
    children.push_back(items_.find(at->second)->get());
  }
  return children;
}

// ------------------------------------------------------------------------------------------- links

void Tree::leavePlaceThere(const Item& item) {
  if (item.there) astray_.erase({placeThere(item), item.id});
}

void Tree::enterPlaceThere(const Item& item) {
  if (item.there && !item.isRoot() && !item.isAtPlaceThere())
    astray_.insert({placeThere(item), item.id});
}

void Tree::attach(Item& item, Item& folder, const std::string& name) {
  assert(item.folder == nullptr && child(folder, name) == nullptr);
  leavePlaceThere(item);
  item.there.setNameHere(name);
  item.folder = &folder;
  folder.part()->children.insert(item);
  byName_.insert(&item);
  if (isConflictName(name)) conflictCopies_.insert(item.id);
  enterPlaceThere(item);
  note(item);
}

void Tree::detach(Item& item) {
  leavePlaceThere(item);
  item.folder->part()->children.erase(item);
  byName_.erase(&item);
  conflictCopies_.erase(item.id);
  item.folder = nullptr;
  enterPlaceThere(item);
  note(item);
}

// Where what is there of it is kept; neither its place nor its identifier is looked up by others at this moment.
void Tree::setSideThere(Item& item, const ThereState& there) {
  setSideThere(item, there, item.name());
}

void Tree::setSideThere(Item& item, const ThereState& there, std::string_view nameHere) {
  const Item* folder = find(there.folder);
  FolderPart* part = folder != nullptr ? folder->part() : nullptr;
  IdentifierPrefixPtr none;
  item.there.set(nameHere, there, part != nullptr ? part->prefix : none);
}

void Tree::setThere(Item& item, const std::optional<ThereState>& there) {
  if (there && item.awaited() != nullptr && item.awaited()->folder == there->folder &&
      item.awaited()->name == there->name)
    await(item, std::nullopt);
  const bool wasSure = isSure(item);
  if (wasSure && there && *item.there == *there) {  // as most of what is listed again
    note(item);
    return;
  }
  if (wasSure) byIdentifier_.erase(&item);
  leavePlaceThere(item);
  if (!there || !there->isHeldDeletion) held_.erase(item.id);
  if (there) {
    setSideThere(item, *there);
    const Item* folder = find(there->folder);
    if (folder != nullptr && folder->isFolder && !folder->part()->listing.hasStaleIdentifiers) {
      const auto [other, isNew] = byIdentifier_.insert(&item);
      if (!isNew) {
        askAgain(*find((*other)->there->folder));  // it has another one now, or is this very item
        byIdentifier_.erase(other);
        byIdentifier_.insert(&item);
      }
    }
    enterPlaceThere(item);
  } else {
    item.there.reset();
    if (item.isFolder) static_cast<void>(endWaits(item, moment_, {}));
  }
  note(item);
}

// Its contents are here alone from now on: nothing of them can be fetched again, and their holes are zeros.
void Tree::forgetThere(Item& item) {
  setThere(item, std::nullopt);
  if (!item.content() || !item.content()->state.isWhole()) return;
  contentsAreChanged(*item.content());
  item.content()->base.clear();
}

// What is to come to `place` at the store is not known to be there yet; none: whether it came is known.
void Tree::await(Item& item, std::optional<Place> place) {
  if (item.awaited() != nullptr) awaited_.erase({*item.awaited(), item.id});
  item.setAwaited(std::move(place));
  if (item.awaited() != nullptr) awaited_.emplace(*item.awaited(), item.id);
  if (item.awaited() == nullptr && !item.isLinked() && !item.there) effects_.gone.insert(item.id);
  note(item);
}

// Only a whole listing can tell what is in the folder.
void Tree::askAgain(Item& folder) {
  folder.part()->listing.anchor = std::nullopt;
  effects_.doubtful.insert(folder.id);
  note(folder);
}

void Tree::link(Item& item, Item& folder, const std::string& name, bool tellKernel) {
  attach(item, folder, name);
  if (item.isFolder && !item.part()->children.empty()) effects_.movedFolders.insert(item.id);
  if (tellKernel && folder.node != 0) effects_.cache.push_back({Kind::entry, folder.node, name, 0});
  touch(folder, tellKernel);
}

void Tree::unlink(Item& item, bool tellKernel) {
  Item& folder = *item.folder;
  if (tellKernel && folder.node != 0)
    effects_.cache.push_back({Kind::deletion, folder.node, item.name(), item.node});
  detach(item);
  touch(folder, tellKernel);
}

// The modification time of a folder moves when a name in it comes, goes or stands for another item; the kernel tells by it
// that a listing that it put together meanwhile is an old one.
void Tree::touch(Item& folder, bool tellKernel) {
  const FileTime now = FileTime::of(setting_.now());
  FileTime later = folder.modified();
  if (++later.nanoseconds >= 1'000'000'000) later = {later.seconds + 1, 0};
  later = std::max(now, later);
  folder.setTimes({folder.times().accessed, later, later});
  effects_.changed.insert(folder.id);
  if (tellKernel && folder.node != 0) effects_.cache.push_back({Kind::listing, folder.node, {}, 0});
}

// ------------------------------------------------------------------------------------------- versions and contents

void Tree::detachVersion(Item& item) {
  if (item.node == 0 || item.isRoot()) return;
  const ItemTimes times = item.times();
  effects_.detached.push_back({item.node, item.id, item.object(), item.isExecutable, item.sizeBytes,
                               times.modified, times.changed});
  item.node = 0;
}

void Tree::succeed(Item& item) {
  if (item.folder != nullptr && item.folder->node != 0)
    effects_.cache.push_back({Kind::entry, item.folder->node, item.name(), 0});
  detachVersion(item);
}

void Tree::releaseContent(Item& item, bool rescue) {
  if (item.content() && item.content()->state.number != 0) {
    const ContentNumber number = item.content()->state.number;
    if (rescue && item.isWhole()) effects_.rescued.push_back({number, item.name()});
    if (item.object()) {
      effects_.abandoned.push_back(item.object());
    } else if (!rescue || !item.isWhole()) {
      effects_.dropped.push_back(number);
    }
  } else if (item.object()) {
    effects_.abandoned.push_back(item.object());
  }
  item.setObject(nullptr);
  item.setContent(nullptr);
}

void Tree::setContent(Item& item, const ContentState& state) {
  const bool isFirst = !item.content();
  const bool wasEdited = item.isEdited();
  if (isFirst) {
    item.setContent(std::make_unique<ContentRow>());
    item.content()->sentEdits = state.isEdited ? state.edits - 1 : state.edits;
  }
  ContentRow& row = *item.content();
  row.state = state;
  if (!wasEdited && item.isEdited() && item.there) {
    // What was not here before is of the version that its object was told, though the store's may be a newer one by now.
    const bool isTold = isFirst && !state.version.empty();
    row.base = isTold ? state.version : std::string(item.there->version.contentVersion);
  }
  item.sizeBytes = state.sizeBytes;
  note(item);
  if (isFirst && !item.there && item.isLinked()) takeOver(item);
}

void Tree::dropContent(Item& item) {
  item.setContent(nullptr);
  if (item.there) item.sizeBytes = item.there->sizeBytes;
  note(item);
}

// ------------------------------------------------------------------------------------------- changes made here

Item& Tree::create(Item& folder, const std::string& name, bool isFolder, bool isExecutable) {
  Item& item = make(nextItem_++, isFolder);
  item.isExecutable = isExecutable;
  const FileTime now = FileTime::of(setting_.now());
  item.setTimes({now, now, now});
  if (isFolder) item.part()->listing.isEnumerated = true;  // nobody else knows it yet
  link(item, folder, name, false);
  return item;
}

void Tree::changedHere(Item& item) { note(item); }

void Tree::setChanged(Item& item) {
  ItemTimes times = item.times();
  times.changed = FileTime::of(setting_.now());
  item.setTimes(times);
}

// Its contents were changed here, from a version that the store has no longer: whoever removes it knows nothing of the new one.
bool Tree::hasUnseen(const Item& item) {
  return item.there && !item.isUnderWay && item.isEdited() &&
         item.content()->base != item.there->version.contentVersion;
}

void Tree::remove(Item& item) {
  const bool isUnseen = hasUnseen(item);
  unlinkAndLeave(item);
  if (isUnseen) bringBack(leaveOwnThere(item));
  if (!item.there && !item.isUnderWay) effects_.gone.insert(item.id);
}

void Tree::unlinkAndLeave(Item& item) {
  unlink(item, false);
  item.staysHere = false;  // what is there of it goes
  setChanged(item);
  if (!item.there && !item.isUnderWay) effects_.gone.insert(item.id);
}

void Tree::move(Item& item, Item& folder, const std::string& name) {
  Item* replaced = child(folder, name);
  if (replaced == &item) replaced = nullptr;
  const bool isUnseen = replaced != nullptr && hasUnseen(*replaced);
  if (replaced != nullptr) unlinkAndLeave(*replaced);
  unlink(item, false);
  item.staysHere = false;  // the new name may be one that the extension takes
  setChanged(item);
  link(item, folder, name, false);
  takeOver(item);
  if (!isUnseen || !replaced->there) return;
  bringBack(leaveOwnThere(*replaced));
  effects_.gone.insert(replaced->id);
}

void Tree::exchange(Item& a, Item& b) {
  Item& folderA = *a.folder;
  Item& folderB = *b.folder;
  const std::string nameA = a.name();
  const std::string nameB = b.name();
  unlink(a, false);
  unlink(b, false);
  a.staysHere = false;
  b.staysHere = false;
  link(a, folderB, nameB, false);
  link(b, folderA, nameA, false);
}

std::string Tree::freeNameFor(const Item& folder, const std::string& name) const {
  return conflictName(name, setting_.machine, setting_.now(), [&](const std::string& tried) {
    return child(folder, tried) != nullptr || occupant({folder.id, tried}) != nullptr;
  });
}

// `name` where nobody has it.
std::string Tree::nameIn(const Item& folder, const std::string& name) const {
  return child(folder, name) == nullptr ? name : freeNameFor(folder, name);
}

// As OutgoingItem says, without making one: this is asked of every item of a listing.
bool Tree::differs(const Item& item) {
  if (item.staysHere || item.isRoot()) return false;
  if (!item.isLinked()) return item.there || item.awaited() != nullptr;
  return !item.there || item.isEdited() || !item.isAtPlaceThere();
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
