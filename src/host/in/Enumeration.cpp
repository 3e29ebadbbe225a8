#include "host/in/Enumeration.h"

#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/OnceReply.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderEnumerator;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderPage;
using platform::NSFileProviderSyncAnchor;
using platform::NSPOSIXError;

NSErrorPtr tooManyItems() {
  return NSPOSIXError(EOVERFLOW, "the folder reports more items than can be shown").share();
}

// One page after the other of one enumeration.
class ItemGatherer final : public platform::NSFileProviderEnumerationObserver,
                           public std::enable_shared_from_this<ItemGatherer> {
 public:
  ItemGatherer(std::shared_ptr<NSFileProviderEnumerator> enumerator,
               std::optional<NSFileProviderSyncAnchor> anchor, Reply<Listing> reply)
      : enumerator_(std::move(enumerator)), reply_(std::move(reply)) {
    listing_.anchor = std::move(anchor);
  }

  void ask(NSFileProviderPage page) {
    page_ = page;
    enumerator_->enumerateItems(shared_from_this(), std::move(page));
  }

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    if (overflown_ || listing_.items.size() + updatedItems.size() > kMostItems) {
      overflown_ = true;
      return;
    }
    for (auto& item : updatedItems) {
      listing_.items.push_back(ItemRecord::from(*item));
      listing_.described.push_back(std::move(item));
    }
  }

  void finishEnumeratingUpToPage(std::optional<NSFileProviderPage> nextPage) override {
    if (overflown_) {
      finishEnumeratingWithError(tooManyItems());
    } else if (!nextPage) {
      endListing();
    } else if (*nextPage == page_) {
      finishEnumeratingWithError(NSPOSIXError(ELOOP, "the folder's pages do not end").share());
    } else {
      // Not from here: an extension that answers at once would make the stack grow with every page.
      boost::asio::post(platform::sharedExecutor(),
                        [self = shared_from_this(), next = std::move(*nextPage)]() mutable {
                          self->ask(std::move(next));
                        });
    }
  }

  void finishEnumeratingWithError(NSErrorPtr error) override {
    enumerator_->invalidate();
    reply_.answer(std::move(error));
  }

 private:
  void endListing() {
    const bool isInPages = page_ != platform::NSFileProviderInitialPageSortedByName;
    if (!isInPages || !listing_.anchor) return answer();
    enumerator_->currentSyncAnchor(
        [self = shared_from_this()](const std::optional<NSFileProviderSyncAnchor>& now) {
          self->listing_.mayHaveGaps = now != self->listing_.anchor;
          self->answer();
        });
  }

  void answer() {
    enumerator_->invalidate();
    reply_.answer(std::move(listing_));
  }

  const std::shared_ptr<NSFileProviderEnumerator> enumerator_;
  const OnceReply<Listing> reply_;
  // Used by one call of the extension at a time.
  NSFileProviderPage page_;
  Listing listing_;
  bool overflown_ = false;
};

class ChangeGatherer final : public platform::NSFileProviderChangeObserver {
 public:
  ChangeGatherer(std::shared_ptr<NSFileProviderEnumerator> enumerator, Reply<ChangeSet> reply)
      : enumerator_(std::move(enumerator)), reply_(std::move(reply)) {}

  void didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    if (!fits(updatedItems.size())) return;
    for (auto& item : updatedItems) {
      gathered_.changes.push_back({ReportedChange::Kind::update, ItemRecord::from(*item)});
      gathered_.described.push_back(std::move(item));
    }
  }

  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> deleted) override {
    if (!fits(deleted.size())) return;
    for (auto& identifier : deleted) {
      ItemRecord item;
      item.identifier = std::move(identifier);
      gathered_.changes.push_back({ReportedChange::Kind::deletion, std::move(item)});
    }
  }

  void finishEnumeratingChangesUpToSyncAnchor(NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    if (overflown_) {
      finishEnumeratingWithError(tooManyItems());
      return;
    }
    enumerator_->invalidate();
    gathered_.anchor = std::move(anchor);
    gathered_.moreComing = moreComing;
    reply_.answer(std::move(gathered_));
  }

  void finishEnumeratingWithError(NSErrorPtr error) override {
    enumerator_->invalidate();
    reply_.answer(std::move(error));
  }

 private:
  bool fits(std::size_t more) {
    overflown_ = overflown_ || gathered_.changes.size() + more > kMostItems;
    return !overflown_;
  }

  const std::shared_ptr<NSFileProviderEnumerator> enumerator_;
  const OnceReply<ChangeSet> reply_;
  // Used by one observer call at a time.
  ChangeSet gathered_;
  bool overflown_ = false;
};

// Runs `use` with a new enumerator of `folder` on the executor; if there is none, `fail` gets the reason.
void withEnumerator(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                    std::function<void(std::shared_ptr<NSFileProviderEnumerator>)> use,
                    std::function<void(NSErrorPtr)> fail) {
  auto work = [extension = std::move(extension), folder = std::move(folder), use = std::move(use),
               fail = std::move(fail)] {
    std::shared_ptr<NSFileProviderEnumerator> enumerator;
    NSErrorPtr error;
    try {
      enumerator = extension->enumerator(folder, {.isSystemRequest = true});
    } catch (const platform::NSError& thrown) {
      error = thrown.share();
    }
    if (error) {
      fail(std::move(error));
    } else {
      use(std::move(enumerator));
    }
  };
  boost::asio::post(platform::sharedExecutor(), std::move(work));
}

}  // namespace

void enumerateFolder(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                     Reply<Listing> reply) {
  auto use = [reply](const std::shared_ptr<NSFileProviderEnumerator>& enumerator) {
    auto withAnchor = [enumerator, once = OnceReply<Listing>(reply)](
                          std::optional<NSFileProviderSyncAnchor> anchor) {
      auto gatherer = std::make_shared<ItemGatherer>(enumerator, std::move(anchor), once.take());
      gatherer->ask(platform::NSFileProviderInitialPageSortedByName);
    };
    enumerator->currentSyncAnchor(std::move(withAnchor));
  };
  withEnumerator(std::move(extension), std::move(folder), std::move(use), std::move(reply));
}

void enumerateFolderChanges(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                            NSFileProviderSyncAnchor anchor, Reply<ChangeSet> reply) {
  auto use = [reply, anchor = std::move(anchor)](
                 const std::shared_ptr<NSFileProviderEnumerator>& enumerator) {
    enumerator->enumerateChanges(std::make_shared<ChangeGatherer>(enumerator, reply), anchor);
  };
  withEnumerator(std::move(extension), std::move(folder), std::move(use), std::move(reply));
}

void askSyncAnchor(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                   Reply<std::optional<NSFileProviderSyncAnchor>> reply) {
  auto use = [reply](const std::shared_ptr<NSFileProviderEnumerator>& enumerator) {
    auto answered = [enumerator, once = OnceReply<std::optional<NSFileProviderSyncAnchor>>(reply)](
                        std::optional<NSFileProviderSyncAnchor> anchor) {
      enumerator->invalidate();
      once.answer(std::move(anchor));
    };
    enumerator->currentSyncAnchor(std::move(answered));
  };
  withEnumerator(std::move(extension), std::move(folder), std::move(use), std::move(reply));
}

}  // namespace kestrune::host
