#include "host/test/FakeRemote.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <chrono>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Directories.h"
#include "platform/files/Paths.h"
#include "platform/tasks/Task.h"
#include "platform/values/UUID.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderItemPtr;

constexpr std::chrono::seconds kDeadline{20};
const char* const kRoot = platform::NSFileProviderRootContainerItemIdentifier;

class FakeItem final : public platform::NSFileProviderItem {
 public:
  FakeItem(RemoteItem item, std::string parent)
      : item_(std::move(item)), parent_(std::move(parent)) {}
  std::string itemIdentifier() const override { return item_.identifier; }
  std::string parentItemIdentifier() const override { return parent_; }
  std::string filename() const override { return item_.name; }
  std::optional<platform::UTType> contentType() const override {
    return item_.isFolder ? platform::UTType::folder() : platform::UTType::data();
  }
  std::optional<std::int64_t> documentSize() const override {
    if (item_.isFolder) return std::nullopt;
    return item_.listedSize.value_or(static_cast<std::int64_t>(item_.contents.size()));
  }
  std::optional<platform::Date> contentModificationDate() const override { return item_.modified; }
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    return platform::NSFileProviderItemVersion{item_.version, item_.version};
  }

 private:
  const RemoteItem item_;
  const std::string parent_;
};

std::vector<NSFileProviderItemPtr> asItems(const std::vector<RemoteItem>& items,
                                           const std::string& parent) {
  std::vector<NSFileProviderItemPtr> result;
  for (const auto& item : items) result.push_back(std::make_shared<FakeItem>(item, parent));
  return result;
}

const RemoteItem* byIdentifier(const std::vector<RemoteItem>& items,
                               const std::string& identifier) {
  const auto found = std::find_if(items.begin(), items.end(), [&](const RemoteItem& item) {
    return item.identifier == identifier;
  });
  return found == items.end() ? nullptr : &*found;
}

bool differ(const RemoteItem& a, const RemoteItem& b) {
  return a.name != b.name || a.version != b.version || a.isFolder != b.isFolder ||
         a.modified != b.modified || a.listedSize != b.listedSize;
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
    remote_->answerLater(Ask::items, folder_, [self, observer](const NSErrorPtr& error) {
      if (error) {
        observer->finishEnumeratingWithError(error);
      } else {
        self.givePage(observer, 0);
      }
    });
  }

  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override {
    auto self = FakeEnumerator(remote_, folder_);
    remote_->answerLater(Ask::changes, folder_, [self, observer, anchor](const NSErrorPtr& error) {
      if (error) {
        observer->finishEnumeratingWithError(error);
      } else {
        self.giveChanges(*observer, anchor);
      }
    });
  }

  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override {
    completionHandler(remote_->anchor());
  }

 private:
  void givePage(const std::shared_ptr<platform::NSFileProviderEnumerationObserver>& observer,
                std::size_t from) const {
    auto items = remote_->listing(folder_);
    std::size_t pageSize = 0;
    {
      MutexLock lock(remote_->mutex_);
      // Changes from now on are changes of what was told here.
      remote_->history_[remote_->time_][folder_].items = items;
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

  void giveChanges(platform::NSFileProviderChangeObserver& observer,
                   const std::string& anchor) const {
    bool silent = false;
    bool exaggerate = false;
    bool expired = false;
    std::size_t atOnce = 0;
    std::uint64_t now = 0;
    {
      MutexLock lock(remote_->mutex_);
      silent = remote_->changesFail_;
      exaggerate = remote_->exaggerate_;
      expired = remote_->anchorsExpired_;
      atOnce = remote_->changesAtOnce_;
      now = remote_->time_;
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
    const auto before = remote_->listingAt(folder_, since);
    const auto after =
        until == now ? remote_->listing(folder_) : remote_->listingAt(folder_, until);
    std::vector<std::string> deleted;
    for (const auto& item : before) {
      if (byIdentifier(after, item.identifier) == nullptr) deleted.push_back(item.identifier);
    }
    if (exaggerate) deleted.push_back("item-that-never-was");
    std::vector<RemoteItem> updated;
    for (const auto& item : after) {
      const RemoteItem* old = byIdentifier(before, item.identifier);
      if (exaggerate || old == nullptr || differ(*old, item)) updated.push_back(item);
    }
    if (!deleted.empty()) observer.didDeleteItemsWithIdentifiers(deleted);
    if (!updated.empty()) observer.didUpdateItems(asItems(updated, folder_));
    observer.finishEnumeratingChangesUpToSyncAnchor("time-" + std::to_string(until), until != now);
  }

  std::shared_ptr<FakeRemote> remote_;
  std::string folder_;
};

class FakeExtension final : public platform::NSFileProviderReplicatedExtension {
 public:
  explicit FakeExtension(std::shared_ptr<FakeRemote> remote) : remote_(std::move(remote)) {}

  void invalidate() override {
    MutexLock lock(remote_->mutex_);
    remote_->invalidated_ = true;
  }

  platform::NSProgressPtr item(std::string, platform::NSFileProviderRequest,
                               ItemHandler completionHandler) override {
    completionHandler(nullptr, NSFileProviderError(NSFileProviderError::noSuchItem).share());
    return std::make_shared<platform::NSProgress>(1);
  }

  platform::NSProgressPtr fetchContents(std::string identifier,
                                        std::optional<platform::NSFileProviderItemVersion>,
                                        platform::NSFileProviderRequest,
                                        ContentsHandler completionHandler) override {
    auto progress = std::make_shared<platform::NSProgress>(100);
    progress->setCancellationHandler([remote = remote_] {
      MutexLock lock(remote->mutex_);
      ++remote->cancelled_;
    });
    // The bytes are those of the moment when the fetch began, however late the answer is.
    std::optional<RemoteItem> found;
    {
      MutexLock lock(remote_->mutex_);
      for (const auto& [id, folder] : remote_->folders_) {
        if (const RemoteItem* item = byIdentifier(folder.items, identifier)) found = *item;
      }
    }
    remote_->answerLater(
        Ask::contents, identifier, [found, completionHandler](const NSErrorPtr& error) {
          if (error) {
            completionHandler(std::nullopt, nullptr, error);
          } else if (!found || found->version == "lost") {
            completionHandler(std::nullopt, nullptr,
                              NSFileProviderError(NSFileProviderError::noSuchItem).share());
          } else {
            const auto url = platform::temporaryDirectory() / platform::newUUIDString();
            std::ofstream(url, std::ios::binary) << found->contents;
            completionHandler(url, std::make_shared<FakeItem>(*found, kRoot), nullptr);
          }
        });
    return progress;
  }

  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      std::string folder, platform::NSFileProviderRequest) override {
    return std::make_shared<FakeEnumerator>(remote_, std::move(folder));
  }

 private:
  const std::shared_ptr<FakeRemote> remote_;
};

FakeRemote::FakeRemote() {
  MutexLock lock(mutex_);
  folders_[kRoot];
}

std::string FakeRemote::newIdentifier() { return "item-" + std::to_string(nextIdentifier_++); }

FakeRemote::Folder& FakeRemote::folderAt(const std::string& path) {
  if (path == "/" || path.empty()) return folders_[kRoot];
  const RemoteItem* item = find(path);
  if (item == nullptr || !item->isFolder) throw std::logic_error("no folder " + path);
  return folders_[item->identifier];
}

RemoteItem* FakeRemote::find(const std::string& path) {
  auto& items = folderAt(platform::deletingLastPathComponent(path)).items;
  const std::string name = platform::lastPathComponent(path);
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const auto& item) { return item.name == name; });
  return found == items.end() ? nullptr : &*found;
}

std::string FakeRemote::pathOf(const std::string& identifier) const {
  if (identifier == kRoot) return "/";
  for (const auto& [id, folder] : folders_) {
    if (const RemoteItem* item = byIdentifier(folder.items, identifier)) {
      const std::string parent = pathOf(id);
      return (parent == "/" ? "" : parent) + "/" + item->name;
    }
  }
  return identifier;  // gone: only by its identifier can it still be spoken of
}

std::string FakeRemote::putFolder(const std::string& path) {
  MutexLock lock(mutex_);
  RemoteItem item;
  item.identifier = newIdentifier();
  item.name = platform::lastPathComponent(path);
  item.isFolder = true;
  folders_[item.identifier];
  folderAt(platform::deletingLastPathComponent(path)).items.push_back(item);
  return item.identifier;
}

std::string FakeRemote::putFile(const std::string& path, std::string contents) {
  MutexLock lock(mutex_);
  RemoteItem item;
  item.identifier = newIdentifier();
  item.name = platform::lastPathComponent(path);
  item.contents = std::move(contents);
  folderAt(platform::deletingLastPathComponent(path)).items.push_back(item);
  return item.identifier;
}

void FakeRemote::putFileListedAs(const std::string& path, std::string contents,
                                 std::int64_t listedSize) {
  putFile(path, std::move(contents));
  MutexLock lock(mutex_);
  find(path)->listedSize = listedSize;
}

void FakeRemote::putItem(const std::string& folder, RemoteItem item) {
  MutexLock lock(mutex_);
  if (item.identifier.empty()) item.identifier = newIdentifier();
  if (item.isFolder) folders_[item.identifier];
  folderAt(folder).items.push_back(std::move(item));
}

void FakeRemote::overwrite(const std::string& path, std::string contents) {
  MutexLock lock(mutex_);
  RemoteItem* item = find(path);
  item->contents = std::move(contents);
  item->version += "+";
  item->modified += std::chrono::seconds(1);
}

void FakeRemote::loseContents(const std::string& path) {
  MutexLock lock(mutex_);
  find(path)->version = "lost";
}

void FakeRemote::remove(const std::string& path) {
  MutexLock lock(mutex_);
  auto& items = folderAt(platform::deletingLastPathComponent(path)).items;
  const std::string name = platform::lastPathComponent(path);
  std::erase_if(items, [&](const auto& item) { return item.name == name; });
}

void FakeRemote::rename(const std::string& from, const std::string& to) {
  MutexLock lock(mutex_);
  RemoteItem item = *find(from);
  auto& left = folderAt(platform::deletingLastPathComponent(from)).items;
  std::erase_if(left, [&](const auto& other) { return other.identifier == item.identifier; });
  item.name = platform::lastPathComponent(to);
  folderAt(platform::deletingLastPathComponent(to)).items.push_back(std::move(item));
}

void FakeRemote::announce() {
  std::filesystem::path file;
  std::string text;
  {
    MutexLock lock(mutex_);
    history_[++time_] = folders_;
    file = signalFile_;
    text = "time-" + std::to_string(time_);
  }
  if (!file.empty()) platform::replaceFile(file, text, platform::Durability::atomic);
}

void FakeRemote::setSignalFile(std::filesystem::path file) {
  MutexLock lock(mutex_);
  signalFile_ = std::move(file);
}

std::string FakeRemote::anchor() const {
  MutexLock lock(mutex_);
  return "time-" + std::to_string(time_);
}

std::vector<RemoteItem> FakeRemote::listing(const std::string& folderIdentifier) const {
  MutexLock lock(mutex_);
  const auto found = folders_.find(folderIdentifier);
  return found == folders_.end() ? std::vector<RemoteItem>{} : found->second.items;
}

std::vector<RemoteItem> FakeRemote::listingAt(const std::string& folderIdentifier,
                                              std::uint64_t time) const {
  MutexLock lock(mutex_);
  const auto then = history_.find(time);
  if (then == history_.end()) return {};
  const auto found = then->second.find(folderIdentifier);
  return found == then->second.end() ? std::vector<RemoteItem>{} : found->second.items;
}

void FakeRemote::answerLater(Ask ask, const std::string& identifier,
                             std::function<void(NSErrorPtr)> answer) {
  NSErrorPtr failure;
  {
    MutexLock lock(mutex_);
    const Key key(ask, pathOf(identifier));
    ++counts_[key];
    asked_.notify_all();
    if (holding_[key]) {
      held_.push_back({ask, key.second, std::move(answer)});
      return;
    }
    if (const auto found = failures_.find(key); found != failures_.end()) failure = found->second;
  }
  boost::asio::post(platform::sharedExecutor(),
                    [answer = std::move(answer), failure] { answer(failure); });
}

void FakeRemote::hold(Ask ask, const std::string& path) {
  MutexLock lock(mutex_);
  holding_[{ask, path}] = true;
}

void FakeRemote::release(Ask ask, const std::string& path, NSErrorPtr error) {
  std::function<void(NSErrorPtr)> answer;
  {
    MutexLock lock(mutex_);
    const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) {
      return held.ask == ask && held.path == path;
    });
    if (found == held_.end()) throw std::logic_error("nothing is held for " + path);
    answer = std::move(found->answer);
    held_.erase(found);
  }
  answer(std::move(error));
}

void FakeRemote::stopHolding(Ask ask, const std::string& path) {
  std::vector<std::function<void(NSErrorPtr)>> answers;
  {
    MutexLock lock(mutex_);
    holding_[{ask, path}] = false;
    for (auto& held : held_) {
      if (held.ask == ask && held.path == path) answers.push_back(std::move(held.answer));
    }
    std::erase_if(held_, [&](const Held& held) { return held.ask == ask && held.path == path; });
  }
  for (const auto& answer : answers) answer(nullptr);
}

void FakeRemote::failWith(Ask ask, const std::string& path, NSErrorPtr error) {
  MutexLock lock(mutex_);
  failures_[{ask, path}] = std::move(error);
}

void FakeRemote::failChangesSilently(bool fail) {
  MutexLock lock(mutex_);
  changesFail_ = fail;
}

void FakeRemote::exaggerateChanges(bool exaggerate) {
  MutexLock lock(mutex_);
  exaggerate_ = exaggerate;
}

void FakeRemote::setPageSize(std::size_t items) {
  MutexLock lock(mutex_);
  pageSize_ = items;
}

void FakeRemote::setChangesAtOnce(std::size_t changes) {
  MutexLock lock(mutex_);
  changesAtOnce_ = changes;
}

void FakeRemote::expireAnchors(bool expire) {
  MutexLock lock(mutex_);
  anchorsExpired_ = expire;
}

int FakeRemote::asked(Ask ask, const std::string& path) const {
  MutexLock lock(mutex_);
  const auto found = counts_.find({ask, path});
  return found == counts_.end() ? 0 : found->second;
}

bool FakeRemote::waitUntilAsked(Ask ask, const std::string& path, int count) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex_);
  while (counts_[{ask, path}] < count) {
    if (!lock.waitUntil(asked_, deadline)) return false;
  }
  return true;
}

bool FakeRemote::invalidated() const {
  MutexLock lock(mutex_);
  return invalidated_;
}

int FakeRemote::cancelled() const {
  MutexLock lock(mutex_);
  return cancelled_;
}

std::shared_ptr<platform::NSFileProviderReplicatedExtension> FakeRemote::makeExtension() {
  return std::make_shared<FakeExtension>(shared_from_this());
}

}  // namespace kestrune::host::test
