// One file or folder in the host's memory: what it is here, what it is known to be at the store, and what hangs on it.
//
// The two sides are independent: an item may be here alone (made here, not sent yet), there alone (removed here, the store
// does not know), or on both with different places and contents. What is to be sent is the difference; nothing else is
// remembered as "to do".
//
// A mounted folder may have a million of them, most of which are only listed: what such an item needs is in 72 bytes and one block for
// its texts, and what others have beside that is in a part of its own, made when it is first set.
//
// Threads: the lock of whoever owns the tree guards every item.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/basics/Place.h"
#include "host/content/FileObject.h"
#include "host/store/ItemRow.h"
#include "host/tree/ChildList.h"
#include "host/tree/There.h"

namespace kestrune::host {

/// What is known of an item of a folder there otherwise than by what is told of the folder: because it was sent from here, or the
/// item itself was asked for.
struct UntoldChange {
  bool isInFolder = false;
  /// Since when, as Tree::moment tells.
  std::uint64_t endedAt = 0;
};

/// The part of a folder.
struct FolderPart {
  FolderRow listing;
  /// Linked here; the number is also the place in the order in which names are read, so that names which come or go
  /// meanwhile neither repeat nor hide others.
  ChildList children;
  /// What the identifiers of its items begin with, as last told.
  IdentifierPrefixPtr prefix;
  /// When it was last listed as a whole, as Tree::moment tells.
  std::uint64_t listedAt = 0;
  /// When something was last known to have left it there. Who was asked earlier may show that still, though nobody knows
  /// any more what it was.
  std::uint64_t leftAt = 0;
  /// By identifier, until it is told. Stores that compare two listings never tell of what others have undone between them;
  /// then only a whole listing can.
  std::map<std::string, UntoldChange, std::less<>> untold;
};

/// A FileTime in twelve bytes.
class PackedTime {
 public:
  PackedTime() = default;
  explicit PackedTime(FileTime time)
      : high_(static_cast<std::uint32_t>(static_cast<std::uint64_t>(time.seconds) >> 32U)),
        low_(static_cast<std::uint32_t>(time.seconds)),
        nanoseconds_(time.nanoseconds) {}
  FileTime time() const {
    const std::uint64_t seconds = static_cast<std::uint64_t>(high_) << 32U | low_;
    return {static_cast<std::int64_t>(seconds), nanoseconds_};
  }

 private:
  std::uint32_t high_ = 0;
  std::uint32_t low_ = 0;
  std::int32_t nanoseconds_ = 0;
};

struct ItemTimes {
  FileTime accessed;
  FileTime modified;
  FileTime changed;
};

struct Item {
 public:
  Item(ItemId number, bool folder);
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  const ItemId id;

  // Here.
  /// Null for the root, and for an item that has no name here any more.
  Item* folder = nullptr;
  std::int64_t sizeBytes = 0;

  // There; the root always is.
  There there;

  // For the time of this mount.
  /// What the kernel calls its present version; 0 if it knows none.
  NodeId node = 0;
  /// When the store was asked that last told its place there. Folders are asked one by one: another one's earlier answer may
  /// come later, and still shows it, or misses it.
  std::uint64_t placedAt = 0;

  // Here and there.
  const bool isFolder : 1;
  bool isExecutable : 1 = false;
  /// The extension does not take it: it is kept here and never sent.
  bool staysHere : 1 = false;
  /// Its contents are being given up here, by who has set this and ends it.
  bool isBeingEvicted : 1 = false;
  /// How often in a row it was sent and then not shown.
  std::uint8_t timesLost = 0;
  /// A change of it is on its way to the store.
  bool isUnderWay = false;

  bool isRoot() const { return id == kRootItem; }
  bool isLinked() const { return folder != nullptr || isRoot(); }
  bool isEdited() const;
  /// Its place here is the one that it has there. REQUIRES: there is set.
  bool isAtPlaceThere() const;
  /// All of its bytes are on the local disk, and stay there.
  bool isWhole() const;

  /// Its name here, or its last one; seen until the item changes.
  Text name() const { return there.nameHere(); }
  FileTime modified() const { return modified_.time(); }
  ItemTimes times() const;
  void setTimes(const ItemTimes& times);

  /// Null for a file.
  FolderPart* part() const { return work_ ? work_->part.get() : nullptr; }
  /// Of files that have contents here; else null.
  ContentRow* content() const { return work_ ? work_->content.get() : nullptr; }
  /// Null drops it.
  void setContent(std::unique_ptr<ContentRow> content);
  /// Made when it is first opened; shared with who has it open.
  const FileObjectPtr& object() const;
  void setObject(FileObjectPtr object);

  /// Where a change of it that began may have put it, until the store has told; else null.
  const Place* awaited() const { return work_ ? work_->awaited.get() : nullptr; }
  void setAwaited(std::optional<Place> place);
  /// When its side there was last changed by a change sent from here, as Tree::moment tells. What a listing that began
  /// earlier says of it is old.
  std::uint64_t sentAt() const { return work_ ? work_->sentAt : 0; }
  void setSentAt(std::uint64_t moment);
  /// When the last change of it began.
  std::uint64_t begunAt() const { return work_ ? work_->begunAt : 0; }
  void setBegunAt(std::uint64_t moment) { work().begunAt = moment; }
  /// When this host last sent its contents, by the tree's clock, since 1970.
  std::int64_t uploadedSeconds() const { return work_ ? work_->uploadedSeconds : 0; }
  void setUploadedSeconds(std::int64_t seconds) { work().uploadedSeconds = seconds; }

 private:
  /// What only folders have, and files that are open, changed or sent, or have contents here.
  struct Work {
    std::unique_ptr<FolderPart> part;
    std::unique_ptr<ContentRow> content;
    FileObjectPtr object;
    std::unique_ptr<const Place> awaited;
    std::uint64_t sentAt = 0;
    std::uint64_t begunAt = 0;
    std::int64_t uploadedSeconds = 0;
    /// Where they differ from the modification.
    std::optional<ItemTimes> times;
    bool isEmpty() const;
  };
  Work& work();
  void dropEmptyWork();

  PackedTime modified_;
  std::unique_ptr<Work> work_;
};

}  // namespace kestrune::host
