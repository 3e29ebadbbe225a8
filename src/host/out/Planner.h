// What may go out to the store next: computed from the difference between what items are here and what
// they are known to be there.
//
// An item is created when it is here and not there, moved when its place differs, sent when its contents
// differ, removed when it is there and no longer here. A change is ready when the store would take it as
// things are there now: its folder is there, its name is free, no folder goes into itself; a folder is
// removed when what was moved out of it has left, with all that is still in it. What is ready at one time
// may go side by side.
//
// Where items wait for each other's names in a circle, the one in the way is first moved aside, to a
// name that no user gives.
//
// Plain functions over plain values: no thread, no file, no clock.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/basics/Place.h"

namespace kestrune::host {

/// What the planner knows of an item. The root is none: it is always here and there.
struct OutgoingItem {
  NodeId id = 0;
  bool isFolder = false;
  /// Whether it has a name here.
  bool isLinked = true;
  /// Its place here, or its last one.
  Place here;
  /// Its place there; none if it was never there.
  std::optional<Place> there;
  /// It may be there at another place: a change that would put it there did not tell how it ended.
  bool isAwaited = false;
  /// Counts the changes of its contents here; folders have none.
  std::uint64_t edits = 0;
  /// Up to which of them the contents there are.
  std::uint64_t sentEdits = 0;

  /// Null where it is not there.
  const Place* placeThere() const { return there ? &*there : nullptr; }
  bool isToBeCreated() const { return isLinked && !there; }
  bool isToBeRemoved() const { return !isLinked && (there || isAwaited); }
  bool isToBeMoved() const { return isLinked && there && *there != here; }
  bool isToBeSent() const { return isLinked && there && edits != sentEdits; }
  bool differs() const {
    return isToBeCreated() || isToBeRemoved() || isToBeMoved() || isToBeSent();
  }
};

/// The items, asked one at a time.
class OutgoingView {
 public:
  virtual ~OutgoingView() = default;
  /// Null for the root and for what does not exist.
  virtual const OutgoingItem* find(NodeId id) const = 0;
  /// The item whose place there this is, or may be, linked here or not; null if there is none.
  virtual const OutgoingItem* occupant(const Place& there) const = 0;
};

struct Change {
  enum class Kind {
    create,     // at `to`, with the contents of a file
    move,       // to `to`
    moveAside,  // to `to`, in its folder there; a move follows
    send,       // the contents
    remove,     // with everything below it
  };
  Kind kind;
  NodeId id;
  Place to;  // of create, move and moveAside
  bool operator==(const Change&) const = default;
};

/// Whether a change of the item may begin now, as far as its caller knows: it may be too early.
using MayBegin = std::function<bool(const OutgoingItem& item)>;

/// The changes that may begin now, beside those that are `underWay`, at most `limit` of both. `differing`
/// names all items that differ, those that have waited longest first; items that do not differ are passed
/// over, and those that may not begin are only waited for.
std::vector<Change> readyChanges(const OutgoingView& items, std::span<const NodeId> differing,
                                 std::span<const Change> underWay, std::size_t limit,
                                 const MayBegin& mayBegin = nullptr);

/// The name that `id` has while it is moved aside.
std::string asideName(NodeId id);

}  // namespace kestrune::host
