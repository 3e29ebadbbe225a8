#include "host/volume/Contents.h"

#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"

namespace kestrune::host {

namespace {

using platform::NSError;
using platform::NSPOSIXError;

Answer<ContentSource> sourceOf(Volume& volume, ItemId id) {
  return volume.look([id](Tree& tree, Nodes&) -> Answer<ContentSource> {
    const Item* item = tree.find(id);
    if (item == nullptr || !item->there)
      return NSPOSIXError(ENOENT, "fetch contents that the store does not have").share();
    if (!tree.isSure(*item))
      return NSPOSIXError(EAGAIN, "fetch from a folder that is being moved").share();
    return ContentSource{item->there->identifier, item->there->version, item->there->sizeBytes};
  });
}

// The length that the kernel knows stays until it is told another one.
void takeState(Tree& tree, Item& item, const ContentState& state) {
  const std::int64_t known = item.sizeBytes;
  tree.setContent(item, state);
  if (!state.isEdited) item.sizeBytes = known;
}

// Whether what an object says of itself is said by the item's own. One that the item has left may still be telling, or
// beginning an edit, while its file goes.
bool isOwn(const Item& item, const ContentState& told) {
  return item.object() && item.object()->state().number == told.number;
}

// What was fetched is of a version that the store has no longer; who waited for it has it, and the name stands for the
// new one. Returns the object that is to go when the lock is free again.
FileObjectPtr leaveOldVersion(Tree& tree, Item& item) {
  FileObjectPtr left = item.object();
  tree.succeed(item);
  left->abandon();
  item.setObject(nullptr);
  tree.dropContent(item);
  return left;
}

// What of a file is here now.
void takeChange(Volume& volume, ItemId id, const ContentState& told) {
  FileObjectPtr left;
  volume.change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(id);
    if (item == nullptr || !isOwn(*item, told)) return;
    const ContentState state = withWhatIsKnown(*item, told);
    const bool isOld =
        !state.isEdited && item->there && state.version != item->there->version.contentVersion;
    if (state.number != 0 && isOld) {
      left = leaveOldVersion(tree, *item);
    } else if (state.number == 0) {
      if (!item->isEdited()) tree.dropContent(*item);  // else written to since it was evicted
    } else {
      takeState(tree, *item, state);
    }
  });
  if (left) left->mayGo();
}

void takeSize(Volume& volume, ItemId id, std::int64_t sizeBytes, std::function<void()> then) {
  std::vector<CacheUpdate> updates;
  bool isLarger = false;
  volume.change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(id);
    if (item == nullptr) return;
    const std::int64_t known = std::exchange(item->sizeBytes, sizeBytes);
    tree.changedHere(*item);
    if (item->node == 0) return;
    isLarger = known < sizeBytes;
    if (known <= sizeBytes) {
      updates.push_back({CacheUpdate::Kind::attributes, item->node, {}, 0});
    } else if (item->folder != nullptr && item->folder->node != 0) {
      updates.push_back({CacheUpdate::Kind::entry, item->folder->node, item->name(), 0});
    }
  });
  // A larger file must be announced before its bytes, or the reader stops at the size that was listed. A smaller one must
  // not be: when a read ends early the kernel shortens the file by itself, but not if it was told to doubt the attributes
  // meanwhile, and then the reader would see zeros. So it only looks up the name again, and learns the size with that.
  const auto& kernel = volume.services().kernel;
  if (isLarger) {
    kernel->tell(std::move(updates), std::move(then));
  } else {
    then();
    if (!updates.empty()) kernel->tell(std::move(updates), nullptr);
  }
}

ItemId folderThereOf(Volume& volume, ItemId id) {
  return volume.look([id](Tree& tree, Nodes&) -> ItemId {
    const Item* item = tree.find(id);
    return item != nullptr && item->there ? item->there->folder : 0;
  });
}

void takeFailure(Volume& volume, const Contents::Listener& listener, ItemId id,
                 const NSError& error) {
  volume.services().log->failure("fetch", "fetch '" + volume.path(id) + "'",
                                 error.localizedDescription());
  listener.reached(error.share());
  // A file that is listed and not there: its deletion was missed.
  if (errnoFor(error) != ENOENT) return;
  if (const ItemId folder = folderThereOf(volume, id)) listener.doubtful(folder);
}

void takeOtherVersion(Volume& volume, const Contents::Listener& listener, ItemId id,
                      const platform::NSFileProviderItemPtr& now) {
  if (now) {
    const ItemRecord record = ItemRecord::from(*now);
    volume.change([&](Tree& tree, Nodes&) {
      Item* item = tree.find(id);
      if (item != nullptr && item->there && !item->isUnderWay)
        tree.applyItem(*item, record, tree.moment());
    });
  }
  if (const ItemId folder = folderThereOf(volume, id)) listener.doubtful(folder);
}

std::shared_ptr<const FileObjectServices> servicesFor(const std::shared_ptr<Volume>& owner,
                                                      const Contents::Listener& listener) {
  const std::weak_ptr<Volume> weak = owner;  // the volume holds the objects
  auto services = std::make_shared<FileObjectServices>();
  services->extension = owner->services().extension;
  services->directory = owner->services().directory;
  services->timers = owner->services().timers;
  services->newNumber = [weak]() -> ContentNumber {
    const auto volume = weak.lock();
    return volume ? volume->newContentNumber() : 0;
  };
  services->source = [weak](ItemId item) -> Answer<ContentSource> {
    const auto volume = weak.lock();
    if (!volume) return NSPOSIXError(ENOTCONN, "fetch contents for a mount that ended").share();
    return sourceOf(*volume, item);
  };
  services->willEdit = [weak](ItemId id, const ContentState& state, const Reply<Done>& reply) {
    const auto volume = weak.lock();
    if (!volume) return reply(NSPOSIXError(ENOTCONN, "write after the mount ended").share());
    const auto work = [&](Tree& tree, Nodes&) -> platform::NSErrorPtr {
      Item* item = tree.find(id);
      if (item == nullptr || !isOwn(*item, state))
        return NSPOSIXError(ESTALE, "change a version that is no longer there").share();
      tree.setContent(*item, state);
      return nullptr;
    };
    volume->change(work, Volume::Survives::processEnd, reply);
  };
  services->couldNotEdit = [weak](ItemId id, const ContentState& state) {
    const auto volume = weak.lock();
    if (!volume) return;
    volume->change([&](Tree& tree, Nodes&) {
      Item* item = tree.find(id);
      if (item != nullptr && isOwn(*item, state)) tree.editFailed(*item, state.edits);
    });
  };
  services->changed = [weak, changed = listener.changed](ItemId id, const ContentState& told) {
    const auto volume = weak.lock();
    if (!volume) return;
    takeChange(*volume, id, told);
    if (changed) changed();
  };
  services->resized = [weak](ItemId id, std::int64_t sizeBytes, std::function<void()> then) {
    const auto volume = weak.lock();
    if (!volume) return then();
    takeSize(*volume, id, sizeBytes, std::move(then));
  };
  services->fetching = listener.fetching;
  services->fetchFailed = [weak, listener](ItemId id, const NSError& error) {
    if (const auto volume = weak.lock()) takeFailure(*volume, listener, id, error);
  };
  services->versionGone = [weak, listener](ItemId id, const platform::NSFileProviderItemPtr& now) {
    if (const auto volume = weak.lock()) takeOtherVersion(*volume, listener, id, now);
  };
  return services;
}

}  // namespace

ContentState withWhatIsKnown(const Item& item, ContentState told) {
  if (!item.content()) return told;
  const ContentState& known = item.content()->state;
  if (known.number != told.number) return told;
  told.version = known.version;  // which is learnt here first
  if (known.edits < told.edits) return told;
  if (known.edits > told.edits) {
    told.edits = known.edits;
    told.isEdited = known.isEdited;
  } else if (item.isEdited()) {
    told.isEdited = true;
  }
  return told;
}

ContentState absentState(const Item& item) {
  ContentState state;
  state.sizeBytes = item.sizeBytes;
  state.fetchableBytes = item.sizeBytes;
  if (item.there) state.version = item.there->version.contentVersion;
  return state;
}

Contents::Contents(std::shared_ptr<Volume> volume, const Listener& listener)
    : volume_(std::move(volume)), services_(servicesFor(volume_, listener)) {}

FileObjectPtr Contents::objectOf(Item& item) const {
  if (!item.object()) {
    item.setObject(std::make_shared<FileObject>(
        services_, item.id, item.content() ? item.content()->state : absentState(item)));
  }
  return item.object();
}

FileObjectPtr Contents::objectOfGone(ItemId item, ContentState state) const {
  return std::make_shared<FileObject>(services_, item, std::move(state));
}

FileObjectPtr Contents::makeEmpty(Tree& tree, Item& item, ContentNumber number) const {
  ContentState state;
  state.number = number;
  state.edits = kFirstEdit;
  state.isEdited = true;
  tree.setContent(item, state);
  return objectOf(item);
}

}  // namespace kestrune::host
