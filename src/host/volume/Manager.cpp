#include "host/volume/Manager.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/content/DiskThreads.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSError;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSPOSIXError;

// How many files of a folder are fetched at once.
constexpr std::size_t kFillsAtOnce = 4;

NSErrorPtr unavailable() {
  return NSFileProviderError(NSFileProviderError::providerDomainTemporarilyUnavailable).share();
}

NSErrorPtr refusal(NSFileProviderError::Code code, const std::string& path, const char* reason) {
  return NSFileProviderError(code, "'" + path + "' " + reason + ".").share();
}

NSErrorPtr noItem(const std::string& identifier) {
  return NSFileProviderError(NSFileProviderError::noSuchItem,
                             "There is no item '" + identifier + "' here.")
      .share();
}

struct Found {
  ItemId item = 0;
  bool isFolder = false;
};

Found findItem(Volume& volume, const std::string& identifier) {
  return volume.look([&](Tree& tree, Nodes&) -> Found {
    const Item* item = identifier == platform::NSFileProviderRootContainerItemIdentifier
                           ? &tree.root()
                           : tree.byIdentifier(identifier);
    return item == nullptr ? Found() : Found{item->id, item->isFolder};
  });
}

// The kernel has pages of contents that went: it gets a new version of the item.
void forgetPages(Volume& volume, ItemId file, const FileObjectPtr& object) {
  volume.change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(file);
    if (item == nullptr || item->content() || item->object() != object || object->isOpen()) return;
    if (item->node != 0) {
      tree.succeed(*item);
    } else if (object.use_count() == 2) {
      item->setObject(nullptr);  // the caller's and the item's: nobody works on it
    }
  });
}

NSErrorPtr evictBelow(Volume& volume, const Contents& contents, ItemId folder) {
  NSErrorPtr first;
  for (const ItemId file : filesBelow(volume, folder)) {
    const bool hasAny = volume.look([file](Tree& tree, Nodes&) {
      const Item* item = tree.find(file);
      return item != nullptr && item->content() != nullptr;
    });
    if (!hasAny) continue;
    NSErrorPtr error = evictContents(volume, contents, file);
    if (error && !first) first = std::move(error);
  }
  if (!first) return nullptr;
  return NSFileProviderError(NSFileProviderError::nonEvictableChildren,
                             "Not everything in '" + volume.path(folder) +
                                 "' could go: " + first->localizedDescription())
      .share();
}

// Fetches the files of a folder, some at a time, and answers with the first error.
class Filling : public std::enable_shared_from_this<Filling> {
 public:
  Filling(std::shared_ptr<Volume> volume, std::shared_ptr<Contents> contents,
          std::vector<ItemId> files, platform::NSFileProviderManager::Handler handler)
      : volume_(std::move(volume)),
        contents_(std::move(contents)),
        files_(std::move(files)),
        handler_(std::move(handler)) {}

  void begin() {
    const std::size_t lanes = std::min(kFillsAtOnce, files_.size());
    if (lanes == 0) {
      handler_(nullptr);
      return;
    }
    {
      MutexLock lock(mutex_);
      lanes_ = lanes;
    }
    for (std::size_t i = 0; i < lanes; ++i) next();
  }

 private:
  void next() {
    ItemId file = 0;
    NSErrorPtr error;
    {
      MutexLock lock(mutex_);
      if (next_ < files_.size()) {
        file = files_[next_++];
      } else if (--lanes_ > 0) {
        return;
      }
      error = first_;
    }
    if (file == 0) {
      handler_(error);
      return;
    }
    // Not from the answer: files that are here answer at once, and the stack would grow with each.
    boost::asio::post(platform::sharedExecutor(), [self = shared_from_this(), file] {
      fillContents(self->volume_, *self->contents_, file, [self](const Answer<Done>& answer) {
        if (!answer.ok()) self->failed(answer.error());
        self->next();
      });
    });
  }
  void failed(NSErrorPtr error) {
    MutexLock lock(mutex_);
    if (!first_) first_ = std::move(error);
  }

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<Contents> contents_;
  const std::vector<ItemId> files_;
  const platform::NSFileProviderManager::Handler handler_;
  platform::Mutex mutex_;
  std::size_t next_ GUARDED_BY(mutex_) = 0;
  std::size_t lanes_ GUARDED_BY(mutex_) = 0;
  NSErrorPtr first_ GUARDED_BY(mutex_);
};

// The file's object, or why there is none.
Answer<FileObjectPtr> objectFor(Volume& volume, const Contents& contents, ItemId file) {
  return volume.look([&](Tree& tree, Nodes&) -> Answer<FileObjectPtr> {
    Item* item = tree.find(file);
    if (item == nullptr || item->isFolder) return noItem("of number " + std::to_string(file));
    try {
      return contents.objectOf(*item);
    } catch (const NSError& error) {
      return error.share();
    }
  });
}

}  // namespace

std::vector<ItemId> filesBelow(Volume& volume, ItemId item) {
  return volume.look([item](Tree& tree, Nodes&) {
    std::vector<ItemId> files;
    std::vector<const Item*> left;
    if (const Item* top = tree.find(item)) left.push_back(top);
    while (!left.empty()) {
      const Item* at = left.back();
      left.pop_back();
      if (!at->isFolder) {
        files.push_back(at->id);
        continue;
      }
      for (const Item* child : at->part()->children) left.push_back(child);
    }
    std::sort(files.begin(), files.end());
    return files;
  });
}

NSErrorPtr whyNotEvictable(const Tree& tree, const Item& item) {
  const std::string path = tree.path(item);
  if (!item.there)
    return refusal(NSFileProviderError::unsyncedEdits, path, "is not at the store yet");
  if (item.isEdited() || item.isUnderWay || Tree::differs(item))
    return refusal(NSFileProviderError::unsyncedEdits, path,
                   "has changes that are not at the store yet");
  if (item.isBeingEvicted)
    return refusal(NSFileProviderError::nonEvictable, path, "is being evicted already");
  if (item.object() && item.object()->isOpen())
    return refusal(NSFileProviderError::nonEvictable, path, "is open in a program");
  return nullptr;
}

NSErrorPtr evictContents(Volume& volume, const Contents& contents, ItemId file) {
  NSErrorPtr error;
  FileObjectPtr object;
  volume.look([&](Tree& tree, Nodes&) {
    Item* item = tree.find(file);
    if (item == nullptr || item->isFolder) {
      error = noItem("of number " + std::to_string(file));
      return;
    }
    error = whyNotEvictable(tree, *item);
    if (error || !item->content()) return;
    try {
      object = contents.objectOf(*item);
      item->isBeingEvicted = true;
    } catch (const NSError& thrown) {
      error = thrown.share();
    }
  });
  if (!object) return error;
  try {
    object->evict();
  } catch (const NSError& thrown) {
    error = thrown.code() == EBUSY
                ? refusal(NSFileProviderError::nonEvictable, volume.path(file), "is in use")
                : thrown.share();
  }
  volume.look([&](Tree& tree, Nodes&) {
    if (Item* item = tree.find(file)) item->isBeingEvicted = false;
  });
  if (error) return error;
  forgetPages(volume, file, object);
  return nullptr;
}

void fillContents(const std::shared_ptr<Volume>& volume, const Contents& contents, ItemId file,
                  Reply<Done> reply) {
  const auto object = objectFor(*volume, contents, file);
  if (!object.ok()) return reply(object.error());
  object.value()->fill([volume, file, reply = std::move(reply)](const Answer<Done>& answer) {
    const NodeId node = volume->look([file](Tree& tree, Nodes&) -> NodeId {
      const Item* item = tree.find(file);
      return item != nullptr ? item->node : 0;
    });
    if (node != 0)
      volume->services().kernel->tell({{CacheUpdate::Kind::attributes, node, {}, 0}}, nullptr);
    reply(answer);
  });
}

void Manager::attach(std::shared_ptr<Volume> volume, std::shared_ptr<Contents> contents,
                     std::shared_ptr<Refresher> refresher) {
  MutexLock lock(mutex_);
  parts_ = {std::move(volume), std::move(contents), std::move(refresher)};
}

void Manager::detach() {
  Parts gone;
  MutexLock lock(mutex_);
  std::swap(gone, parts_);
}

Manager::Parts Manager::parts() {
  MutexLock lock(mutex_);
  return parts_;
}

void Manager::evictItem(platform::NSFileProviderItemIdentifier identifier,
                        Handler completionHandler) {
  boost::asio::post(diskExecutor(), [parts = parts(), identifier = std::move(identifier),
                                     handler = std::move(completionHandler)] {
    if (!parts) return handler(unavailable());
    const Found found = findItem(*parts.volume, identifier);
    if (found.item == 0) return handler(noItem(identifier));
    handler(found.isFolder ? evictBelow(*parts.volume, *parts.contents, found.item)
                           : evictContents(*parts.volume, *parts.contents, found.item));
  });
}

void Manager::requestDownloadForItem(platform::NSFileProviderItemIdentifier identifier,
                                     std::optional<platform::NSRange> range,
                                     Handler completionHandler) {
  boost::asio::post(diskExecutor(), [parts = parts(), identifier = std::move(identifier), range,
                                     handler = std::move(completionHandler)] {
    if (!parts) return handler(unavailable());
    const Found found = findItem(*parts.volume, identifier);
    if (found.item == 0) return handler(noItem(identifier));
    if (found.isFolder || !range) {
      auto files = filesBelow(*parts.volume, found.item);
      std::make_shared<Filling>(parts.volume, parts.contents, std::move(files), handler)->begin();
      return;
    }
    if (range->location < 0 || range->length < 0)
      return handler(NSPOSIXError(EINVAL, "download a range that is none").share());
    const auto object = objectFor(*parts.volume, *parts.contents, found.item);
    if (!object.ok()) return handler(object.error());
    object.value()->read(range->location, static_cast<std::size_t>(range->length), true,
                         [handler, keeps = object.value()](const Answer<LocalFilePtr>& answer) {
                           handler(answer.ok() ? nullptr : answer.error());
                         });
  });
}

void Manager::signalEnumerator(platform::NSFileProviderItemIdentifier container,
                               Handler completionHandler) {
  boost::asio::post(platform::sharedExecutor(), [parts = parts(), container = std::move(container),
                                                 handler = std::move(completionHandler)] {
    if (!parts) return handler(unavailable());
    if (container == platform::NSFileProviderWorkingSetContainerItemIdentifier) {
      parts.refresher->signal();
      return handler(nullptr);
    }
    const Found found = findItem(*parts.volume, container);
    if (found.item == 0) return handler(noItem(container));
    if (found.isFolder) parts.refresher->ask(found.item);
    handler(nullptr);
  });
}

}  // namespace kestrune::host
