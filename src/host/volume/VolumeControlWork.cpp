#include "host/volume/VolumeControlWork.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <unordered_map>
#include <utility>

#include "host/out/ConflictName.h"
#include "platform/tasks/Continuation.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemIdentifier;
using platform::NSPOSIXError;
using platform::Task;

// The actions of the extension, as the menus of file managers call them.
constexpr const char* kDownloadNow = "com.orvanta.kestrune.download-now";
constexpr const char* kMakeOnlineOnly = "com.orvanta.kestrune.make-online-only";
constexpr const char* kCopyShareLink = "com.orvanta.kestrune.copy-share-link";

// So many changes are put in order; of more the first by number are shown.
constexpr std::size_t kMostOrdered = 10'000;
constexpr std::size_t kEveryone = std::numeric_limits<std::size_t>::max();

constexpr auto kKept = platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;

template <class T>
Task<Answer<T>> awaitReply(std::function<void(Reply<T>)> start) {
  auto begin = [&start](platform::Continuation<Answer<T>> continuation) {
    start([continuation](Answer<T> answer) { continuation.resume(std::move(answer)); });
  };
  co_return co_await platform::suspendUntilResumed<Answer<T>>(begin);
}

std::vector<std::string> partsOf(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t at = 1;
  while (at < path.size()) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

NSErrorPtr notAtStore(const std::string& path) {
  return NSPOSIXError(EAGAIN, "use '" + path + "' before it is at the store").share();
}

PendingChange toldOf(const UnsentChange& change, platform::Date now) {
  PendingChange told;
  told.path = change.path;
  switch (change.kind) {
    case Change::Kind::create:
      told.kind = PendingChange::Kind::create;
      break;
    case Change::Kind::move:
    case Change::Kind::moveAside:
      told.kind = PendingChange::Kind::move;
      break;
    case Change::Kind::send:
      told.kind = PendingChange::Kind::send;
      break;
    case Change::Kind::remove:
      told.kind = PendingChange::Kind::remove;
      break;
  }
  told.isUnderWay = change.isUnderWay;
  told.since = now - std::chrono::duration_cast<std::chrono::microseconds>(change.waiting);
  told.attempts = static_cast<std::uint64_t>(change.attempts);
  told.reason = change.reason;
  told.isRefused = change.isRefused;
  told.isForbidden = change.isForbidden;
  if (change.attempts > 0 && !change.isUnderWay)
    told.nextAttempt = std::chrono::ceil<std::chrono::seconds>(change.until);
  if (told.kind == PendingChange::Kind::send || told.kind == PendingChange::Kind::create)
    told.bytes = static_cast<std::uint64_t>(std::max<std::int64_t>(change.sizeBytes, 0));
  return told;
}

std::uint64_t bytesHere(const Item& item) {
  if (!item.content()) return 0;
  return static_cast<std::uint64_t>(item.object() ? item.object()->state().present.byteCount()
                                                  : item.content()->state.present.byteCount());
}

// REQUIRES: the volume's lock.
ItemState stateOfItem(const Item& item) {
  ItemState told;
  told.isFolder = item.isFolder;
  told.isConflictCopy = isConflictName(item.name());
  if (item.isFolder) return told;
  told.sizeBytes = static_cast<std::uint64_t>(Volume::attributesOf(item).sizeBytes);
  told.bytesHere = std::min(bytesHere(item), told.sizeBytes);
  told.isPinned = item.there && item.there->policy == kKept;
  return told;
}

// The first by number, in the order of their paths: which those are among very many matters to nobody.
std::vector<std::string> firstPaths(const Tree& tree, const auto& items, std::size_t most) {
  std::vector<std::string> paths;
  for (const ItemId id : items) {
    if (paths.size() == most) break;
    paths.push_back(tree.path(*tree.find(id)));
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

}  // namespace

VolumeControl::Work::Work(const FileSystem& fileSystem, Outside givenOutside)
    : volume(fileSystem.volume()),
      contents(fileSystem.contents()),
      lister(fileSystem.lister()),
      sender(fileSystem.sender()),
      calls(fileSystem.calls()),
      keeper(fileSystem.keeper()),
      activity(fileSystem.activity()),
      auditor(fileSystem.auditor()),
      fetchCauses(fileSystem.fetchCauses()),
      limits(fileSystem.limits()),
      outside(std::move(givenOutside)) {}

HostCondition VolumeControl::Work::condition() {
  HostCondition condition;
  volume->look([&](Tree& tree, Nodes&) {
    const auto held = tree.heldDeletions();
    condition.heldDeletionCount = held.size();
    condition.heldDeletions = firstPaths(tree, held, HostCondition::kMostHeldPaths);
    condition.conflictCount = tree.conflictCopies().size();
    condition.conflicts =
        firstPaths(tree, tree.conflictCopies(), HostCondition::kMostConflictPaths);
  });
  condition.pendingChanges = sender->countUnsent();
  condition.failingChanges = sender->countFailed();
  const Activity::Facts facts = activity->facts();
  condition.uploads = facts.uploads;
  condition.downloads = facts.downloads;
  if (facts.storeError) {
    condition.isStoreReachable = facts.storeError->empty();
    condition.storeError = *facts.storeError;
    condition.isSignedOut = facts.isSignedOut;
  }
  if (outside.extensionStatus) condition.extension = outside.extensionStatus();
  return condition;
}

HostStatus VolumeControl::Work::status() {
  HostStatus status;
  static_cast<HostCondition&>(status) = condition();
  if (outside.usesPassthrough) status.usesPassthrough = outside.usesPassthrough();
  volume->look([&](Tree& tree, Nodes&) {
    status.knownItems = tree.count();
    tree.forEach([&](Item& item) {
      if (!item.content()) return;
      const std::uint64_t bytes = bytesHere(item);
      if (bytes == 0 && item.sizeBytes > 0) return;
      ++status.itemsHere;
      status.bytesHere += bytes;
    });
  });
  status.cacheLimitBytes = limits.cacheBytes;
  status.lastSignal = activity->facts().lastSignal;
  status.lastAudit = auditor->last();
  return status;
}

PendingChanges VolumeControl::Work::pending(const std::string& path, std::size_t most) {
  std::size_t total = 0;
  auto unsent = sender->unsent(path, most == 0 ? 0 : std::max(most, kMostOrdered), total);
  std::stable_sort(unsent.begin(), unsent.end(), [](const UnsentChange& a, const UnsentChange& b) {
    return a.waiting > b.waiting;
  });
  PendingChanges pending;
  pending.count = total;
  const platform::Date now = volume->services().clock->now();
  for (const UnsentChange& change : unsent) {
    if (pending.changes.size() == most) break;
    pending.changes.push_back(toldOf(change, now));
  }
  return pending;
}

Task<Answer<ItemId>> VolumeControl::Work::find(std::string path) {
  ItemId at = kRootItem;
  for (const std::string& name : partsOf(path)) {
    const auto visited = co_await awaitReply<Done>(
        [this, at](Reply<Done> reply) { lister->visit(at, std::move(reply)); });
    if (!visited.ok()) {
      if (visited.error()->code() != ENOTDIR && visited.error()->code() != ESTALE)
        co_return visited.error();
      co_return NSPOSIXError(ENOENT, "find '" + path + "'").share();
    }
    at = volume->look([&](Tree& tree, Nodes&) -> ItemId {
      const Item* folder = tree.find(at);
      const Item* child =
          folder == nullptr || !folder->isFolder ? nullptr : tree.child(*folder, name);
      return child == nullptr ? 0 : child->id;
    });
    if (at == 0) co_return NSPOSIXError(ENOENT, "find '" + path + "'").share();
  }
  co_return at;
}

// Lists the folders below that nobody has visited.
Task<Answer<Done>> VolumeControl::Work::listBelow(ItemId item) {
  std::vector<ItemId> left{item};
  while (!left.empty()) {
    const ItemId folder = left.back();
    left.pop_back();
    const bool isFolder = volume->look([folder](Tree& tree, Nodes&) {
      const Item* found = tree.find(folder);
      return found != nullptr && found->isFolder;
    });
    if (!isFolder) continue;
    const auto visited = co_await awaitReply<Done>(
        [this, folder](Reply<Done> reply) { lister->visit(folder, std::move(reply)); });
    if (!visited.ok()) co_return visited.error();
    volume->look([&](Tree& tree, Nodes&) {
      const Item* found = tree.find(folder);
      if (found == nullptr) return;
      for (const Item* child : found->part()->children) {
        if (child->isFolder) left.push_back(child->id);
      }
    });
  }
  co_return Done();
}

Task<Answer<Done>> VolumeControl::Work::perform(std::string action, std::vector<ItemId> items) {
  std::vector<NSFileProviderItemIdentifier> identifiers;
  std::string unsent;
  volume->look([&](Tree& tree, Nodes&) {
    for (const ItemId id : items) {
      const Item* item = tree.find(id);
      if (item != nullptr && item->there && tree.isSure(*item)) {
        identifiers.push_back(item->there->identifier);
      } else if (item != nullptr && unsent.empty()) {
        unsent = tree.path(*item);
      }
    }
  });
  if (!identifiers.empty()) {
    const auto done = co_await calls->perform(std::move(action), std::move(identifiers));
    if (!done.ok()) co_return done.error();
  }
  if (!unsent.empty()) co_return notAtStore(unsent);
  co_return Done();
}

// An item that cannot be described keeps the policy that was known of it.
Task<void> VolumeControl::Work::askPolicies(std::vector<ItemId> items) {
  for (const ItemId item : items) {
    const auto asked = co_await awaitReply<Done>(
        [this, item](Reply<Done> reply) { keeper->askPolicy(item, std::move(reply)); });
    if (!asked.ok())
      volume->services().log->failure("policy", "ask whether to keep '" + volume->path(item) + "'",
                                      asked.error()->localizedDescription());
  }
}

Task<Answer<Done>> VolumeControl::Work::actOn(ItemAction action, std::string path) {
  const auto found = co_await find(path);
  if (!found.ok()) co_return found.error();
  if (action == ItemAction::pin || action == ItemAction::download) {
    const auto listed = co_await listBelow(found.value());
    if (!listed.ok()) co_return listed.error();
  }
  std::vector<ItemId> files = filesBelow(*volume, found.value());
  if (action == ItemAction::download) co_return co_await download(std::move(files));
  if (action != ItemAction::pin) {
    // What has nothing to lose is left alone: a folder may have a million of them.
    volume->look([&](Tree& tree, Nodes&) {
      std::erase_if(files, [&](ItemId id) {
        const Item* item = tree.find(id);
        if (item == nullptr || !item->there) return item == nullptr || action == ItemAction::unpin;
        return !item->content() && item->there->policy != kKept;
      });
    });
  }
  if (action == ItemAction::unpin) {
    std::vector<NSFileProviderItemIdentifier> identifiers;
    volume->look([&](Tree& tree, Nodes&) {
      for (const ItemId id : files) {
        if (const Item* item = tree.find(id); item != nullptr && item->there)
          identifiers.push_back(item->there->identifier);
      }
    });
    for (const auto& identifier : identifiers) outside.unpin(identifier);
    co_await askPolicies(std::move(files));
    co_return Done();
  }
  const auto done =
      co_await perform(action == ItemAction::pin ? kDownloadNow : kMakeOnlineOnly, files);
  std::erase_if(files, [this](ItemId id) {
    return volume->look([id](Tree& tree, Nodes&) {
      const Item* item = tree.find(id);
      return item == nullptr || !item->there;
    });
  });
  co_await askPolicies(std::move(files));
  co_return done;
}

bool VolumeControl::Work::isAnyHere(ItemId file) {
  return volume->look([file](Tree& tree, Nodes&) {
    const Item* item = tree.find(file);
    return item != nullptr && bytesHere(*item) > 0;
  });
}

Task<Answer<Done>> VolumeControl::Work::download(std::vector<ItemId> files) {
  NSErrorPtr first;
  for (const ItemId file : files) {
    if (!isAnyHere(file)) {
      fetchCauses->note(file, {DownloadCause::Kind::command, {}, volume->services().clock->now()});
    }
    const auto done = co_await awaitReply<Done>([this, file](Reply<Done> reply) {
      fillContents(volume, *contents, file, std::move(reply));
    });
    if (!done.ok() && !first) first = done.error();
  }
  if (first) co_return first;
  co_return Done();
}

Task<void> VolumeControl::Work::act(std::shared_ptr<Work> self, ItemAction action,
                                    std::vector<std::string> paths, Reply<Each<Done>> reply) {
  Each<Done> answers;
  for (const std::string& path : paths) answers.push_back(co_await self->actOn(action, path));
  reply(std::move(answers));
}

Task<Answer<std::string>> VolumeControl::Work::linkOf(ItemId item) {
  outside.takeCopied();
  const auto done = co_await perform(kCopyShareLink, {item});
  if (!done.ok()) co_return done.error();
  std::string link = outside.takeCopied();
  if (link.empty())
    co_return NSPOSIXError(ENOTSUP, "make a link of '" + volume->path(item) + "'").share();
  co_return link;
}

Task<Each<std::string>> VolumeControl::Work::linksOf(std::vector<std::string> paths) {
  Each<std::string> answers;
  std::vector<ItemId> linked;
  for (const std::string& path : paths) {
    const auto found = co_await find(path);
    answers.push_back(found.ok() ? co_await linkOf(found.value())
                                 : Answer<std::string>(found.error()));
    if (answers.back().ok()) linked.push_back(found.value());
  }
  // Each was copied in the place of the one before: what is pasted next is to be all of them.
  if (linked.size() > 1) {
    const auto copied = co_await perform(kCopyShareLink, std::move(linked));
    if (!copied.ok())
      volume->services().log->failure("link", "copy all the links",
                                      copied.error()->localizedDescription());
  }
  co_return answers;
}

// One after the other, whoever asks: the extension has one place to put them.
Task<void> VolumeControl::Work::links(std::shared_ptr<Work> self) {
  for (;;) {
    LinkRequest request;
    {
      platform::MutexLock lock(self->linkMutex_);
      if (self->linkRequests_.empty()) {
        self->makesLinks_ = false;
        co_return;
      }
      request = std::move(self->linkRequests_.front());
      self->linkRequests_.pop_front();
    }
    request.reply(co_await self->linksOf(std::move(request.paths)));
  }
}

void VolumeControl::Work::beginLinks(std::vector<std::string> paths,
                                     Reply<Each<std::string>> reply) {
  {
    platform::MutexLock lock(linkMutex_);
    linkRequests_.push_back({std::move(paths), std::move(reply)});
    if (std::exchange(makesLinks_, true)) return;
  }
  platform::spawnDetached("make links", links(shared_from_this()));
}

Task<Answer<ItemState>> VolumeControl::Work::stateOf(std::string path) {
  const auto found = co_await find(path);
  if (!found.ok()) co_return found.error();
  const auto state = volume->look([&](Tree& tree, Nodes&) -> std::optional<ItemState> {
    const Item* item = tree.find(found.value());
    if (item == nullptr) return std::nullopt;
    return stateOfItem(*item);
  });
  if (!state) co_return NSPOSIXError(ENOENT, "find '" + path + "'").share();
  ItemState told = *state;
  if (!told.isFolder) {
    auto changes = pending(path, 1).changes;
    if (!changes.empty()) told.pending = std::move(changes.front());
  }
  co_return told;
}

Task<void> VolumeControl::Work::states(std::shared_ptr<Work> self, std::vector<std::string> paths,
                                       Reply<Each<ItemState>> reply) {
  Each<ItemState> answers;
  for (const std::string& path : paths) answers.push_back(co_await self->stateOf(path));
  reply(std::move(answers));
}

Task<Answer<ItemReasons>> VolumeControl::Work::reasonsOf(std::string path) {
  auto state = co_await stateOf(path);
  if (!state.ok()) co_return state.error();
  const auto found = co_await find(path);
  if (!found.ok()) co_return found.error();
  ItemReasons told;
  told.state = std::move(state.value());
  volume->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(found.value());
    if (item == nullptr) return;
    told.isAtStore = item->isRoot() || static_cast<bool>(item->there);
    if (item->isFolder) return;
    if (const NSErrorPtr error = whyNotEvictable(tree, *item))
      told.whyNotEvictable = error->localizedDescription();
    if (item->content() && item->content()->usedSeconds > 0)
      told.lastUsed = platform::Date(std::chrono::seconds(item->content()->usedSeconds));
  });
  told.cause = fetchCauses->of(found.value());
  told.storeError = activity->facts().storeError.value_or("");
  co_return told;
}

Task<void> VolumeControl::Work::reasons(std::shared_ptr<Work> self, std::vector<std::string> paths,
                                        Reply<Each<ItemReasons>> reply) {
  Each<ItemReasons> answers;
  for (const std::string& path : paths) answers.push_back(co_await self->reasonsOf(path));
  reply(std::move(answers));
}

Task<Answer<std::vector<EntryState>>> VolumeControl::Work::entriesOf(std::string folder) {
  const auto found = co_await find(folder);
  if (!found.ok()) co_return found.error();
  const ItemId id = found.value();
  const auto visited = co_await awaitReply<Done>(
      [this, id](Reply<Done> reply) { lister->visit(id, std::move(reply)); });
  if (!visited.ok()) co_return visited.error();
  // Before the entries, and once for all of them: whoever became unsent in between is told by the next change.
  std::size_t total = 0;
  std::unordered_map<ItemId, PendingChange> unsent;
  const platform::Date now = volume->services().clock->now();
  for (const UnsentChange& change : sender->unsent(folder, kEveryone, total))
    unsent.emplace(change.item, toldOf(change, now));
  std::vector<EntryState> entries;
  volume->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(id);
    if (item == nullptr || !item->isFolder) return;
    for (const Item* child : item->part()->children) {
      EntryState entry{std::string(child->name()), stateOfItem(*child)};
      if (const auto change = unsent.find(child->id); change != unsent.end())
        entry.state.pending = std::move(change->second);
      entries.push_back(std::move(entry));
    }
  });
  co_return entries;
}

Task<void> VolumeControl::Work::folderStates(std::shared_ptr<Work> self, std::string folder,
                                             Reply<std::vector<EntryState>> reply) {
  reply(co_await self->entriesOf(std::move(folder)));
}

}  // namespace kestrune::host
