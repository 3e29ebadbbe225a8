// What an extension, or the person who works with the folder, may ask of the contents here: that they go, or that they come.
//
// It exists before the volume does, since an extension asks for its manager when it is made. Until `attach`, and after
// `detach`, every request fails with NSFileProviderError.providerDomainTemporarilyUnavailable.
//
// Contents go only if nothing is lost with them and nobody uses them. Each refusal names the item:
//   noSuchItem            nothing here has this identifier
//   unsyncedEdits         it has changes that the store does not have, or is not at the store at all
//   nonEvictable          a program has it open, or it is being fetched
//   nonEvictableChildren  a folder, of which something could not go; the rest is gone
// That an item is to be kept here is no reason to refuse: who asks knows that, and ends it.
//
// Threads: every operation may be called from any thread; the work runs on the disk's threads, replies come on any thread.
#pragma once

#include <memory>
#include <vector>

#include "host/volume/Contents.h"
#include "host/volume/Refresher.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Manager final : public platform::NSFileProviderManager,
                      public std::enable_shared_from_this<Manager> {
 public:
  void attach(std::shared_ptr<Volume> volume, std::shared_ptr<Contents> contents,
              std::shared_ptr<Refresher> refresher);
  void detach();

  void evictItem(platform::NSFileProviderItemIdentifier identifier,
                 Handler completionHandler) override;
  /// A range is that of a file; of a folder all files that are known below it come.
  void requestDownloadForItem(platform::NSFileProviderItemIdentifier identifier,
                              std::optional<platform::NSRange> range,
                              Handler completionHandler) override;
  void signalEnumerator(platform::NSFileProviderItemIdentifier container,
                        Handler completionHandler) override;

 private:
  struct Parts {
    std::shared_ptr<Volume> volume;
    std::shared_ptr<Contents> contents;
    std::shared_ptr<Refresher> refresher;
    explicit operator bool() const { return volume != nullptr; }
  };
  Parts parts();

  platform::Mutex mutex_;
  Parts parts_ GUARDED_BY(mutex_);
};

/// Why the file's contents cannot go; null if they can. REQUIRES: the volume's lock.
platform::NSErrorPtr whyNotEvictable(const Tree& tree, const Item& item);
/// Drops the contents of a file; null, or why not, as above. Blocks for the local disk.
platform::NSErrorPtr evictContents(Volume& volume, const Contents& contents, ItemId file);
/// Fetches what is missing of a file, and tells the kernel what it takes up then: no program has read it.
void fillContents(const std::shared_ptr<Volume>& volume, const Contents& contents, ItemId file,
                  Reply<Done> reply);
/// The files at and below `item` that are known and have a name here.
std::vector<ItemId> filesBelow(Volume& volume, ItemId item);

}  // namespace kestrune::host
