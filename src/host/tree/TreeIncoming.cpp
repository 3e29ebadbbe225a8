// What the store says of itself, brought into a tree in which other things may have changed meanwhile.
#include <algorithm>
#include <chrono>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/tree/TreeBatch.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

namespace {

using Kind = CacheUpdate::Kind;

// Stores keep times in seconds or worse; a sending cannot have ended before the second in which it began.
constexpr std::chrono::seconds kTimeGrain{2};

bool isSince(platform::Date modified, platform::Date began) {
  return modified >= began - kTimeGrain;
}

// The last report of each item, in the order of the reports.
std::vector<const ReportedChange*> lastOfEach(const std::vector<ReportedChange>& changes) {
  std::vector<const ReportedChange*> last;
  std::unordered_set<std::string_view> seen;
  for (auto change = changes.rbegin(); change != changes.rend(); ++change) {
    if (seen.insert(change->item.identifier).second) last.push_back(&*change);
  }
  std::reverse(last.begin(), last.end());
  return last;
}

bool isSameFile(const ThereView& known, const ItemRecord& record) {
  const ThereState said = thereStateOf(record, known.folder);
  return said.version.contentVersion == known.version.contentVersion &&
         said.sizeBytes == known.sizeBytes && said.modified == known.modified;
}

// It was moved there from here, though the answer was lost.
bool isAwaitedAt(const Item& item, const Item& folder, const ItemRecord& record) {
  return item.awaited() && item.awaited()->folder == folder.id &&
         item.awaited()->name == record.name;
}

}  // namespace

void Tree::doubt(const Item& folder, Batch& batch) {
  batch.isDoubtful = true;
  effects_.doubtful.insert(folder.id);
}

// Whether the answer can be one about the folder as it is known now.
bool Tree::isCurrent(const Item& folder, const Batch& batch) const {
  for (const Item* at = &folder; at == nullptr || !at->isRoot(); at = find(at->there->folder)) {
    if (at == nullptr || !isSure(*at) || at->awaited() || isChangedSince(*at, batch)) return false;
  }
  return true;
}

const char* Tree::whyNotShown(const Item& folder, const ItemRecord& record,
                              const Batch& batch) const {
  if (const char* reason = whyNotAFileName(record.name)) return reason;
  // A remote name with a slash in it can read as an item of some other folder.
  if (record.parentIdentifier && *record.parentIdentifier != folder.there->identifier)
    return "it says that it lies in another folder";
  if (batch.names.contains(record.name)) return "another item has its name";
  if (batch.identifiers.contains(record.identifier)) return "another item has its identifier";
  for (const Item* at = &folder; at != nullptr;
       at = at->there && !at->isRoot() ? find(at->there->folder) : nullptr) {
    if (at->there && at->there->identifier == record.identifier)
      return "its identifier is that of a folder that holds it";
  }
  return nullptr;
}

// Who the records speak of: the items with their identifiers, else those that were last known in their places.
std::vector<Tree::Sighting> Tree::recognise(const Item& folder,
                                            const std::vector<const ItemRecord*>& records,
                                            Batch& batch) {
  std::vector<Sighting> sightings;
  for (const ItemRecord* record : records) {
    Item* item = byIdentifier(record->identifier);
    if (item != nullptr && item->isFolder != record->isFolder) item = nullptr;
    if (const char* reason = whyNotShown(folder, *record, batch)) {
      if (effects_.leftOut++ == 0)
        effects_.firstLeftOut = "'" + record->name.substr(0, kLongestNameBytes) + "': " + reason;
      batch.hasLostSight |= item != nullptr && item->there->folder == folder.id;
      continue;
    }
    batch.names.insert(record->name);
    batch.identifiers.insert(record->identifier);
    if (item != nullptr) batch.kept.insert(item);
    sightings.push_back({record, item});
  }
  for (Sighting& sighting : sightings) {
    if (sighting.item != nullptr) continue;
    Item* placed = inItsPlace(folder, *sighting.record, batch);
    if (placed == nullptr || !batch.kept.insert(placed).second) continue;
    sighting.item = placed;
  }
  return sightings;
}

// Whose place there it has; or who is awaited there; or who was moved to its place here and is just the same, so that
// others have moved it alike.
Item* Tree::inItsPlace(const Item& folder, const ItemRecord& record, const Batch& batch) {
  const Place place{folder.id, record.name};
  Item* placed = occupant(place);
  if (placed != nullptr && placed->isFolder == record.isFolder) return placed;
  for (Item* item : awaitedAt(place)) {
    if (isOld(*item, batch) || !isWhatWasAwaited(*item, record)) continue;
    if (!item->there) foundThere(*item, folder, record);
    return item;
  }
  Item* named = child(folder, record.name);
  if (named == nullptr || !named->there || named->isFolder || record.isFolder) return nullptr;
  return isSameFile(*named->there, record) ? named : nullptr;
}

std::vector<Item*> Tree::awaitedAt(const Place& place) const {
  std::vector<Item*> items;
  for (auto at = awaited_.lower_bound({place, 0}); at != awaited_.end() && at->first == place; ++at)
    items.push_back(items_.find(at->second)->get());
  return items;
}

bool Tree::isWhatWasAwaited(Item& item, const ItemRecord& record) {
  if (item.isFolder != record.isFolder) return false;
  return item.isFolder || (item.there && isSameFile(*item.there, record)) || adopt(item, record);
}

// The store shows what was made here. Of a folder only this side's part is known.
void Tree::foundThere(Item& item, const Item& folder, const ItemRecord& record) {
  setThere(item, thereStateOf(record, folder.id));
  if (!item.isFolder) return;
  item.staysHere = false;
  item.part()->listing.hasStaleIdentifiers = true;
  askAgain(item);
}

void Tree::applyListing(Item& folder, const std::vector<ItemRecord>& items,
                        std::optional<platform::NSFileProviderSyncAnchor> anchor,
                        std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  FolderRow& listing = folder.part()->listing;
  // Where identifiers are to be found out by names, a place that is changing at the moment tells nothing.
  const std::vector<Item*> before = childrenThere(folder);
  const bool isBusy = std::any_of(before.begin(), before.end(),
                                  [&](const Item* child) { return isOld(*child, batch); });
  if (!isCurrent(folder, batch) || (listing.hasStaleIdentifiers && isBusy)) {
    effects_.doubtful.insert(folder.id);
    return;
  }
  const bool isFirst = !listing.isEnumerated;
  const ItemTimes times = folder.times();
  const std::size_t told = effects_.cache.size();
  std::vector<const ItemRecord*> records;
  records.reserve(items.size());
  for (const ItemRecord& record : items) records.push_back(&record);
  const std::vector<Sighting> sightings = recognise(folder, records, batch);
  if (std::exchange(listing.hasStaleIdentifiers, false)) {
    for (Item* child : before) byIdentifier_.insert(child);
  }
  if (!endWaits(folder, batch.asOf, batch.kept)) doubt(folder, batch);
  listing.isEnumerated = true;
  folder.part()->listedAt = moment();
  std::vector<Item*> gone;
  for (Item* item : before) {
    if (!batch.kept.contains(item)) gone.push_back(item);
  }
  if (!gone.empty() && mayHavePassedOver(folder, before, batch)) {
    doubt(folder, batch);
    gone.clear();
  }
  bringIn(folder, sightings, gone, batch);
  listing.anchor = batch.isDoubtful ? std::nullopt : std::move(anchor);
  forgetUntold(folder, batch.asOf);
  note(folder);
  // Of a folder that is listed for the first time nobody has been told anything, and nothing came or went.
  if (!isFirst) return;
  folder.setTimes({times.accessed, times.modified, times.modified});
  const auto first = effects_.cache.begin() + static_cast<std::ptrdiff_t>(told);
  effects_.cache.erase(std::remove_if(first, effects_.cache.end(),
                                      [&](const CacheUpdate& update) {
                                        return folder.node != 0 && update.node == folder.node &&
                                               update.kind != Kind::attributes;
                                      }),
                       effects_.cache.end());
}

void Tree::applyChanges(Item& folder, const std::vector<ReportedChange>& changes,
                        platform::NSFileProviderSyncAnchor anchor, std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  FolderRow& listing = folder.part()->listing;
  const bool isCrossed = folder.part()->listedAt > asOf;
  if (isCrossed && changes.empty()) return;
  // Of what crossed a listing nobody knows which is newer; and who compares two listings tells each difference once.
  if (!isCurrent(folder, batch) || listing.hasStaleIdentifiers || isCrossed)
    return askAgain(folder);
  const std::vector<const ReportedChange*> last = lastOfEach(changes);
  std::vector<const ItemRecord*> records;
  for (const ReportedChange* change : last) {
    if (change->kind == ReportedChange::Kind::update) records.push_back(&change->item);
  }
  const std::vector<Sighting> sightings = recognise(folder, records, batch);
  std::vector<Item*> gone;
  for (const ReportedChange* change : last) {
    if (change->kind == ReportedChange::Kind::update) continue;
    Item* item = byIdentifier(change->item.identifier);
    if (underWay_ > 0) goneMeanwhile_.insert(change->item.identifier);
    // An item that moved elsewhere is reported as deleted by the folder that it left.
    if (item == nullptr || item->isRoot() || item->there->folder != folder.id) continue;
    if (!batch.kept.contains(item)) gone.push_back(item);
  }
  bringIn(folder, sightings, gone, batch);
  hearOf(folder, last);
  const bool isNews = anchor != listing.anchor;
  // Meanwhile it may have turned out that only a whole listing can tell more: then that is still so.
  if (batch.hasLostSight || !listing.anchor) {
    doubt(folder, batch);
    listing.anchor = std::nullopt;
  } else if (!batch.isDoubtful) {
    listing.anchor = std::move(anchor);
    // What it passes over may have been undone by others: it is as in the listing before, and nothing is to be told.
    if (isNews && hasUntold(folder, batch.asOf)) askAgain(folder);
  }
  note(folder);
}

void Tree::bringIn(Item& folder, const std::vector<Sighting>& sightings,
                   const std::vector<Item*>& gone, Batch& batch) {
  const bool hasNews =
      std::any_of(sightings.begin(), sightings.end(),
                  [&](const Sighting& sighting) { return isNews(folder, sighting, batch); });
  if (hasNews && !folder.isLinked()) bringBack(folder);
  for (const Sighting& sighting : sightings) {
    if (sighting.item != nullptr) leaveOldPlace(*sighting.item, folder, *sighting.record, batch);
  }
  holdOrBelieve(folder, gone, batch);
  for (const Sighting& sighting : sightings) {
    if (sighting.item != nullptr) {
      applyToKnown(*sighting.item, folder, *sighting.record, batch);
    } else {
      applyNew(folder, *sighting.record, batch);
    }
  }
  returnLeft(batch);
}

// Whether others have put something into the folder that nobody here has removed.
bool Tree::isNews(const Item& folder, const Sighting& sighting, const Batch& batch) const {
  const Item* item = sighting.item;
  if (item == nullptr) return !mayBeKnown(folder, sighting.record->name, batch);
  if (isOld(*item, batch)) return false;
  if (item->folder != nullptr && item->there->folder != folder.id)
    return item->folder->id == item->there->folder && item->name() == item->there->name;
  return false;
}

// What has moved leaves its old place before anything comes to a new one, so that names which were swapped are free, and no
// folder that is gone seems to hold anything.
void Tree::leaveOldPlace(Item& item, const Item& folder, const ItemRecord& record, Batch& batch) {
  if (isOld(item, batch) || item.folder == nullptr) return;
  const bool hasMoved = (item.there->folder != folder.id || item.there->name != record.name) &&
                        !isAwaitedAt(item, folder, record);
  if (!hasMoved || !item.isAtPlaceThere() || isWithin(folder, item)) return;
  unlink(item, true);
  batch.leaving.insert(&item);
}

// An item that left its place and could not be shown in its new one is not removed: nobody here wanted that.
void Tree::returnLeft(const Batch& batch) {
  for (const Item* left : batch.leaving) {
    if (left->folder == nullptr) bringBack(*find(left->id));
  }
}

std::size_t Tree::countDifferences(const Item& folder, const std::vector<ItemRecord>& items) const {
  const auto isMoving = [](const Item& item) {
    return item.isUnderWay || item.awaited() || item.there->isProvisional;
  };
  std::size_t differences = 0;
  std::unordered_set<const Item*> shown;
  for (const ItemRecord& record : items) {
    const Item* item = occupant({folder.id, record.name});
    if (item == nullptr) {
      const bool isShown = whyNotAFileName(record.name) == nullptr;
      if (isShown && awaitedAt({folder.id, record.name}).empty()) ++differences;
      continue;
    }
    shown.insert(item);
    const bool isOther =
        record.isFolder != item->isFolder || (!item->isFolder && !isSameFile(*item->there, record));
    if (isOther && !isMoving(*item)) ++differences;
  }
  for (const Item* item : childrenThere(folder)) {
    if (!shown.contains(item) && !isMoving(*item)) ++differences;
  }
  return differences;
}

void Tree::applyItem(Item& item, const std::optional<ItemRecord>& record, std::uint64_t asOf) {
  Batch batch;
  batch.asOf = asOf;
  if (!item.there || item.isRoot() || item.sentAt() > asOf || item.placedAt > asOf) return;
  Item& folder = *find(item.there->folder);
  // Where a folder above it is changing, it may be missing under its old path only.
  if (!isSure(item) || (!record && !isCurrent(folder, batch))) {
    effects_.doubtful.insert(folder.id);
    return;
  }
  // Something of the other kind in its place is not it.
  if (!record || record->isFolder != item.isFolder) {
    if (record) effects_.doubtful.insert(folder.id);
    expectToldOf(folder.id, item.there->identifier, false);
    // What is held is asked for as long as nothing is to be done with it.
    if (!item.there->isHeldDeletion) {
      holdOrBelieve(folder, {&item}, batch);
    } else if (differs(item)) {
      goneThere(item, batch);
    }
    return;
  }
  const bool isElsewhere =
      record->name != item.there->name || record->identifier != item.there->identifier ||
      (record->parentIdentifier && *record->parentIdentifier != folder.there->identifier);
  if (isElsewhere) {
    effects_.doubtful.insert(folder.id);
  } else {
    item.placedAt = std::max(item.placedAt, asOf);
  }
  const std::string version = item.there->version.contentVersion;
  applyContents(item, *record);
  if (item.there->version.contentVersion != version)
    expectToldOf(folder.id, item.there->identifier, true);
}

// Whether what nobody knows may be what is on its way there, though here another item has the name by now, or none; or what
// has left that place meanwhile.
bool Tree::mayBeKnown(const Item& folder, const std::string& name, const Batch& batch) const {
  const std::vector<Item*> awaited = awaitedAt({folder.id, name});
  const bool isOnItsWay = std::any_of(awaited.begin(), awaited.end(),
                                      [&](const Item* item) { return isOld(*item, batch); });
  const Item* named = child(folder, name);
  return isOnItsWay || folder.part()->leftAt > batch.asOf ||
         (named != nullptr && isOld(*named, batch));
}

void Tree::applyNew(Item& folder, const ItemRecord& record, Batch& batch) {
  Item* placed = occupant({folder.id, record.name});
  if (placed != nullptr && !batch.kept.contains(placed)) {  // of the other kind
    if (!goneThere(*placed, batch)) return;
  }
  if (mayBeKnown(folder, record.name, batch)) {
    doubt(folder, batch);
    return;
  }
  Item* named = child(folder, record.name);
  if (named != nullptr) {
    if (adoptNamed(*named, folder, record)) {
      named->placedAt = batch.asOf;
      return;
    }
    makeRoom(folder, record.name);
  }
  Item& item = make(nextItem_++, record.isFolder);
  item.sizeBytes = record.sizeBytes;
  const FileTime modified = FileTime::of(record.modified);
  item.setTimes({modified, modified, modified});
  item.placedAt = batch.asOf;
  link(item, folder, record.name, true);
  setThere(item, thereStateOf(record, folder.id));
}

// What was made here is what the store shows, if it is a folder on both sides, or a file that was sent though the answer was
// lost, or changes of just that version whose row was lost.
bool Tree::adoptNamed(Item& named, const Item& folder, const ItemRecord& record) {
  if (named.there || named.isFolder != record.isFolder) return false;
  const bool isEditOfIt = named.isEdited() && !named.content()->base.empty() &&
                          named.content()->base == thereStateOf(record, 0).version.contentVersion;
  if (!named.isFolder && !isEditOfIt && !adopt(named, record)) return false;
  foundThere(named, folder, record);
  return true;
}

// What has the name here must have another one.
void Tree::makeRoom(Item& folder, const std::string& name) {
  Item* named = child(folder, name);
  if (named == nullptr) return;
  const std::string other = freeNameFor(folder, name);
  unlink(*named, true);
  link(*named, folder, other, true);
}

void Tree::applyToKnown(Item& item, Item& folder, const ItemRecord& record, Batch& batch) {
  const Item* named = child(folder, record.name);
  const bool isSamePlace = item.there->folder == folder.id && item.there->name == record.name;
  const bool wasHere = item.isAtPlaceThere();
  // Moved by others: here too, unless it was moved here as well, or is removed.
  const bool follows = !isSamePlace && !isAwaitedAt(item, folder, record) &&
                       (wasHere || batch.leaving.contains(&item)) &&
                       !(item.isFolder && isWithin(folder, item));
  if (isOld(item, batch) ||
      (follows && named != nullptr && named != &item && isOld(*named, batch))) {
    doubt(folder, batch);
    return;
  }
  const bool hasOtherIdentifier = record.identifier != item.there->identifier;
  ThereState there = *item.there;
  there.identifier = record.identifier;
  there.folder = folder.id;
  there.name = record.name;
  there.isHeldDeletion = false;
  if (follows && item.folder != nullptr) unlink(item, true);
  // Folders are asked one by one, and others may have put something else into an awaited place: if it is in its old place
  // still, or again, only that one's listing tells.
  const bool mayHaveTwo = item.there->folder != folder.id || isAwaitedAt(item, folder, record);
  if (Item* old = find(item.there->folder); mayHaveTwo && old != nullptr) askAgain(*old);
  await(item, std::nullopt);
  setThere(item, std::move(there));
  item.placedAt = batch.asOf;
  if (follows) {
    makeRoom(folder, record.name);
    link(item, folder, record.name, true);
  }
  if (item.isFolder && hasOtherIdentifier) markStale(item);
  applyContents(item, record);
}

// Whether `record` is what was last sent from here; then its version is the one of those contents. Of two sendings that it
// could be the one that is known to have arrived is taken: the other is repeated. So it is when the store shows what it showed
// before, since sendings that follow each other closely may have one time and one size.
bool Tree::adopt(Item& item, const ItemRecord& record) {
  const bool isSent = item.there && item.there->isProvisional &&
                      record.sizeBytes == item.there->sizeBytes &&
                      isSince(record.modified, item.there->modified);
  if (!item.content()) return isSent;
  ContentRow& row = *item.content();
  const platform::Date began{std::chrono::seconds(row.sendingSince)};
  const std::string version = thereStateOf(record, 0).version.contentVersion;
  const bool isAsBefore =
      item.there && !item.there->isProvisional && isSameFile(*item.there, record);
  const bool isSending = row.sendingSince != 0 && !isAsBefore &&
                         record.sizeBytes == row.sendingBytes && isSince(record.modified, began);
  if (!isSent && !isSending) return false;
  if (!isSent) row.sendingSince = 0;
  contentsAreThere(row, isSent ? row.sentEdits : row.sendingEdits, version);
  if (item.object() && row.sentEdits <= row.state.edits)
    effects_.adopted.push_back({item.object(), row.sentEdits, version});
  return true;
}

// REQUIRES: there is set.
void Tree::applyContents(Item& item, const ItemRecord& record) {
  ThereState said = thereStateOf(record, item.there->folder);
  const bool isSame = said.version.contentVersion == item.there->version.contentVersion;
  const bool isKnown = item.isFolder || adopt(item, record) || isSame;
  // Whatever it says of its identifier and name.
  said.identifier = item.there->identifier;
  said.name = item.there->name;
  said.policy = item.there->policy;
  setSideThere(item, said);
  item.timesLost = 0;
  held_.erase(item.id);
  note(item);
  if (isKnown) {
    if (!item.isFolder && !item.content()) item.sizeBytes = said.sizeBytes;
    return;
  }
  // Changed by others. A removal loses against it; what was changed here as well is settled when it is to be sent.
  bringBack(item);
  if (item.isEdited()) return;
  if (item.content()) {
    if (item.node != 0) succeed(item);
    releaseContent(item, false);
  }  // else an object has nothing of the old version, and goes on with the new one
  item.sizeBytes = said.sizeBytes;
  const FileTime modified = FileTime::of(said.modified);
  const ItemTimes before = item.times();
  const bool isAccessSet = before.accessed != before.modified;
  item.setTimes({isAccessSet ? before.accessed : modified, modified, modified});
  if (item.node != 0) effects_.cache.push_back({Kind::attributes, item.node, {}, 0});
}

void Tree::setPolicy(Item& item, platform::NSFileProviderContentPolicy policy) {
  if (!item.there || item.there->policy == policy) return;
  ThereState there = *item.there;
  there.policy = policy;
  setSideThere(item, there);
  note(item);
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
