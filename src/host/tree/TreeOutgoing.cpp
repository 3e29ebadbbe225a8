// What is to be sent of a tree, and what became of what was sent.
#include <algorithm>
#include <chrono>
#include <utility>

#include "host/tree/TreeBatch.h"

// Whether an item is there follows from how it was found, which the check does not see.
// NOLINTBEGIN(bugprone-unchecked-optional-access)
namespace kestrune::host {

namespace {

// A file that was sent so lately is still being saved: who moves it over another one means new contents of that one.
constexpr std::chrono::seconds kLately{60};

// Answers are asked one item at a time and must outlive the question.
class View final : public OutgoingView {
 public:
  explicit View(const Tree& tree) : tree_(tree) {}
  const OutgoingItem* find(NodeId id) const override {
    if (id == kRootItem) return nullptr;
    const auto known = known_.find(id);
    if (known != known_.end()) return &known->second;
    const Item* item = tree_.find(id);
    if (item == nullptr) return nullptr;
    return &known_.emplace(id, Tree::outgoingItem(*item)).first->second;
  }
  const OutgoingItem* occupant(const Place& there) const override {
    const Item* item = tree_.claimant(there);
    return item == nullptr ? nullptr : find(item->id);
  }

 private:
  const Tree& tree_;
  mutable std::unordered_map<ItemId, OutgoingItem> known_;
};

auto isEndedBy(std::uint64_t moment) {
  return [moment](const auto& change) { return change.second.endedAt <= moment; };
}

}  // namespace

ThereState thereStateOf(const ItemRecord& record, ItemId folder) {
  ThereState there;
  there.identifier = record.identifier;
  there.folder = folder;
  there.name = record.name;
  // An extension without versions is taken at its sizes and times.
  there.version.contentVersion =
      record.contentVersion.value_or(std::to_string(record.sizeBytes) + "/" +
                                     std::to_string(record.modified.time_since_epoch().count()));
  there.version.metadataVersion = record.metadataVersion;
  there.sizeBytes = record.sizeBytes;
  there.modified = record.modified;
  return there;
}

std::unique_ptr<OutgoingView> Tree::outgoing() const { return std::make_unique<View>(*this); }

OutgoingItem Tree::outgoingItem(const Item& item) {
  OutgoingItem outgoing;
  outgoing.id = item.id;
  outgoing.isFolder = item.isFolder;
  outgoing.isLinked = item.isLinked();
  if (item.folder != nullptr) outgoing.here = {item.folder->id, item.name()};
  outgoing.isAwaited = item.awaited() != nullptr;
  if (!outgoing.isLinked && item.awaited()) outgoing.here = *item.awaited();
  if (item.there) {
    outgoing.there = Place{item.there->folder, item.there->name};
    if (!outgoing.isLinked) outgoing.here = *outgoing.there;
  }
  if (item.content()) {
    outgoing.edits = item.content()->state.edits;
    outgoing.sentEdits = item.content()->sentEdits;
  }
  return outgoing;
}

// `item` has come to a place where the store has another file that is no longer there here: programs save like that, and
// mean new contents of the same file.
void Tree::takeOver(Item& item) {
  if (item.isFolder || item.isUnderWay || !item.content() || item.staysHere) return;
  // Missing bytes were of a version of its own: in the other's place nobody would find them, nor know that they are lost.
  if (item.awaited() || !item.isWhole()) return;
  Item* before = occupant({item.folder->id, item.name()});
  if (before == nullptr || before == &item || before->isFolder || before->isUnderWay) return;
  if (before->there->isHeldDeletion || before->awaited() || !isSure(*before)) return;
  const bool keepsName = before->isLinked();
  // A backup copy beside it goes out as a new file, if all of it is here; else the renaming goes out as one.
  if (keepsName && (before->folder != item.folder || !before->isWhole())) return;
  if (item.there) {
    const platform::Date sent{std::chrono::seconds(item.uploadedSeconds())};
    if (!isSure(item) || setting_.now() - sent > kLately) return;
    // What is there of it may be newer than is known: only the item itself can tell that from others' contents.
    if (item.content()->sendingSince != 0) return;
    const bool isUnseen = hasUnseen(item);
    Item& left = leaveOwnThere(item);
    if (isUnseen) bringBack(left);
  }
  ThereState there = *before->there;
  ContentRow& row = *item.content();
  row.base = before->isEdited() ? before->content()->base : there.version.contentVersion;
  contentsAreChanged(row);
  row.sendingSince = 0;
  if (before->content() && before->content()->sendingSince != 0) {
    row.sendingSince = before->content()->sendingSince;
    row.sendingBytes = before->content()->sendingBytes;
    row.sendingEdits = row.sentEdits;  // of these contents nothing
    before->content()->sendingSince = 0;
  }
  forgetThere(*before);
  setThere(item, std::move(there));
  item.setSentAt(moment());
  before->setSentAt(item.sentAt());
  if (!keepsName) effects_.gone.insert(before->id);
}

// What is there of the item is another one from now on, which is there alone.
Item& Tree::leaveOwnThere(Item& item) {
  ThereState there = *item.there;
  forgetThere(item);
  Item& left = make(nextItem_++, false);
  left.there.setNameHere(there.name);
  left.sizeBytes = there.sizeBytes;
  const FileTime modified = FileTime::of(there.modified);
  left.setTimes({modified, modified, modified});
  left.isExecutable = item.isExecutable;
  left.setSentAt(item.sentAt());
  setThere(left, std::move(there));
  return left;
}

void Tree::beginChange(Item& item, std::optional<Place> to) {
  if (!std::exchange(item.isUnderWay, true)) ++underWay_;
  item.setBegunAt(moment());
  if (to) await(item, std::move(to));
}

void Tree::beginSending(Item& item, std::int64_t bytes, std::uint64_t edits,
                        std::optional<Place> to) {
  beginChange(item, std::move(to));
  if (!item.content()) return;
  item.content()->sendingSince =
      std::chrono::floor<std::chrono::seconds>(setting_.now()).time_since_epoch().count();
  item.content()->sendingBytes = bytes;
  item.content()->sendingEdits = edits;
  note(item);
}

void Tree::endChange(Item& item) {
  if (std::exchange(item.isUnderWay, false) && --underWay_ == 0) goneMeanwhile_.clear();
  if (item.there && !item.isAtPlaceThere()) left(item.there->folder, moment());  // perhaps it has
  note(item);
  if (item.awaited()) {
    item.setSentAt(moment());  // what was asked before may have been told too early
    if (Item* folder = find(item.awaited()->folder); folder != nullptr && folder->there) {
      askAgain(*folder);
    } else {
      await(item, std::nullopt);
    }
  }
  // Removed while the change was on its way, by who knew nothing of what others had made of it.
  if (!item.isLinked() && hasUnseen(item)) bringBack(leaveOwnThere(item));
  if (!item.isLinked() && !item.there) effects_.gone.insert(item.id);
}

void Tree::created(Item& item, const Place& place, const ItemRecord& answer, std::uint64_t edits,
                   platform::Date began) {
  const Item* folder = find(place.folder);
  await(item, std::nullopt);
  if (folder == nullptr || !folder->there) return;  // gone meanwhile, with all that came into it
  if (isReplacedThere(item, answer.identifier)) {
    if (item.content()) item.content()->sendingSince = 0;
    note(item);
    return;
  }
  displace(place, answer.identifier, item);
  doubtWhatWasMissed(item, place, answer.identifier);
  ThereState there = thereStateOf(answer, place.folder);
  there.name = place.name;
  if (!item.isFolder) {
    there.isProvisional = true;
    there.modified = began;
  }
  setThere(item, std::move(there));
  expectToldOf(place.folder, answer.identifier, true);
  if (item.content()) sent(item, answer, edits, began);
  item.setSentAt(moment());
}

// What was said of the item while nobody knew yet who it is there passed unnoticed.
void Tree::doubtWhatWasMissed(const Item& item, const Place& place, const std::string& identifier) {
  Item& folder = *find(place.folder);
  if (folder.part()->listedAt > item.begunAt() || goneMeanwhile_.contains(identifier))
    askAgain(folder);
}

// What the creation made was shown before its answer came, was taken for another item, and that one has been changed from
// here: what was created is no longer there, and is made again.
bool Tree::isReplacedThere(const Item& item, const std::string& identifier) const {
  const Item* other = byIdentifier(identifier);
  return other != nullptr && other != &item &&
         (other->isUnderWay || other->sentAt() > item.begunAt());
}

// The store has put `by` there: whoever was known to be there, or by its identifier, is not any more.
void Tree::displace(const Place& place, const std::string& identifier, const Item& by) {
  Batch now;
  now.asOf = moment();
  for (const bool isByName : {false, true}) {
    Item* other = isByName ? occupant(place) : byIdentifier(identifier);
    if (other == nullptr || other == &by || other->isRoot()) continue;
    askAgain(*find(other->there->folder));
    if (holdsOld(*other, now)) continue;
    left(other->there->folder, now.asOf);
    believeGone(*other, true, {});
  }
}

void Tree::sent(Item& item, const ItemRecord& answer, std::uint64_t edits, platform::Date began) {
  const ThereState answered = thereStateOf(answer, 0);
  ContentRow& row = *item.content();
  ThereState there = *item.there;
  there.version = answered.version;
  there.sizeBytes = row.sendingSince != 0 ? row.sendingBytes : answered.sizeBytes;
  there.modified = began;
  there.isProvisional = true;
  setSideThere(item, there);
  row.sendingSince = 0;
  contentsAreThere(row, edits, there.version.contentVersion);
  item.setUploadedSeconds(
      std::chrono::floor<std::chrono::seconds>(setting_.now()).time_since_epoch().count());
  item.setSentAt(moment());
  expectToldOf(item.there->folder, item.there->identifier, true);
  note(item);
}

void Tree::contentsAreChanged(ContentRow& row) {
  if (row.state.edits == row.sentEdits)
    row.sentEdits = row.state.edits - 1;  // before the first it wraps: any other number will do
  row.state.isEdited = true;
}

void Tree::editFailed(Item& item, std::uint64_t edits) {
  ContentRow* row = item.content();
  // What was edited before, or has been since, is to be sent all the same.
  if (row == nullptr || row->state.edits != edits || row->sentEdits + 1 != edits) return;
  row->sentEdits = edits;
  row->state.isEdited = false;
  note(item);
}

// The store has the contents up to `edits`, as `version`; what hangs on an object is told it by others.
void Tree::contentsAreThere(ContentRow& row, std::uint64_t edits, const std::string& version) {
  row.sentEdits = edits;
  row.base = version;
  row.state.version = version;
  row.state.isEdited = row.state.edits != edits;
  if (!row.state.isEdited) row.state.fetchableBytes = row.state.sizeBytes;
}

void Tree::moved(Item& item, const Place& place, const ItemRecord& answer) {
  const Item* folder = find(place.folder);
  await(item, std::nullopt);
  if (folder == nullptr || !folder->there) {
    removedThere(item);  // gone meanwhile, with all that came into it
    return;
  }
  displace(place, answer.identifier, item);
  doubtWhatWasMissed(item, place, answer.identifier);
  left(item.there->folder, moment());
  expectToldOf(item.there->folder, item.there->identifier, false);
  expectToldOf(place.folder, answer.identifier, true);
  ThereState there = *item.there;
  const bool isSameIdentifier = there.identifier == answer.identifier;
  there.identifier = answer.identifier;
  there.folder = place.folder;
  there.name = place.name;
  there.version.metadataVersion = answer.metadataVersion;
  setThere(item, std::move(there));
  item.setSentAt(moment());
  if (item.isFolder && !isSameIdentifier) markStale(item);
}

// The folder has another identifier: what is in it may have others too, at any depth.
void Tree::markStale(Item& folder) {
  std::vector<Item*> pending = {&folder};
  while (!pending.empty()) {
    Item& at = *pending.back();
    pending.pop_back();
    at.setSentAt(moment());
    FolderRow& listing = at.part()->listing;
    const std::vector<Item*> children = childrenThere(at);
    if (children.empty() && !listing.isEnumerated) continue;
    listing.hasStaleIdentifiers = true;
    listing.anchor = std::nullopt;
    effects_.doubtful.insert(at.id);
    note(at);
    for (Item* child : children) {
      if (isSure(*child)) byIdentifier_.erase(child);
      if (child->isFolder) pending.push_back(child);
    }
  }
}

void Tree::left(ItemId place, std::uint64_t asOf) {
  Item* folder = find(place);
  if (folder != nullptr && folder->isFolder)
    folder->part()->leftAt = std::max(folder->part()->leftAt, asOf);
}

void Tree::expectToldOf(ItemId place, const std::string& identifier, bool isInFolder) {
  Item* folder = find(place);
  if (folder == nullptr || !folder->isFolder || !folder->part()->listing.anchor) return;
  auto& untold = folder->part()->untold;
  untold.insert_or_assign(identifier, UntoldChange{isInFolder, moment()});
  if (untold.size() == 1) note(*folder);
}

void Tree::hearOf(Item& folder, const std::vector<const ReportedChange*>& changes) {
  auto& untold = folder.part()->untold;
  if (untold.empty()) return;
  for (const ReportedChange* change : changes) {
    const auto found = untold.find(change->item.identifier);
    const bool isInFolder = change->kind == ReportedChange::Kind::update;
    if (found != untold.end() && found->second.isInFolder == isInFolder) untold.erase(found);
  }
}

void Tree::forgetUntold(Item& folder, std::uint64_t asOf) {
  std::erase_if(folder.part()->untold, isEndedBy(asOf));
}

bool Tree::hasUntold(const Item& folder, std::uint64_t asOf) {
  const auto& untold = folder.part()->untold;
  return std::any_of(untold.begin(), untold.end(), isEndedBy(asOf));
}

void Tree::removedThere(Item& item) {
  left(item.there->folder, moment());
  expectToldOf(item.there->folder, item.there->identifier, false);
  if (item.isFolder) {
    for (Item* child : childrenThere(item)) removedThere(*child);
  }
  const bool isLost = item.isLinked() && !item.isFolder && !item.isWhole();
  if (isLost) {  // moved out here when it was too late, and its bytes were at the store alone
    believeGone(item, false, {});
    return;
  }
  forgetThere(item);
  item.setSentAt(moment());
  if (!item.isLinked()) effects_.gone.insert(item.id);
}

void Tree::refused(Item& item) {
  item.staysHere = true;
  await(item, std::nullopt);
}

void Tree::nameIsTaken(Item& item) {
  if (item.content()) item.content()->sendingSince = 0;
  note(item);
}

Item& Tree::keepBoth(Item& item) {
  const bool wasAtPlace = item.isAtPlaceThere();
  Item& stored = leaveOwnThere(item);
  item.content()->base.clear();
  item.content()->sendingSince = 0;
  if (wasAtPlace) {
    Item& folder = *item.folder;
    const std::string conflicting = freeNameFor(folder, stored.there->name);
    unlink(item, true);
    link(item, folder, conflicting, true);
  }
  bringBack(stored);
  return stored;
}

void Tree::bringBack(Item& item) {
  if (item.isLinked() || !item.there) return;
  Item* folder = find(item.there->folder);
  if (folder == nullptr) return;
  if (!folder->isLinked()) bringBack(*folder);
  // With its folder may have come all that is in it.
  if (!folder->isLinked() || item.isLinked()) return;
  link(item, *folder, nameIn(*folder, item.there->name), true);
  effects_.gone.erase(item.id);
  if (!item.isFolder) return;
  for (Item* child : childrenThere(item)) {
    if (!child->isUnderWay) bringBack(*child);
  }
}

}  // namespace kestrune::host
// NOLINTEND(bugprone-unchecked-optional-access)
