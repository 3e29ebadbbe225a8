// All items of a mounted folder and what may happen to them: changes made here, what the store says of itself, and what
// became of changes that were sent. It knows neither the extension's calls nor the kernel's, and does no input or output; what
// follows from an operation outside is gathered as its effects.
//
// Identity is the item's number. The extension's identifier is one property of the item's side there, which changes whenever
// the extension answers with another one; it is compared, never interpreted.
//
// Threads: none of its own; the owner's lock guards every call and every Item.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "host/basics/KernelCache.h"
#include "host/in/ItemRecord.h"
#include "host/out/Planner.h"
#include "host/tree/ItemIndexes.h"

namespace kestrune::host {

/// A version of a file's contents that is no longer the item's, though the kernel knows it or has it open.
struct DetachedVersion {
  NodeId node = 0;
  ItemId item = 0;
  FileObjectPtr object;
  bool isExecutable = false;
  std::int64_t sizeBytes = 0;
  FileTime modified;
  FileTime changed;
};

/// What follows from changes of the tree outside of it.
struct TreeEffects {
  std::vector<CacheUpdate> cache;
  /// Folders, with something in them, that have another place or name here.
  std::set<ItemId> movedFolders;
  /// Items whose rows are to be put, or to go.
  std::set<ItemId> changed;
  std::set<ItemId> forgotten;
  std::vector<DetachedVersion> detached;
  /// Objects that must be told, and contents that nobody has loaded and whose files are to go.
  std::vector<FileObjectPtr> abandoned;
  std::vector<ContentNumber> dropped;
  /// Contents that go at the store's wish though there was much of it: to be kept for a while.
  struct Rescued {
    ContentNumber number;
    std::string name;
  };
  std::vector<Rescued> rescued;
  /// Contents of which the store's version has become known.
  struct Adopted {
    FileObjectPtr object;
    std::uint64_t edits;
    std::string version;
  };
  std::vector<Adopted> adopted;
  /// Items that are neither here nor there: to be forgotten when nobody has them open.
  std::set<ItemId> gone;
  /// Folders that must be asked again, since what was said of them is old or in doubt.
  std::set<ItemId> doubtful;
  /// Items that cannot be shown: how many, and the first of them with its reason.
  std::size_t leftOut = 0;
  std::string firstLeftOut;
  bool isEmpty() const;
};

class Tree {
 public:
  struct Setting {
    /// Shown in the names of conflicting versions.
    std::string machine;
    std::function<platform::Date()> now;
    std::string rootIdentifier;
  };
  explicit Tree(Setting setting);
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  // ---- Memory.
  /// Takes a row of an earlier mount: all of them in any order, then `endRestore`, before anything else. REQUIRES: the numbers
  /// of the rows differ and are not 0.
  void takeRow(ItemRow row);
  /// Makes a tree of the rows. What was removed here and is not there is forgotten.
  /// Where rows contradict each other the effects tell what was mended: an item without a right place here is put
  /// where the store has it, or, if only this host has its contents, into the root; of what is not right about the store
  /// nothing is believed, and its folder is doubtful.
  /// `open`: items that programs have open, which are not forgotten though they are neither here nor there.
  void endRestore(ItemId nextItem, const std::set<ItemId>& open = {});
  /// A changed file whose row is lost is at `path` again ("/a/b"), or beside what has that name; folders are made for it as
  /// if they were new: the store's of the same names become the same. Its changes began from the version `base` at the
  /// store, none if it is empty. REQUIRES: nothing was asked of the store yet.
  Item& restoreEdit(std::string_view path, bool isExecutable, const ContentState& state,
                    const std::string& base);
  ItemId nextItem() const { return nextItem_; }
  ItemRow row(const Item& item) const;
  TreeEffects takeEffects();

  // ---- Asking.
  Item& root() { return *root_; }
  Item* find(ItemId id);
  const Item* find(ItemId id) const;
  Item* child(const Item& folder, std::string_view name) const;
  Item* byIdentifier(const platform::NSFileProviderItemIdentifier& identifier) const;
  Item* byIdentifier(const IdentifierView& identifier) const;
  /// Whether the item, or a folder above it there, is being moved at this moment, or was and nobody knows yet where to: it may
  /// have another identifier by now.
  bool isMoving(const Item& item) const;
  /// The item whose place there this is, linked here or not.
  Item* occupant(const Place& there) const;
  /// As `occupant`, or who is awaited there.
  Item* claimant(const Place& there) const;
  /// Whether the item's identifier is its own for certain. It is not in a folder that got another identifier, until
  /// that one is listed; what is asked or changed at the store meanwhile might be another item.
  bool isSure(const Item& item) const;
  /// "/a/b"; of an item that has no name here, its path there.
  std::string path(const Item& item) const;
  static bool isWithin(const Item& item, const Item& folder);
  std::size_t count() const { return items_.size(); }
  /// Calls `visit` for every item whose place there is in `folder`.
  void forEachChildThere(ItemId folder, const std::function<void(const Item&)>& visit) const;
  /// Calls `visit` for every item but the root.
  void forEach(const std::function<void(Item&)>& visit);

  // ---- Changes made here. The caller has checked what the kernel leaves to it; what is said below is required.
  /// REQUIRES: `folder` is a linked folder, `name` a file name that is free in it.
  Item& create(Item& folder, const std::string& name, bool isFolder, bool isExecutable);
  /// What the store got since its contents were changed here, and nobody saw, is shown in its place. REQUIRES: linked, not the
  /// root; a folder is empty.
  void remove(Item& item);
  /// Moves; what has the new name is removed. REQUIRES: linked; `folder` is not within `item`; what has the name is
  /// of the same kind, and empty if it is a folder.
  void move(Item& item, Item& folder, const std::string& name);
  /// REQUIRES: both linked, neither within the other.
  void exchange(Item& a, Item& b);
  /// The item's times, executable bit or size here were set by the caller.
  void changedHere(Item& item);
  /// The item's contents are in this state; `item.content` is made if there is none. With its first contents a new item
  /// becomes the new contents of what the store has under its name, if that is no longer there here.
  void setContent(Item& item, const ContentState& state);
  /// The item has no contents here any more. REQUIRES: not edited.
  void dropContent(Item& item);
  /// Nobody has the item open any more: forgets one that is neither here nor there.
  void forgetIfGone(Item& item);
  /// A new version for the kernel; the old one is reported as detached.
  void succeed(Item& item);

  // ---- What the store says. `asOf` is the moment when it was asked.
  std::uint64_t moment() { return ++moment_; }
  /// `items` are the whole content of `folder`. What can not be believed yet makes the folder doubtful, and it has no anchor.
  void applyListing(Item& folder, const std::vector<ItemRecord>& items,
                    std::optional<platform::NSFileProviderSyncAnchor> anchor, std::uint64_t asOf);
  /// With doubts the folder's anchor stays as it was, so that the same changes are told again; it has none where only
  /// a whole listing can tell more.
  void applyChanges(Item& folder, const std::vector<ReportedChange>& changes,
                    platform::NSFileProviderSyncAnchor anchor, std::uint64_t asOf);
  /// How many of the folder's items are not at the store as they were last known to be, by `items`, its whole content:
  /// new, gone, or others' version. Those whose changes are on their way do not count.
  std::size_t countDifferences(const Item& folder, const std::vector<ItemRecord>& items) const;
  /// One item was asked for: what it is, or that it is not there (which is not believed while a change of it is on its
  /// way: that one is ended first). A removal that loses against newer contents is undone: a
  /// sender looks whether the item is linked or still there afterwards.
  void applyItem(Item& item, const std::optional<ItemRecord>& record, std::uint64_t asOf);
  void setPolicy(Item& item, platform::NSFileProviderContentPolicy policy);
  std::vector<ItemId> heldDeletions() const;
  /// What has here the name that a version gets which is kept beside the store's.
  const std::set<ItemId>& conflictCopies() const { return conflictCopies_; }
  /// Believes the held deletions, or sends what they would take away to the store again. Those with a change on its
  /// way stay held.
  void settleHeldDeletions(bool believe);

  // ---- What is sent.
  const std::set<ItemId>& differing() const { return differing_; }
  /// The view of the planner.
  std::unique_ptr<OutgoingView> outgoing() const;
  static OutgoingItem outgoingItem(const Item& item);
  static bool differs(const Item& item);
  /// A change of the item is on its way; with contents of `bytes` at `edits`, where it carries any; to `to`, if it makes
  /// or moves it: until it is known how that ended, the item is awaited there.
  void beginChange(Item& item, std::optional<Place> to = std::nullopt);
  void beginSending(Item& item, std::int64_t bytes, std::uint64_t edits,
                    std::optional<Place> to = std::nullopt);
  /// However it ended. What it did is told by the next operations, before this one; if it is awaited still, the next
  /// listing of that folder tells.
  void endChange(Item& item);
  /// The store took `item` at `place`; `answer` is what the extension says of it, `began` when the sending began. The item
  /// is still not there afterwards where that is so again by now; then it is to be created once more.
  void created(Item& item, const Place& place, const ItemRecord& answer, std::uint64_t edits,
               platform::Date began);
  void moved(Item& item, const Place& place, const ItemRecord& answer);
  void sent(Item& item, const ItemRecord& answer, std::uint64_t edits, platform::Date began);
  /// The last edit, `edits`, which `setContent` told of, did not come about after all.
  void editFailed(Item& item, std::uint64_t edits);
  void removedThere(Item& item);
  /// The extension will never take it.
  void refused(Item& item);
  /// The store did not take `item`, whose creation is on its way, for certain: what has its name there is another, however alike.
  void nameIsTaken(Item& item);
  /// Both sides changed `item`: it becomes a new file beside what the store has, under a name that says so if it has not
  /// been moved here. Returns the item that is the store's from now on. REQUIRES: a linked file with contents, there.
  Item& keepBoth(Item& item);
  /// It was removed here while the store got something newer: it is here again.
  void bringBack(Item& item);

 private:
  struct Batch;
  /// An item as the store shows it, and which one it is here; null if it is new.
  struct Sighting {
    const ItemRecord* record;
    Item* item;
  };
  using Kept = std::unordered_set<const Item*>;

  Item& make(ItemId id, bool isFolder);
  void note(Item& item);
  void forget(Item& item);
  /// What a row said beside what its item says.
  struct RestoredItem {
    ItemId id;
    ItemId folder;
    ItemId thereFolder;  // 0 for none
    bool isLinked;
  };
  void restoreLinks(const std::vector<RestoredItem>& items);
  void restoreThere(const std::vector<RestoredItem>& items);
  void restoreAwaited(const std::map<ItemId, Place>& places);
  void mend(const RestoredItem& restored, const std::set<ItemId>& open);

  // Both sides' places of every item go through these.
  void attach(Item& item, Item& folder, const std::string& name);
  void detach(Item& item);
  void setThere(Item& item, const std::optional<ThereState>& there);
  void setSideThere(Item& item, const ThereState& there);
  void setSideThere(Item& item, const ThereState& there, std::string_view nameHere);
  void forgetThere(Item& item);
  void await(Item& item, std::optional<Place> place);
  void askAgain(Item& folder);
  void leavePlaceThere(const Item& item);
  void enterPlaceThere(const Item& item);

  void link(Item& item, Item& folder, const std::string& name, bool tellKernel);
  void unlink(Item& item, bool tellKernel);
  void touch(Item& folder, bool tellKernel);
  void takeOver(Item& item);
  Item& leaveOwnThere(Item& item);
  void setChanged(Item& item);
  static bool hasUnseen(const Item& item);
  void unlinkAndLeave(Item& item);
  void doubtWhatWasMissed(const Item& item, const Place& place, const std::string& identifier);
  std::string freeNameFor(const Item& folder, const std::string& name) const;
  std::string nameIn(const Item& folder, const std::string& name) const;
  void detachVersion(Item& item);
  void releaseContent(Item& item, bool rescue);
  static void contentsAreChanged(ContentRow& row);
  static void contentsAreThere(ContentRow& row, std::uint64_t edits, const std::string& version);
  void markStale(Item& folder);
  void left(ItemId place, std::uint64_t asOf);
  void expectToldOf(ItemId folder, const std::string& identifier, bool isInFolder);
  static void hearOf(Item& folder, const std::vector<const ReportedChange*>& changes);
  static void forgetUntold(Item& folder, std::uint64_t asOf);
  static bool hasUntold(const Item& folder, std::uint64_t asOf);
  bool isReplacedThere(const Item& item, const std::string& identifier) const;
  void displace(const Place& place, const std::string& identifier, const Item& by);
  std::vector<Item*> childrenThere(const Item& folder) const;

  // What the store says.
  static bool mayHavePassedOver(const Item& folder, const std::vector<Item*>& before,
                                const Batch& batch);
  bool isChangedSince(const Item& item, const Batch& batch) const;
  bool isOld(const Item& item, const Batch& batch) const;
  bool isThereWithin(ItemId place, const Item& folder) const;
  bool holdsOld(const Item& item, const Batch& batch) const;
  bool holdsOld(const Item& item, const Item& top, const Batch& batch) const;
  bool isCurrent(const Item& folder, const Batch& batch) const;
  void doubt(const Item& folder, Batch& batch);
  const char* whyNotShown(const Item& folder, const ItemRecord& record, const Batch& batch) const;
  std::vector<Sighting> recognise(const Item& folder, const std::vector<const ItemRecord*>& records,
                                  Batch& batch);
  Item* inItsPlace(const Item& folder, const ItemRecord& record, const Batch& batch);
  std::vector<Item*> awaitedAt(const Place& place) const;
  bool isWhatWasAwaited(Item& item, const ItemRecord& record);
  bool endWaits(const Item& folder, std::uint64_t asOf, const Kept& seen);
  void foundThere(Item& item, const Item& folder, const ItemRecord& record);
  void bringIn(Item& folder, const std::vector<Sighting>& sightings, const std::vector<Item*>& gone,
               Batch& batch);
  bool isNews(const Item& folder, const Sighting& sighting, const Batch& batch) const;
  void leaveOldPlace(Item& item, const Item& folder, const ItemRecord& record, Batch& batch);
  void returnLeft(const Batch& batch);
  bool mayBeKnown(const Item& folder, const std::string& name, const Batch& batch) const;
  void applyNew(Item& folder, const ItemRecord& record, Batch& batch);
  void applyToKnown(Item& item, Item& folder, const ItemRecord& record, Batch& batch);
  bool adoptNamed(Item& named, const Item& folder, const ItemRecord& record);
  void makeRoom(Item& folder, const std::string& name);
  void applyContents(Item& item, const ItemRecord& record);
  bool adopt(Item& item, const ItemRecord& record);
  bool goneThere(Item& item, Batch& batch);
  void believeGone(Item& item, bool rescue, const Kept& kept);
  void holdOrBelieve(Item& folder, const std::vector<Item*>& gone, Batch& batch);
  void sendAgain(Item& item);

  const Setting setting_;
  ItemId nextItem_ = kRootItem;
  std::uint64_t moment_ = 0;
  ItemIndex<ByNumber, std::unique_ptr<Item>> items_;
  Item* root_ = nullptr;
  /// Those that are linked here.
  ItemIndex<ByName> byName_;
  /// Those that are sure. Whoever was told last to have an identifier has it.
  ItemIndex<ByIdentifier> byIdentifier_;
  /// Items whose place there is not their place here. Two may have one place there, while what the store said is old.
  std::set<std::pair<Place, ItemId>> astray_;
  std::set<ItemId> differing_;
  std::set<ItemId> held_;
  std::set<ItemId> conflictCopies_;
  /// Told to be gone while changes were on their way whose answers will say who that was.
  std::set<std::string> goneMeanwhile_;
  std::size_t underWay_ = 0;
  /// Items by the place where they are awaited, whatever becomes of them here meanwhile.
  std::set<std::pair<Place, ItemId>> awaited_;
  TreeEffects effects_;
  /// Between the first row of an earlier mount and `endRestore`.
  std::vector<RestoredItem> restoring_;
  std::map<ItemId, Place> restoringAwaited_;
  bool isRestoring_ = false;
};

/// The record as the item's side there.
ThereState thereStateOf(const ItemRecord& record, ItemId folder);

}  // namespace kestrune::host
