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
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/basics/KernelCache.h"
#include "host/in/ItemRecord.h"
#include "host/out/Planner.h"
#include "host/tree/Item.h"

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
  /// Takes the rows of an earlier mount; once, before anything else. Rows that contradict each other are left out, and
  /// their items forgotten; what was removed here and never was there goes too.
  void restore(std::vector<ItemRow> rows, ItemId nextItem);
  ItemId nextItem() const { return nextItem_; }
  ItemRow row(const Item& item) const;
  TreeEffects takeEffects();

  // ---- Asking.
  Item& root() { return *root_; }
  Item* find(ItemId id);
  const Item* find(ItemId id) const;
  Item* child(const Item& folder, std::string_view name) const;
  Item* byIdentifier(const platform::NSFileProviderItemIdentifier& identifier) const;
  /// The item whose place there this is, linked here or not.
  Item* occupant(const Place& there) const;
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
  Item& create(Item& folder, std::string name, bool isFolder, bool isExecutable);
  /// REQUIRES: linked, not the root; a folder is empty.
  void remove(Item& item);
  /// Moves; what has the new name is removed. REQUIRES: linked; `folder` is not within `item`; what has the name is
  /// of the same kind, and empty if it is a folder.
  void move(Item& item, Item& folder, std::string name);
  /// REQUIRES: both linked, neither within the other.
  void exchange(Item& a, Item& b);
  /// The item's times, executable bit or size here were set by the caller.
  void changedHere(Item& item);
  /// The item's contents are in this state; `item.content` is made if there is none.
  void setContent(Item& item, const ContentState& state);
  /// The item has no contents here any more.
  void dropContent(Item& item);
  /// Nobody has the item open any more: forgets one that is neither here nor there.
  void forgetIfGone(Item& item);
  /// A new version for the kernel; the old one is reported as detached.
  void succeed(Item& item);

  // ---- What the store says. `asOf` is the moment when it was asked.
  std::uint64_t moment() { return ++moment_; }
  /// `items` are the whole content of `folder`.
  void applyListing(Item& folder, const std::vector<ItemRecord>& items,
                    std::optional<platform::NSFileProviderSyncAnchor> anchor, std::uint64_t asOf);
  void applyChanges(Item& folder, const std::vector<ReportedChange>& changes,
                    platform::NSFileProviderSyncAnchor anchor, std::uint64_t asOf);
  /// One item was asked for: what it is, or that it is not there.
  void applyItem(Item& item, const std::optional<ItemRecord>& record, std::uint64_t asOf);
  void setPolicy(Item& item, platform::NSFileProviderContentPolicy policy);
  std::vector<ItemId> heldDeletions() const;
  /// Believes the held deletions, or sends what they would take away to the store again.
  void settleHeldDeletions(bool believe);

  // ---- What is sent.
  const std::set<ItemId>& differing() const { return differing_; }
  /// The view of the planner.
  std::unique_ptr<OutgoingView> outgoing() const;
  static OutgoingItem outgoingItem(const Item& item);
  static bool differs(const Item& item);
  /// A change of the item is on its way; with contents of `bytes` at `edits`, where it carries any.
  void beginChange(Item& item);
  void beginSending(Item& item, std::int64_t bytes, std::uint64_t edits);
  /// However it ended. What it did is told by the next operations, before this one.
  void endChange(Item& item);
  /// The store took `item` at `place`; `answer` is what the extension says of it, `began` when the sending began.
  void created(Item& item, const Place& place, const ItemRecord& answer, std::uint64_t edits,
               platform::Date began);
  void moved(Item& item, const Place& place, const ItemRecord& answer);
  void sent(Item& item, const ItemRecord& answer, std::uint64_t edits, platform::Date began);
  void removedThere(Item& item);
  /// The extension will never take it.
  void refused(Item& item);
  /// Both sides changed `item`: its contents here become a file beside it, under a name that says so, and it is
  /// what the store has from now on. Returns the new one.
  Item& keepBoth(Item& item);
  /// It was removed here while the store got something newer: it is here again.
  void bringBack(Item& item);

 private:
  struct Batch;
  Item& make(ItemId id, bool isFolder);
  void note(Item& item);
  void link(Item& item, Item& folder, std::string name, bool tellKernel);
  void unlink(Item& item, bool tellKernel);
  void touch(Item& folder, bool tellKernel);
  void forget(Item& item);
  void setThere(Item& item, std::optional<ThereState> there);
  void forgetThere(Item& item) { setThere(item, std::nullopt); }
  void takeOver(Item& item);
  std::string freeNameFor(const Item& folder, const std::string& name) const;
  void detachVersion(Item& item);
  void releaseContent(Item& item, bool rescue);

  // What the store says.
  const char* whyNotShown(const Item& folder, const ItemRecord& record, const Batch& batch) const;
  Item* match(Item& folder, const ItemRecord& record, const Batch& batch) const;
  void applyRecord(Item& folder, const ItemRecord& record, Batch& batch);
  void applyToKnown(Item& item, Item& folder, const ItemRecord& record, Batch& batch);
  void applyContents(Item& item, const ItemRecord& record);
  bool adopts(const Item& item, const ItemRecord& record) const;
  bool makeRoom(Item& folder, const std::string& name, const ItemRecord& record, Batch& batch);
  void goneThere(Item& item, Batch& batch);
  using Kept = std::unordered_set<const Item*>;
  void believeGone(Item& item, bool rescue, const Kept& kept);
  void leaveOldPlace(Item& item, const Item& folder, const ItemRecord& record, Batch& batch);
  void holdOrBelieve(Item& folder, const std::vector<Item*>& gone, Batch& batch);
  void returnLeft(Batch& batch);
  bool isOld(const Item& item, const Batch& batch) const;
  std::vector<Item*> childrenThere(const Item& folder) const;
  void markStale(Item& folder);

  const Setting setting_;
  ItemId nextItem_ = kRootItem;
  std::uint64_t moment_ = 0;
  std::unordered_map<ItemId, std::unique_ptr<Item>> items_;
  Item* root_ = nullptr;
  std::unordered_map<std::string_view, Item*> byIdentifier_;  // views of there->identifier
  /// Items whose place there is not their place here.
  std::map<Place, Item*> astray_;
  std::set<ItemId> differing_;
  std::set<ItemId> held_;
  TreeEffects effects_;
};

/// The record as the item's side there.
ThereState thereStateOf(const ItemRecord& record, ItemId folder);

}  // namespace kestrune::host
