// The observers that the console hands to enumerators: they print what they are told. Threads: any.
#pragma once

#include "companion/console/ConsoleCall.h"
#include "platform/file_provider/NSFileProviderEnumerator.h"

namespace kestrune {

class ConsoleEnumerationObserver : public platform::NSFileProviderEnumerationObserver {
 public:
  explicit ConsoleEnumerationObserver(ConsoleCall::ReplyPtr reply) : reply_(std::move(reply)) {}
  void didEnumerateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override;
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override;
  void finishEnumeratingWithError(platform::NSErrorPtr error) override;

 private:
  const ConsoleCall::ReplyPtr reply_;
};

class ConsoleChangeObserver : public platform::NSFileProviderChangeObserver {
 public:
  explicit ConsoleChangeObserver(ConsoleCall::ReplyPtr reply) : reply_(std::move(reply)) {}
  void didUpdateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override;
  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> deletedItemIdentifiers) override;
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override;
  void finishEnumeratingWithError(platform::NSErrorPtr error) override;

 private:
  const ConsoleCall::ReplyPtr reply_;
};

}  // namespace kestrune
