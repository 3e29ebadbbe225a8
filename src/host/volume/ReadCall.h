// One read of a program. A file that moves at the store while it is fetched may be asked for in the place that it has just
// left: then it is asked for again, so that nobody is told that a file is gone which was only renamed.
//
// Threads: any; the answer comes on any.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "host/front/Dispatcher.h"
#include "host/volume/FolderLister.h"

namespace kestrune::host {

class ReadCall : public std::enable_shared_from_this<ReadCall> {
 public:
  /// A file that is moving is asked for again after a pause of the lister's, so often.
  static constexpr int kMostAttempts = 100;

  /// What is read, as Dispatcher::read says. REQUIRES: `file` was opened by a volume.
  struct Range {
    std::int64_t offset;
    std::size_t length;
  };
  ReadCall(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister, OpenFilePtr file,
           Range range, Reply<LocalFilePtr> reply);

  /// Once.
  void begin();

 private:
  struct Whereabouts {
    /// At the store; none if it is not there.
    std::optional<platform::NSFileProviderItemIdentifier> identifier;
    bool isMoving = false;
    /// The highest folder above it whose items' identifiers are to be found out; 0 for none.
    ItemId staleFolder = 0;
  };
  Whereabouts whereabouts() const;
  /// Of the folder, if it is not 0.
  void readAfterListing(ItemId folder);
  void read();
  bool hasMoved(const platform::NSError& error);

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<FolderLister> lister_;
  const OpenFilePtr file_;
  const Range range_;
  const Reply<LocalFilePtr> reply_;
  /// Where it was when the call began. One step follows the other, so nothing guards these.
  Whereabouts first_;
  int attempts_ = 0;
};

}  // namespace kestrune::host
