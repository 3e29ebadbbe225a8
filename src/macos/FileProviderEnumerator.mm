#include "macos/FileProviderEnumerator.h"

#include <utility>
#include <vector>

#include "macos/Errors.h"
#include "macos/ExtensionCalls.h"
#include "macos/FileProviderItem.h"
#include "macos/Retained.h"
#include "macos/Unavailable.h"
#include "macos/Values.h"

namespace kestrune::macos {

namespace {

class EnumerationObserver final : public platform::NSFileProviderEnumerationObserver {
 public:
  explicit EnumerationObserver(id<NSFileProviderEnumerationObserver> observer)
      : observer_(observer) {}

  void didEnumerateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override {
    @autoreleasepool {
      [observer_.get() didEnumerateItems:toPlatform(updatedItems)];
    }
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override {
    @autoreleasepool {
      [observer_.get() finishEnumeratingUpToPage:nextPage ? dataToPlatform(*nextPage) : nil];
    }
  }
  void finishEnumeratingWithError(platform::NSErrorPtr error) override {
    @autoreleasepool {
      [observer_.get() finishEnumeratingWithError:toPlatform(error)];
    }
  }

 private:
  const Retained<id<NSFileProviderEnumerationObserver>> observer_;
};

class ChangeObserver final : public platform::NSFileProviderChangeObserver {
 public:
  explicit ChangeObserver(id<NSFileProviderChangeObserver> observer) : observer_(observer) {}

  void didUpdateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override {
    @autoreleasepool {
      [observer_.get() didUpdateItems:toPlatform(updatedItems)];
    }
  }
  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> deletedItemIdentifiers) override {
    @autoreleasepool {
      NSMutableArray* const identifiers =
          [NSMutableArray arrayWithCapacity:deletedItemIdentifiers.size()];
      for (const auto& identifier : deletedItemIdentifiers)
        [identifiers addObject:identifierToPlatform(identifier)];
      [observer_.get() didDeleteItemsWithIdentifiers:identifiers];
    }
  }
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    @autoreleasepool {
      [observer_.get() finishEnumeratingChangesUpToSyncAnchor:dataToPlatform(anchor)
                                                   moreComing:moreComing];
    }
  }
  void finishEnumeratingWithError(platform::NSErrorPtr error) override {
    @autoreleasepool {
      [observer_.get() finishEnumeratingWithError:toPlatform(error)];
    }
  }

 private:
  const Retained<id<NSFileProviderChangeObserver>> observer_;
};

}  // namespace

}  // namespace kestrune::macos

using kestrune::macos::bytesFrom;

@implementation FileProviderEnumerator

- (instancetype)initWithEnumerator:
    (std::shared_ptr<kestrune::platform::NSFileProviderEnumerator>)enumerator {
  if ((self = [super init])) enumerator_ = std::move(enumerator);
  return self;
}

- (instancetype)init {
  kestrune::macos::endAtUnimplementedInitializer("KestruneFileProvider.FileProviderEnumerator");
}

- (void)invalidate {
  kestrune::macos::invalidate(*enumerator_);
}

- (void)enumerateItemsForObserver:(id<NSFileProviderEnumerationObserver>)observer
                   startingAtPage:(NSFileProviderPage)page {
  kestrune::macos::enumerateItems(*enumerator_,
                                  std::make_shared<kestrune::macos::EnumerationObserver>(observer),
                                  bytesFrom(page));
}

- (void)enumerateChangesForObserver:(id<NSFileProviderChangeObserver>)observer
                     fromSyncAnchor:(NSFileProviderSyncAnchor)syncAnchor {
  kestrune::macos::enumerateChanges(*enumerator_,
                                    std::make_shared<kestrune::macos::ChangeObserver>(observer),
                                    bytesFrom(syncAnchor));
}

- (void)currentSyncAnchorWithCompletionHandler:
    (void (^)(NSFileProviderSyncAnchor currentAnchor))completionHandler {
  using Block = void (^)(NSFileProviderSyncAnchor);
  const kestrune::macos::RetainedBlock<Block> answer(completionHandler);
  kestrune::macos::currentSyncAnchor(
      *enumerator_, [answer](std::optional<kestrune::platform::NSFileProviderSyncAnchor> anchor) {
        @autoreleasepool {
          answer.get()(anchor ? kestrune::macos::dataToPlatform(*anchor) : nil);
        }
      });
}

@end
