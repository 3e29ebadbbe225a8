// How a host asks about one folder: its content, what changed in it, and how far the changes have
// come.
//
// Call order towards an observer: (didEnumerateItems)* then exactly one finish call; or (didDelete
// | didUpdate)* then exactly one finish call. Nothing follows the finish call.
//
// Threads: methods may be called from any thread and return at once; observers are called from any
// thread, also before the method returns, one call at a time. An observer is kept alive until its
// finish call has returned.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {

class NSFileProviderEnumerationObserver {
 public:
  virtual ~NSFileProviderEnumerationObserver() = default;
  virtual void didEnumerateItems(std::vector<NSFileProviderItemPtr> updatedItems) = 0;
  /// Ends a page; no `nextPage` means that everything has been said.
  virtual void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) = 0;
  virtual void finishEnumeratingWithError(NSErrorPtr error) = 0;
};

class NSFileProviderChangeObserver {
 public:
  virtual ~NSFileProviderChangeObserver() = default;
  virtual void didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) = 0;
  virtual void didDeleteItemsWithIdentifiers(
      std::vector<NSFileProviderItemIdentifier> deletedItemIdentifiers) = 0;
  virtual void finishEnumeratingChangesUpToSyncAnchor(NSFileProviderSyncAnchor anchor,
                                                      bool moreComing) = 0;
  virtual void finishEnumeratingWithError(NSErrorPtr error) = 0;
};

class NSFileProviderEnumerator {
 public:
  virtual ~NSFileProviderEnumerator() = default;
  /// The host is done with this enumerator; running enumerations still end with their finish call.
  virtual void invalidate() = 0;
  virtual void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                              NSFileProviderPage page) = 0;
  virtual void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                                NSFileProviderSyncAnchor anchor) = 0;
  virtual void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) = 0;
};

}  // namespace kestrune::platform
