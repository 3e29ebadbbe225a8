// The file objects of a volume: made when a file is opened or sent, fed with what the volume knows of their items, and their
// news brought back into it.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <functional>
#include <memory>

#include "host/volume/Volume.h"

namespace kestrune::host {

class Contents {
 public:
  /// Told when contents begin (+1) or end (-1) to be fetched, and when an item's folder must be enumerated anew.
  struct Listener {
    std::function<void(ItemId item, int step)> fetching;
    std::function<void(ItemId folder)> doubtful;
    /// The store answered, or could not be reached.
    std::function<void(const platform::NSErrorPtr& error)> reached;
    /// Some contents here are more or less than they were.
    std::function<void()> changed;
  };
  Contents(std::shared_ptr<Volume> volume, const Listener& listener);

  /// The item's object. REQUIRES: called with the volume's lock; a file.
  FileObjectPtr objectOf(Item& item) const;
  /// An object for contents that are no item's any more, and were open when the host was replaced. Looks at the disk; throws NSPOSIXError.
  FileObjectPtr objectOfGone(ItemId item, ContentState state) const;
  /// An object for a file that was just made here. REQUIRES: as above.
  FileObjectPtr makeEmpty(Tree& tree, Item& item, ContentNumber number) const;
  /// Which edit that file begins with.
  static constexpr std::uint64_t kFirstEdit = 1;

 private:
  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<const FileObjectServices> services_;
};

/// What an object tells of itself, with what is known better of the item. REQUIRES: told by the item's own object.
ContentState withWhatIsKnown(const Item& item, ContentState told);
/// The state of contents of which nothing is here.
ContentState absentState(const Item& item);

}  // namespace kestrune::host
