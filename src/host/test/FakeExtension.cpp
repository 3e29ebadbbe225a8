// The extension of the remote store in memory.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

#include "host/test/FakeItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Directories.h"
#include "platform/values/UUID.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemPtr;

// A sparse file of the whole length in which a part is present.
std::filesystem::path fileWithPart(const std::string& contents, platform::NSRange part) {
  auto url = platform::temporaryDirectory() / platform::newUUIDString();
  std::ofstream file(url, std::ios::binary);
  file.seekp(part.location);
  file.write(contents.data() + part.location, part.length);
  file.close();
  std::filesystem::resize_file(url, contents.size());
  return url;
}

}  // namespace

class FakeEnumerator final : public platform::NSFileProviderEnumerator {
 public:
  FakeEnumerator(std::shared_ptr<FakeRemote> remote, std::string folder)
      : remote_(std::move(remote)), folder_(std::move(folder)) {}

  void invalidate() override {}

  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage page) override {
    if (page != platform::NSFileProviderInitialPageSortedByName) {
      givePage(observer, std::stoul(page));
      return;
    }
    auto self = FakeEnumerator(remote_, folder_);
    const auto taken = std::make_shared<std::optional<Listed>>();
    remote_->answerLater(
        Ask::items, folder_,
        [self, observer, taken](const NSErrorPtr& error) {
          if (error) {
            observer->finishEnumeratingWithError(error);
          } else {
            self.givePage(observer, 0, *taken);
          }
        },
        [self, taken] { *taken = self.listNow(); });
  }

  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override {
    auto self = FakeEnumerator(remote_, folder_);
    const auto taken = std::make_shared<std::optional<Listed>>();
    remote_->answerLater(
        Ask::changes, folder_,
        [self, observer, anchor, taken](const NSErrorPtr& error) {
          if (error) {
            observer->finishEnumeratingWithError(error);
          } else {
            self.giveChanges(*observer, anchor, *taken);
          }
        },
        [self, taken] { *taken = self.listNow(); });
  }

  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override {
    completionHandler(remote_->anchor());
  }

 private:
  // What there is at a moment; no items if the folder is not there.
  struct Listed {
    std::uint64_t time = 0;
    std::optional<std::vector<RemoteItem>> items;
  };
  Listed listNow() const {
    MutexLock lock(remote_->mutex_);
    Listed listed{remote_->time_, std::nullopt};
    const auto found = remote_->folders_.find(folder_);
    if (found != remote_->folders_.end()) listed.items = found->second.items;
    return listed;
  }

  void givePage(const std::shared_ptr<platform::NSFileProviderEnumerationObserver>& observer,
                std::size_t from, const std::optional<Listed>& taken = std::nullopt) const {
    const Listed listed = taken ? *taken : listNow();
    if (!listed.items) {
      observer->finishEnumeratingWithError(
          NSFileProviderError(NSFileProviderError::noSuchItem).share());
      return;
    }
    const std::vector<RemoteItem>& items = *listed.items;
    std::size_t pageSize = 0;
    {
      MutexLock lock(remote_->mutex_);
      // Changes from now on are changes of what was told here.
      if (!remote_->everyChangeMoves_) remote_->history_[listed.time][folder_].items = items;
      pageSize = remote_->pageSize_ == 0 ? items.size() + 1 : remote_->pageSize_;
    }
    const std::size_t end = std::min(items.size(), from + pageSize);
    const std::vector<RemoteItem> page(
        items.begin() + static_cast<std::ptrdiff_t>(std::min(from, end)),
        items.begin() + static_cast<std::ptrdiff_t>(end));
    observer->didEnumerateItems(asItems(page, folder_));
    observer->finishEnumeratingUpToPage(end < items.size() ? std::optional(std::to_string(end))
                                                           : std::nullopt);
  }

  void giveChanges(platform::NSFileProviderChangeObserver& observer, const std::string& anchor,
                   const std::optional<Listed>& taken) const {
    const Listed listed = taken ? *taken : listNow();
    if (!listed.items) {
      observer.finishEnumeratingWithError(
          NSFileProviderError(NSFileProviderError::noSuchItem).share());
      return;
    }
    bool silent = false;
    bool exaggerate = false;
    bool expired = false;
    std::size_t atOnce = 0;
    const std::uint64_t now = listed.time;
    {
      MutexLock lock(remote_->mutex_);
      silent = remote_->changesFail_;
      exaggerate = remote_->exaggerate_;
      expired = remote_->anchorsExpired_;
      atOnce = remote_->changesAtOnce_;
    }
    if (expired) {
      observer.finishEnumeratingWithError(
          NSFileProviderError(NSFileProviderError::syncAnchorExpired).share());
      return;
    }
    if (silent) {
      observer.finishEnumeratingChangesUpToSyncAnchor(anchor, false);
      return;
    }
    std::uint64_t until = now;
    const std::uint64_t since = std::stoull(anchor.substr(anchor.find('-') + 1));
    if (atOnce > 0) until = std::min<std::uint64_t>(now, since + atOnce);
    const auto after = until == now ? *listed.items : remote_->listingAt(folder_, until);
    std::vector<std::string> deleted;
    for (const auto& identifier : remote_->seenIn(folder_, since, until)) {
      if (byIdentifier(after, identifier) == nullptr) deleted.push_back(identifier);
    }
    if (exaggerate) deleted.push_back("item-that-never-was");
    std::vector<RemoteItem> updated;
    for (const auto& item : after) {
      if (exaggerate || remote_->wasOther(folder_, item, since, until)) updated.push_back(item);
    }
    if (!deleted.empty()) observer.didDeleteItemsWithIdentifiers(deleted);
    if (!updated.empty()) observer.didUpdateItems(asItems(updated, folder_));
    observer.finishEnumeratingChangesUpToSyncAnchor("time-" + std::to_string(until), until != now);
  }

  std::shared_ptr<FakeRemote> remote_;
  std::string folder_;
};

class FakeExtension : public platform::NSFileProviderReplicatedExtension {
 public:
  explicit FakeExtension(std::shared_ptr<FakeRemote> remote) : remote_(std::move(remote)) {}

  void invalidate() override {
    MutexLock lock(remote_->mutex_);
    remote_->invalidated_ = true;
  }

  platform::NSProgressPtr item(std::string identifier, platform::NSFileProviderRequest,
                               ItemHandler completionHandler) override {
    const auto taken = std::make_shared<std::optional<NSFileProviderItemPtr>>();
    auto take = [remote = remote_, identifier, taken] { *taken = remote->described(identifier); };
    auto answer = [take, taken, completionHandler](NSErrorPtr error) {
      if (!*taken) take();
      NSFileProviderItemPtr item = error ? nullptr : **taken;
      if (!error && !item) error = NSFileProviderError(NSFileProviderError::noSuchItem).share();
      completionHandler(item, error);
    };
    remote_->answerLater(Ask::item, identifier, answer, take);
    return cancellable();
  }

  platform::NSProgressPtr fetchContents(std::string identifier,
                                        std::optional<platform::NSFileProviderItemVersion>,
                                        platform::NSFileProviderRequest,
                                        ContentsHandler completionHandler) override {
    fetch(identifier,
          [completionHandler](const RemoteItem* found, const NSFileProviderItemPtr& item,
                              const NSErrorPtr& error) {
            if (found == nullptr) return completionHandler(std::nullopt, nullptr, error);
            const auto size = static_cast<std::int64_t>(found->contents.size());
            completionHandler(fileWithPart(found->contents, {0, size}), item, nullptr);
          });
    return cancellable();
  }

  platform::NSProgressPtr createItem(NSFileProviderItemPtr item, NSFileProviderItemFields,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderCreateItemOptions,
                                     platform::NSFileProviderRequest,
                                     ChangeHandler completionHandler) override {
    remote_->changeLater(
        Ask::create, remote_->pathIn(item->parentItemIdentifier(), item->filename()),
        [remote = remote_, item, url] { return remote->create(*item, url); },
        [completionHandler](const NSFileProviderItemPtr& made, const NSErrorPtr& error) {
          completionHandler(made, NSFileProviderItemFields::none, false, error);
        });
    return cancellable();
  }

  platform::NSProgressPtr modifyItem(NSFileProviderItemPtr item,
                                     platform::NSFileProviderItemVersion,
                                     NSFileProviderItemFields fields,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderModifyItemOptions,
                                     platform::NSFileProviderRequest,
                                     ChangeHandler completionHandler) override {
    remote_->changeLater(
        Ask::modify, remote_->pathIn(item->itemIdentifier()),
        [remote = remote_, item, fields, url] { return remote->modify(*item, fields, url); },
        [completionHandler](const NSFileProviderItemPtr& now, const NSErrorPtr& error) {
          completionHandler(now, NSFileProviderItemFields::none, false, error);
        });
    return cancellable();
  }

  platform::NSProgressPtr deleteItem(std::string identifier, platform::NSFileProviderItemVersion,
                                     platform::NSFileProviderDeleteItemOptions,
                                     platform::NSFileProviderRequest,
                                     DoneHandler completionHandler) override {
    remote_->changeLater(
        Ask::remove, remote_->pathIn(identifier),
        [remote = remote_, identifier]() -> NSFileProviderItemPtr {
          remote->removeItem(identifier);
          return nullptr;
        },
        [completionHandler](const NSFileProviderItemPtr&, const NSErrorPtr& error) {
          completionHandler(error);
        });
    return cancellable();
  }

  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      std::string folder, platform::NSFileProviderRequest) override {
    return std::make_shared<FakeEnumerator>(remote_, std::move(folder));
  }

 protected:
  using FetchHandler = std::function<void(
      const RemoteItem* found, const NSFileProviderItemPtr& item, const NSErrorPtr& error)>;
  // The bytes are those of the moment when the fetch began, however late the answer is.
  void fetch(const std::string& identifier, const FetchHandler& handler) const {
    const auto found = remote_->copyOf(identifier);
    const NSFileProviderItemPtr item = remote_->described(identifier);
    auto answer = [found, item, handler](const NSErrorPtr& error) {
      if (error) {
        handler(nullptr, nullptr, error);
      } else if (!found || !item || found->isFolder || found->version == "lost") {
        handler(nullptr, nullptr, NSFileProviderError(NSFileProviderError::noSuchItem).share());
      } else {
        handler(&*found, item, nullptr);
      }
    };
    remote_->answerLater(Ask::contents, identifier, answer);
  }

  platform::NSProgressPtr cancellable() const {
    auto progress = std::make_shared<platform::NSProgress>(100);
    progress->setCancellationHandler([remote = remote_] {
      MutexLock lock(remote->mutex_);
      ++remote->cancelled_;
    });
    return progress;
  }

 private:
  const std::shared_ptr<FakeRemote> remote_;
};

class FakePartExtension final : public FakeExtension,
                                public platform::NSFileProviderPartialContentFetching {
 public:
  using FakeExtension::FakeExtension;

  platform::NSProgressPtr fetchPartialContents(std::string identifier,
                                               platform::NSFileProviderItemVersion,
                                               platform::NSFileProviderRequest,
                                               platform::NSRange minimalRange,
                                               std::int64_t alignment,
                                               platform::NSFileProviderFetchContentsOptions,
                                               PartialContentsHandler completionHandler) override {
    fetch(identifier,
          [=](const RemoteItem* found, const NSFileProviderItemPtr& item, const NSErrorPtr& error) {
            constexpr auto kFlags = platform::NSFileProviderMaterializationFlags::none;
            if (found == nullptr)
              return completionHandler(std::nullopt, nullptr, {}, kFlags, error);
            const auto size = static_cast<std::int64_t>(found->contents.size());
            const std::int64_t from = std::min(size, minimalRange.location / alignment * alignment);
            const std::int64_t end = minimalRange.location + minimalRange.length;
            const std::int64_t to = std::min(size, (end + alignment - 1) / alignment * alignment);
            const platform::NSRange part{from, to - from};
            completionHandler(fileWithPart(found->contents, part), item, part, kFlags, nullptr);
          });
    return cancellable();
  }
};

std::shared_ptr<platform::NSFileProviderReplicatedExtension> FakeRemote::makeExtension(
    bool offersParts) {
  if (offersParts) return std::make_shared<FakePartExtension>(shared_from_this());
  return std::make_shared<FakeExtension>(shared_from_this());
}

}  // namespace kestrune::host::test
