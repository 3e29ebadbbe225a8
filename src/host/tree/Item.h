// One file or folder in the host's memory: what it is here, what it is known to be at the store, and what hangs on it.
//
// The two sides are independent: an item may be here alone (made here, not sent yet), there alone (removed here, the store
// does not know), or on both with different places and contents. What is to be sent is the difference; nothing else is
// remembered as "to do".
//
// Threads: the lock of whoever owns the tree guards every item.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "host/basics/Place.h"
#include "host/content/FileObject.h"
#include "host/store/ItemRow.h"

namespace kestrune::host {

struct Item;

/// The part of a folder.
struct FolderPart {
  FolderRow listing;
  /// Linked here; the number is also the place in the order in which names are read, so that names which come or go
  /// meanwhile neither repeat nor hide others.
  std::map<ItemId, Item*> children;
  std::unordered_map<std::string_view, Item*> byName;
  /// When it was last listed as a whole, as Tree::moment tells.
  std::uint64_t listedAt = 0;
  /// When something was last known to have left it there. Who was asked earlier may show that still, though nobody knows
  /// any more what it was.
  std::uint64_t leftAt = 0;
};

struct Item {
  Item(ItemId number, bool folder) : id(number), isFolder(folder) {
    if (folder) part = std::make_unique<FolderPart>();
  }
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  const ItemId id;
  const bool isFolder;

  // Here.
  /// Null for the root, and for an item that has no name here any more.
  Item* folder = nullptr;
  std::string name;
  bool isExecutable = false;
  /// The extension does not take it: it is kept here and never sent.
  bool staysHere = false;
  std::int64_t sizeBytes = 0;
  FileTime accessed;
  FileTime modified;
  FileTime changed;

  // There; the root always is.
  std::optional<ThereState> there;

  /// Where a change of it that began may have put it, until the store has told.
  std::unique_ptr<const Place> awaited;

  // Files that have contents here.
  std::unique_ptr<ContentRow> content;
  /// Made when it is first opened; shared with who has it open.
  FileObjectPtr object;

  // Folders.
  std::unique_ptr<FolderPart> part;

  // For the time of this mount.
  /// What the kernel calls its present version; 0 if it knows none.
  NodeId node = 0;
  /// When its side there was last changed by a change sent from here, as Tree::moment tells. What a listing that began
  /// earlier says of it is old.
  std::uint64_t sentAt = 0;
  /// When the store was asked that last told its place there. Folders are asked one by one: another one's earlier answer may
  /// come later, and still shows it, or misses it.
  std::uint64_t placedAt = 0;
  /// How often in a row it was sent and then not shown.
  std::uint8_t timesLost = 0;
  /// Its contents are being given up here, by who has set this and ends it.
  bool isBeingEvicted = false;
  /// A change of it is on its way to the store.
  bool isUnderWay = false;
  std::uint64_t begunAt = 0;
  /// When this host last sent its contents, by the tree's clock, since 1970.
  std::int64_t uploadedSeconds = 0;

  bool isRoot() const { return id == kRootItem; }
  bool isLinked() const { return folder != nullptr || isRoot(); }
  bool isEdited() const { return content && content->state.edits != content->sentEdits; }
  /// All of its bytes are on the local disk, and stay there.
  bool isWhole() const { return content && content->state.isWhole() && !isBeingEvicted; }
};

}  // namespace kestrune::host
