// What the store says of itself, brought into a tree in which other things may have changed meanwhile.
#include <algorithm>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/tree/Tree.h"

namespace kestrune::host {

namespace {

using Kind = CacheUpdate::Kind;

// How much may go at once without being asked: so many files with contents here, or a tenth of those below the folder.
constexpr std::size_t kMostAtOnce = 20;
constexpr std::size_t kShare = 10;

// Stores keep times in seconds or worse; a sending cannot have ended before the second in which it began.
constexpr std::chrono::seconds kTimeGrain{2};

bool isSince(platform::Date modified, platform::Date began) {
  return modified >= began - kTimeGrain;
}

std::size_t filesHere(const Item& folder) {
  std::size_t files = 0;
  std::vector<const Item*> pending = {&folder};
  while (!pending.empty()) {
    const Item& at = *pending.back();
    pending.pop_back();
    if (!at.isFolder) {
      files += at.content && at.content->state.present.byteCount() > 0 ? 1U : 0U;
      continue;
    }
    for (const auto& [id, child] : at.part->children) pending.push_back(child);
  }
  return files;
}

}  // namespace

// One answer of the store.
struct Tree::Batch {
  std::uint64_t asOf = 0;
  std::unordered_set<const Item*> matched;
  std::unordered_set<std::string_view> names;
  /// Those that it shows somewhere, whatever it says of the folders that they were in.
  std::unordered_set<const Item*> kept;
  /// Those that have left their old place here and have no new one yet.
  std::unordered_set<const Item*> leaving;
};

// What was sent after the store was asked, or is on its way, is newer than the answer.
bool Tree::isOld(const Item& item, const Batch& batch) const {
  return item.isUnderWay || item.sentAt > batch.asOf;
}

const char* Tree::whyNotShown(const Item& folder, const ItemRecord& record,
                              const Batch& batch) const {
  if (const char* reason = whyNotAFileName(record.name)) return reason;
  // A remote name with a slash in it can read as an item of some other folder.
  if (record.parentIdentifier && *record.parentIdentifier != folder.there->identifier)
    return "it says that it lies in another folder";
  if (batch.names.contains(record.name)) return "another item has its name";
  const Item* known = byIdentifier(record.identifier);
  if (known != nullptr && batch.matched.contains(known)) return "another item has its identifier";
  for (const Item* at = &folder; at != nullptr;
       at = at->there && !at->isRoot() ? find(at->there->folder) : nullptr) {
    if (at->there && at->there->identifier == record.identifier)
      return "its identifier is that of a folder that holds it";
  }
  return nullptr;
}

// The item that `record` speaks of: by its identifier, else the one that was last known in its place.
Item* Tree::match(Item& folder, const ItemRecord& record, const Batch& batch) const {
  Item* known = byIdentifier(record.identifier);
  if (known != nullptr && known->isFolder == record.isFolder) return known;
  Item* placed = occupant({folder.id, record.name});
  if (placed == nullptr || placed->isFolder != record.isFolder || batch.matched.contains(placed))
    return nullptr;
  return placed;
}

void Tree::applyListing(Item& folder, const std::vector<ItemRecord>& items,
                        std::optional<platform::NSFileProviderSyncAnchor> anchor,
                        std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  for (const Item* at = &folder; at != nullptr && !at->isRoot(); at = find(at->there->folder)) {
    if (!at->there || isOld(*at, batch)) {
      effects_.doubtful.insert(folder.id);
      return;
    }
  }
  FolderRow& listing = folder.part->listing;
  const bool byNames = listing.hasStaleIdentifiers;
  std::vector<const ItemRecord*> shown;
  std::vector<Item*> known;
  for (const ItemRecord& record : items) {
    if (const char* reason = whyNotShown(folder, record, batch)) {
      if (effects_.leftOut++ == 0)
        effects_.firstLeftOut = "'" + record.name.substr(0, kLongestNameBytes) + "': " + reason;
      continue;
    }
    batch.names.insert(record.name);
    Item* item = byNames ? nullptr : byIdentifier(record.identifier);
    if (item != nullptr && item->isFolder != record.isFolder) item = nullptr;
    if (item != nullptr) batch.matched.insert(item);
    shown.push_back(&record);
    known.push_back(item);
  }
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (known[i] != nullptr) continue;
    Item* placed = occupant({folder.id, shown[i]->name});
    if (placed == nullptr || placed->isFolder != shown[i]->isFolder ||
        batch.matched.contains(placed))
      continue;
    batch.matched.insert(placed);
    known[i] = placed;
  }
  std::vector<Item*> gone;
  for (Item* item : childrenThere(folder)) {
    if (!batch.matched.contains(item)) gone.push_back(item);
  }
  const bool isFirst = !listing.isEnumerated;
  const FileTime modified = folder.modified;
  listing.isEnumerated = true;
  listing.hasStaleIdentifiers = false;
  listing.anchor = std::move(anchor);
  note(folder);
  batch.kept = batch.matched;
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (known[i] != nullptr) leaveOldPlace(*known[i], folder, *shown[i], batch);
  }
  holdOrBelieve(folder, gone, batch);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    if (known[i] != nullptr) {
      applyToKnown(*known[i], folder, *shown[i], batch);
    } else {
      applyRecord(folder, *shown[i], batch);
    }
  }
  returnLeft(batch);
  // Of a folder that is listed for the first time nobody has been told anything, and nothing came or went.
  if (!isFirst) return;
  folder.modified = modified;
  folder.changed = modified;
  std::erase_if(effects_.cache, [&](const CacheUpdate& update) {
    return folder.node != 0 && update.node == folder.node && update.kind != Kind::attributes;
  });
}

// What has moved leaves its old place before anything comes to a new one, so that names which were swapped are free, and no
// folder that is gone seems to hold anything.
void Tree::leaveOldPlace(Item& item, const Item& folder, const ItemRecord& record, Batch& batch) {
  if (isOld(item, batch) || item.folder == nullptr || !item.there) return;
  const bool hasMoved = item.there->folder != folder.id || item.there->name != record.name;
  const bool isHere = item.folder->id == item.there->folder && item.name == item.there->name;
  if (!hasMoved || !isHere || isWithin(folder, item)) return;
  unlink(item, true);
  batch.leaving.insert(&item);
}

void Tree::applyChanges(Item& folder, const std::vector<ReportedChange>& changes,
                        platform::NSFileProviderSyncAnchor anchor, std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  if (isOld(folder, batch) || !folder.there) {
    effects_.doubtful.insert(folder.id);
    return;
  }
  for (const ReportedChange& change : changes) {
    if (change.kind != ReportedChange::Kind::update) continue;
    Item* item = byIdentifier(change.item.identifier);
    if (item == nullptr || item->isFolder != change.item.isFolder) continue;
    batch.kept.insert(item);
    if (whyNotShown(folder, change.item, batch) == nullptr)
      leaveOldPlace(*item, folder, change.item, batch);
  }
  std::vector<Item*> gone;
  for (const ReportedChange& change : changes) {
    if (change.kind == ReportedChange::Kind::update) continue;
    Item* item = byIdentifier(change.item.identifier);
    // An item that moved elsewhere is reported as deleted by the folder that it left.
    if (item == nullptr || !item->there || item->there->folder != folder.id) continue;
    if (!batch.kept.contains(item)) gone.push_back(item);
  }
  folder.part->listing.anchor = std::move(anchor);
  note(folder);
  holdOrBelieve(folder, gone, batch);
  for (const ReportedChange& change : changes) {
    if (change.kind != ReportedChange::Kind::update) continue;
    if (const char* reason = whyNotShown(folder, change.item, batch)) {
      if (effects_.leftOut++ == 0)
        effects_.firstLeftOut =
            "'" + change.item.name.substr(0, kLongestNameBytes) + "': " + reason;
      continue;
    }
    applyRecord(folder, change.item, batch);
  }
  returnLeft(batch);
}

// An item that left its place and could not be shown in its new one is not removed: nobody here wanted that.
void Tree::returnLeft(Batch& batch) {
  for (const Item* left : batch.leaving) {
    Item* item = find(left->id);
    if (item == nullptr || item->folder != nullptr || !item->there) continue;
    bringBack(*item);
  }
}

void Tree::applyItem(Item& item, const std::optional<ItemRecord>& record, std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  if (!item.there || item.sentAt > asOf) return;
  if (!record) {
    goneThere(item, batch);
    return;
  }
  if (record->isFolder != item.isFolder) return;
  applyContents(item, *record);
}

// REQUIRES: the record can be shown.
void Tree::applyRecord(Item& folder, const ItemRecord& record, Batch& batch) {
  Item* known = match(folder, record, batch);
  if (known != nullptr) {
    batch.matched.insert(known);
    applyToKnown(*known, folder, record, batch);
    return;
  }
  Item* placed = occupant({folder.id, record.name});
  if (placed != nullptr) {  // of the other kind
    if (isOld(*placed, batch)) {
      effects_.doubtful.insert(folder.id);
      return;
    }
    believeGone(*placed, false, batch.kept);
  }
  if (!makeRoom(folder, record.name, record, batch)) return;
  if (!folder.isLinked()) bringBack(folder);  // removed here, while somebody put something into it
  Item& item = make(nextItem_++, record.isFolder);
  batch.matched.insert(&item);
  item.sizeBytes = record.sizeBytes;
  item.modified = FileTime::of(record.modified);
  item.changed = item.modified;
  item.accessed = item.modified;
  if (folder.isLinked()) link(item, folder, record.name, true);
  setThere(item, thereStateOf(record, folder.id));
}

// What has the name here must have another one, unless it is the very item. False: `record` says nothing new.
bool Tree::makeRoom(Item& folder, const std::string& name, const ItemRecord& record, Batch& batch) {
  Item* named = child(folder, name);
  if (named == nullptr) return true;
  if (isOld(*named, batch)) {
    effects_.doubtful.insert(folder.id);
    return false;
  }
  if (!named->there && named->isFolder && record.isFolder) {
    // Made on both sides: one folder, of which only this side's part is known.
    setThere(*named, thereStateOf(record, folder.id));
    named->part->listing.hasStaleIdentifiers = true;
    effects_.doubtful.insert(named->id);
    return false;
  }
  if (!named->there && !named->isFolder && !record.isFolder && adopts(*named, record)) {
    // Sent from here, though the answer was lost.
    setThere(*named, thereStateOf(record, folder.id));
    applyContents(*named, record);
    return false;
  }
  const std::string other = freeNameFor(folder, name);
  unlink(*named, true);
  link(*named, folder, other, true);
  return true;
}

void Tree::applyToKnown(Item& item, Item& folder, const ItemRecord& record, Batch& batch) {
  if (isOld(item, batch)) {
    effects_.doubtful.insert(folder.id);
    return;
  }
  ThereState there = *item.there;
  const bool isSamePlace = there.folder == folder.id && there.name == record.name;
  const bool isLeaving = batch.leaving.erase(&item) > 0;
  const bool wasHere =
      item.folder != nullptr && item.folder->id == there.folder && item.name == there.name;
  there.identifier = record.identifier;
  there.folder = folder.id;
  there.name = record.name;
  there.isHeldDeletion = false;
  // Moved by others: here too, unless it was moved here as well, or is removed.
  if (isLeaving && !folder.isLinked())
    bringBack(folder);  // removed here, while others put it there
  const bool follows = !isSamePlace && (wasHere || isLeaving) && folder.isLinked() &&
                       !(item.isFolder && isWithin(folder, item));
  if (follows) {
    if (item.folder != nullptr) unlink(item, true);
    setThere(item, std::move(there));
    if (makeRoom(folder, record.name, record, batch))
      link(item, folder, record.name, true);
    else
      link(item, folder, freeNameFor(folder, record.name), true);
  } else {
    setThere(item, std::move(there));
  }
  applyContents(item, record);
}

// Whether `record` is what was last sent from here.
bool Tree::adopts(const Item& item, const ItemRecord& record) const {
  if (item.there && item.there->isProvisional)
    return record.sizeBytes == item.there->sizeBytes &&
           isSince(record.modified, item.there->modified);
  if (!item.content || item.content->sendingSince == 0) return false;
  const platform::Date began{std::chrono::seconds(item.content->sendingSince)};
  return record.sizeBytes == item.content->sendingBytes && isSince(record.modified, began);
}

// REQUIRES: there is set.
void Tree::applyContents(Item& item, const ItemRecord& record) {
  ThereState& there = *item.there;
  const ThereState said = thereStateOf(record, there.folder);
  const bool isSame = said.version.contentVersion == there.version.contentVersion;
  there.version.metadataVersion = said.version.metadataVersion;
  if (item.isFolder) {
    there.version = said.version;
    there.modified = said.modified;
    note(item);
    return;
  }
  const bool adopted = adopts(item, record);
  if (adopted && item.content) {
    ContentRow& row = *item.content;
    if (row.sendingSince != 0) row.sentEdits = row.sendingEdits;
    row.sendingSince = 0;
    row.base = said.version.contentVersion;
    if (item.object) {
      effects_.adopted.push_back({item.object, row.sentEdits, said.version.contentVersion});
    } else {
      row.state.version = said.version.contentVersion;
      row.state.isEdited = row.state.edits != row.sentEdits;
      if (!row.state.isEdited) row.state.fetchableBytes = row.state.sizeBytes;
    }
  }
  there.version = said.version;
  there.sizeBytes = said.sizeBytes;
  there.modified = said.modified;
  there.isProvisional = false;
  there.isHeldDeletion = false;
  held_.erase(item.id);
  note(item);
  if (isSame || adopted) {
    if (!item.content && item.sizeBytes != said.sizeBytes) item.sizeBytes = said.sizeBytes;
    return;
  }
  // Changed by others. What was changed here as well is settled when it is to be sent.
  if (item.isEdited()) return;
  if (!item.isLinked()) {
    bringBack(item);  // a removal loses against newer contents
  }
  if (item.node != 0 && (item.content || item.object)) succeed(item);
  releaseContent(item, false);
  item.sizeBytes = said.sizeBytes;
  item.modified = FileTime::of(said.modified);
  item.changed = item.modified;
  if (item.node != 0) effects_.cache.push_back({Kind::attributes, item.node, {}, 0});
}

// ------------------------------------------------------------------------------------------- what is gone there

void Tree::goneThere(Item& item, Batch& batch) {
  if (isOld(item, batch)) {
    effects_.doubtful.insert(item.there->folder);
    return;
  }
  believeGone(item, false, batch.kept);
}

void Tree::believeGone(Item& item, bool rescue, const Kept& kept) {
  if (item.isFolder) {
    for (Item* child : childrenThere(item)) {
      if (!kept.contains(child)) believeGone(*child, rescue, kept);
    }
  }
  const bool isMovedHere = item.folder != nullptr &&
                           (item.folder->id != item.there->folder || item.name != item.there->name);
  forgetThere(item);
  if (item.folder == nullptr) {
    effects_.gone.insert(item.id);
    return;
  }
  // A deletion loses against what was changed here: it will be made again.
  const bool survives = item.isFolder ? !item.part->children.empty()
                                      : item.isEdited() || (isMovedHere && item.isWhole());
  if (survives) {
    if (item.content) item.content->base.clear();
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
  for (const Item* item : gone) files += item->folder != nullptr ? filesHere(*item) : 0;
  const bool isMuch = files > kMostAtOnce && files > filesHere(folder) / kShare;
  for (Item* item : gone) {
    if (isMuch && item->folder != nullptr && !isOld(*item, batch)) {
      item->there->isHeldDeletion = true;
      held_.insert(item->id);
      note(*item);
    } else {
      goneThere(*item, batch);
    }
  }
}

std::vector<ItemId> Tree::heldDeletions() const { return {held_.begin(), held_.end()}; }

void Tree::settleHeldDeletions(bool believe) {
  for (const ItemId id : std::exchange(held_, {})) {
    Item* item = find(id);
    if (item == nullptr || !item->there || !item->there->isHeldDeletion) continue;
    item->there->isHeldDeletion = false;
    if (believe) {
      believeGone(*item, true, {});
      continue;
    }
    std::vector<Item*> pending = {item};
    while (!pending.empty()) {
      Item& at = *pending.back();
      pending.pop_back();
      if (at.isFolder) {
        for (Item* child : childrenThere(at)) pending.push_back(child);
        forgetThere(at);
      } else if (at.isWhole()) {
        forgetThere(at);
      } else {
        believeGone(at, false, {});  // what was never here cannot be sent
      }
    }
  }
}

void Tree::setPolicy(Item& item, platform::NSFileProviderContentPolicy policy) {
  if (!item.there || item.there->policy == policy) return;
  item.there->policy = policy;
  note(item);
}

}  // namespace kestrune::host
