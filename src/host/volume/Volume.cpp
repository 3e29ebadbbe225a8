#include "host/volume/Volume.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <unordered_set>

#include "host/content/ContentRecovery.h"
#include "host/content/DiskThreads.h"
#include "host/out/ConflictName.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;

constexpr const char* kNextItem = "nextItem";
constexpr const char* kNextContent = "nextContent";
// Numbers are set aside in the database by so many at once: what is left of them is lost with each mount.
constexpr std::uint64_t kReserve = 1024;

Tree::Setting treeSetting(const Volume::Services& services) {
  Tree::Setting setting;
  setting.machine = services.machine;
  setting.now = [clock = services.clock] { return clock->now(); };
  setting.rootIdentifier = platform::NSFileProviderRootContainerItemIdentifier;
  return setting;
}

/// What must be known of all rows together.
struct Remembered {
  /// Those whose contents are to be recovered; the tree has all others.
  std::vector<ItemRow> edited;
  std::unordered_set<ContentNumber> known;
  std::unordered_set<ContentNumber> unsent;
  ContentNumber highest = 0;
};

// A million rows take more room than the tree that they become, so they are taken one by one.
Remembered takeRows(ItemStore& store, Tree& tree) {
  Remembered remembered;
  store.load([&](ItemRow row) {
    if (row.content) {
      const ContentState& state = row.content->state;
      if (state.edits != row.content->sentEdits) remembered.unsent.insert(state.number);
      remembered.known.insert(state.number);
      remembered.highest = std::max(remembered.highest, state.number);
      if (state.isEdited) return remembered.edited.push_back(std::move(row));
    }
    tree.takeRow(std::move(row));
  });
  return remembered;
}

}  // namespace

Volume::Volume(Services services)
    : services_(std::move(services)),
      notes_(services_.directory, services_.log),
      tree_(treeSetting(services_)) {
  load();
}

void Volume::load() {
  MutexLock lock(mutex_);
  auto [edited, known, unsent, highest] = takeRows(*services_.store, tree_);
  for (const LostEdit& edit : services_.lostEdits) {
    known.insert(edit.number);
    unsent.insert(edit.number);
    highest = std::max(highest, edit.number);
  }
  known.insert(services_.openContents.begin(), services_.openContents.end());
  for (const ContentNumber number : services_.directory->numbers()) {
    if (!known.contains(number)) services_.directory->remove(number);
  }
  for (const ContentNumber number : services_.directory->notedEdits()) {
    if (!unsent.contains(number)) services_.directory->forgetEdit(number);
  }
  const std::vector<ItemId> recovered = recoverEdits(edited);
  for (ItemRow& row : edited) tree_.takeRow(std::move(row));
  nextContent_ = std::max(highest + 1, services_.store->counter(kNextContent));
  reservedContents_ = nextContent_;
  tree_.endRestore(services_.store->counter(kNextItem), services_.openItems);
  for (const ItemId id : recovered) {
    if (Item* item = tree_.find(id)) tree_.changedHere(*item);
  }
  restoreLostEdits();
  settle(Survives::processEnd, [](const Answer<Done>&) {});
}

void Volume::restoreLostEdits() {
  for (const LostEdit& edit : services_.lostEdits) {
    ContentState state;
    state.number = edit.number;
    state.version = edit.description.base;
    state.sizeBytes = edit.description.sizeBytes;
    state.fetchableBytes = edit.description.fetchableBytes;
    state.present = edit.description.present;
    state.edits = 1;
    state.isEdited = true;
    try {
      state = recoveredState(services_.directory, std::move(state));
    } catch (const platform::NSError& error) {
      const std::string& path = edit.description.path;
      services_.log->failure("recover", "examine the changed contents of '" + path + "'",
                             error.localizedDescription());
      services_.directory->rescue(edit.number, "contents " + std::to_string(edit.number));
      continue;
    }
    tree_.restoreEdit(edit.description.path, edit.description.isExecutable, state,
                      edit.description.base);
  }
}

// Changed files are as long as they are on the disk, from the first look on.
std::vector<ItemId> Volume::recoverEdits(std::vector<ItemRow>& edited) const {
  std::vector<ItemId> recovered;
  for (ItemRow& row : edited) {
    try {
      ContentState& known = row.content.value().state;
      ContentState wanted = known;
      // Whole and now of another version, as where they took another file's place: nothing of their own old one is missing,
      // and holes are zeros.
      if (row.content.value().base != wanted.version && wanted.isWhole()) wanted.fetchableBytes = 0;
      ContentState state = recoveredState(services_.directory, std::move(wanted));
      if (state == known && row.sizeBytes == state.sizeBytes) continue;
      row.sizeBytes = state.sizeBytes;
      known = std::move(state);
      recovered.push_back(row.id);
    } catch (const platform::NSError& error) {  // whoever opens it is told
      services_.log->failure("recover", "examine the changed contents of '" + row.name + "'",
                             error.localizedDescription());
    }
  }
  return recovered;
}

ContentNumber Volume::newContentNumber() {
  MutexLock lock(mutex_);
  return nextContent_++;
}

void Volume::change(const Work& work, Survives survives, const Reply<Done>& reply) {
  // Who is answered may end the mount before this is through.
  const std::shared_ptr<Volume> alive = shared_from_this();
  Aftermath aftermath;
  NSErrorPtr error;
  {
    MutexLock lock(mutex_);
    error = work(tree_, nodes_);
    aftermath = settle(survives, error ? [](const Answer<Done>&) {} : reply);
  }
  finish(aftermath);
  if (error) reply(error);
}

void Volume::change(const std::function<void(Tree& tree, Nodes& nodes)>& work) {
  Aftermath aftermath;
  {
    MutexLock lock(mutex_);
    work(tree_, nodes_);
    aftermath = settle(Survives::processEnd, nullptr);
  }
  finish(aftermath);
}

void Volume::commitAll(Survives survives, Reply<Done> reply) {
  MutexLock lock(mutex_);
  commitRows(TreeEffects(), survives, std::move(reply));
}

bool Volume::lookIfCommitted(const std::function<void(Tree& tree, Nodes& nodes)>& work) {
  MutexLock lock(mutex_);
  {
    MutexLock uncommitted(uncommitted_->mutex);
    if (!uncommitted_->items.empty() || uncommitted_->counters) return false;
  }
  if (!services_.store->isIdle() || *leaving_ > 0) return false;
  work(tree_, nodes_);
  return true;
}

// Takes away the files of contents that nothing has any more; null if there are none. What is not remembered, because the disk
// is full, goes all the same: that may make the room.
std::function<void()> Volume::leavingOf(TreeEffects& effects) const {
  if (effects.abandoned.empty() && effects.dropped.empty() && effects.rescued.empty())
    return nullptr;
  return [directory = services_.directory, log = services_.log,
          abandoned = std::move(effects.abandoned), dropped = std::move(effects.dropped),
          rescued = std::move(effects.rescued)] {
    for (const FileObjectPtr& object : abandoned) object->mayGo();
    for (const ContentNumber number : dropped) directory->remove(number);
    for (const auto& [number, name] : rescued) {
      try {
        directory->rescue(number, name);
      } catch (const platform::NSError& error) {
        log->failure("rescue", "keep '" + name + "', which is gone at the store",
                     error.localizedDescription());
      }
    }
  };
}

Volume::Aftermath Volume::settle(Survives survives, Reply<Done> reply) {
  Aftermath aftermath;
  TreeEffects effects = tree_.takeEffects();
  forgetGone(effects);
  notes_.gather(tree_, effects);
  for (const DetachedVersion& version : effects.detached) nodes_.detach(version);
  for (const FileObjectPtr& object : effects.abandoned) object->abandon();
  // Only when it is remembered: a crash in between must find the name with its contents, or neither.
  if (auto leave = leavingOf(effects)) {
    reply = [leave = std::move(leave), leaving = leaving_,
             reply = std::move(reply)](const Answer<Done>& answer) {
      ++*leaving;
      boost::asio::post(diskExecutor(), [leave, leaving] {
        leave();
        --*leaving;
      });
      if (reply) reply(answer);
    };
  }
  if (reply || !effects.changed.empty() || !effects.forgotten.empty())
    commitRows(effects, survives, std::move(reply));
  tellWatch(effects);
  for (const ItemId id : effects.changed) {
    if (tree_.differing().contains(id)) aftermath.differ.push_back(id);
  }
  aftermath.doubtful.assign(effects.doubtful.begin(), effects.doubtful.end());
  // In the order in which things happened: told with the lock, which only queues.
  if (!effects.cache.empty()) services_.kernel->tell(std::move(effects.cache), nullptr);
  aftermath.effects = std::move(effects);
  return aftermath;
}

// What is neither here nor there goes, unless a program still has it open.
void Volume::forgetGone(TreeEffects& effects) {
  while (!effects.gone.empty()) {
    for (const ItemId id : std::exchange(effects.gone, {})) {
      Item* item = tree_.find(id);
      if (item == nullptr || (item->object() && item->object()->isOpen())) continue;
      tree_.forgetIfGone(*item);
    }
    TreeEffects more = tree_.takeEffects();
    for (const ItemId id : more.forgotten) effects.changed.erase(id);
    effects.forgotten.merge(more.forgotten);
    effects.gone = std::move(more.gone);
    const auto append = [](auto& to, auto& from) {
      to.insert(to.end(), std::make_move_iterator(from.begin()),
                std::make_move_iterator(from.end()));
    };
    effects.changed.merge(more.changed);
    effects.movedFolders.merge(more.movedFolders);
    append(effects.cache, more.cache);
    append(effects.detached, more.detached);
    append(effects.abandoned, more.abandoned);
    append(effects.dropped, more.dropped);
  }
}

void Volume::tellWatch(const TreeEffects& effects) {
  if (!watch_->isWatched()) return;
  std::set<ItemId> folders;
  for (const ItemId id : effects.changed) {
    const Item* item = tree_.find(id);
    if (item == nullptr || item->folder == nullptr) continue;
    folders.insert(item->folder->id);
    // What others made elsewhere is there from the beginning.
    if (!item->there && isConflictName(item->name())) watch_->conflictArose(id);
  }
  for (const ItemId folder : folders) watch_->folderChanged(folder);
  // What was removed, or its removal sent, has no folder here; it counts among what is not at the store all the same.
  if (folders.empty() && !(effects.changed.empty() && effects.forgotten.empty()))
    watch_->somethingChanged();
}

void Volume::stateChanged(ItemId item) {
  if (!watch_->isWatched()) return;
  MutexLock lock(mutex_);
  const Item* found = tree_.find(item);
  if (found != nullptr && found->folder != nullptr) return watch_->folderChanged(found->folder->id);
  watch_->somethingChanged();
}

void Volume::commitRows(const TreeEffects& effects, Survives survives, Reply<Done> reply) {
  std::set<ItemId> ids;
  bool isReserved = true;
  {
    MutexLock lock(uncommitted_->mutex);
    ids.swap(uncommitted_->items);
    isReserved = !std::exchange(uncommitted_->counters, false);
  }
  ids.insert(effects.changed.begin(), effects.changed.end());
  std::vector<ItemRow> put;
  for (const ItemId id : ids) {
    if (const Item* item = tree_.find(id)) put.push_back(tree_.row(*item));
  }
  std::vector<std::pair<std::string, std::uint64_t>> counters;
  if (tree_.nextItem() > reservedItems_ || !isReserved) {
    reservedItems_ = tree_.nextItem() + kReserve;
    counters.emplace_back(kNextItem, reservedItems_);
  }
  if (nextContent_ >= reservedContents_ || !isReserved) {
    reservedContents_ = nextContent_ + kReserve;
    counters.emplace_back(kNextContent, reservedContents_);
  }
  std::vector<ItemId> removed(effects.forgotten.begin(), effects.forgotten.end());
  std::vector<ItemId> all(ids.begin(), ids.end());
  // The tree is ahead of the database until there is room again. Who waited is told; what is here is not taken back.
  auto committed = [all = std::move(all), uncommitted = uncommitted_, log = services_.log,
                    reply = std::move(reply)](const Answer<Done>& answer) {
    if (!answer.ok()) {
      log->failure("commit", "remember what changed", answer.error()->localizedDescription());
      MutexLock lock(uncommitted->mutex);
      uncommitted->items.insert(all.begin(), all.end());
      uncommitted->counters = true;
    }
    if (reply) reply(answer);
  };
  services_.store->commit(std::move(put), std::move(removed), std::move(counters), survives,
                          std::move(committed));
}

void Volume::finish(const Aftermath& aftermath) {
  const TreeEffects& effects = aftermath.effects;
  notes_.write();
  for (const auto& adopted : effects.adopted) adopted.object->sent(adopted.edits, adopted.version);
  if (effects.leftOut > 0) {
    services_.log->note("names",
                        std::to_string(effects.leftOut) +
                            " items of a folder are not shown; the first: " + effects.firstLeftOut);
  }
  if (!aftermath.doubtful.empty() && listener_.doubtful) listener_.doubtful(aftermath.doubtful);
  if (!aftermath.differ.empty() && listener_.differ) listener_.differ(aftermath.differ);
}

Attributes Volume::attributesOf(const Item& item) {
  Attributes attributes;
  attributes.inode = item.id;
  attributes.isFolder = item.isFolder;
  attributes.isExecutable = item.isExecutable;
  attributes.isWritable = true;
  attributes.isUnlinked = !item.isLinked();
  attributes.sizeBytes = item.sizeBytes;
  if (item.object()) {
    attributes.sizeBytes = item.object()->sizeBytes();
  } else if (item.content()) {
    attributes.sizeBytes = item.content()->state.sizeBytes;
  }
  if (item.object()) {
    attributes.storedBytes = item.object()->storedBytes();
  } else if (item.content()) {
    attributes.storedBytes = item.content()->state.present.byteCount();
  }
  const ItemTimes times = item.times();
  attributes.accessed = times.accessed;
  attributes.modified = times.modified;
  attributes.changed = times.changed;
  return attributes;
}

Attributes Volume::attributesOf(const DetachedVersion& version) {
  Attributes attributes;
  attributes.inode = version.item;
  attributes.isExecutable = version.isExecutable;
  attributes.isWritable = true;
  attributes.sizeBytes = version.object ? version.object->sizeBytes() : version.sizeBytes;
  attributes.storedBytes = version.object ? version.object->storedBytes() : 0;
  attributes.accessed = version.modified;
  attributes.modified = version.modified;
  attributes.changed = version.changed;
  return attributes;
}

bool Volume::isWithin(ItemId item, ItemId folder) {
  return look([&](Tree& tree, Nodes&) {
    const Item* inner = tree.find(item);
    const Item* outer = tree.find(folder);
    return inner != nullptr && outer != nullptr && Tree::isWithin(*inner, *outer);
  });
}

std::string Volume::path(ItemId item) {
  return look([item](Tree& tree, Nodes&) {
    const Item* found = tree.find(item);
    return found == nullptr ? std::string("an item that is gone") : tree.path(*found);
  });
}

}  // namespace kestrune::host
