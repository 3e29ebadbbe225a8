#include "host/LiveTree.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "platform/file_provider/NSFileProviderTypes.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;

constexpr std::uint64_t kCookieOfSelf = 1;
constexpr std::uint64_t kCookieOfParent = 2;

NSErrorPtr errorOf(int number, const char* what) { return NSPOSIXError(number, what).share(); }

NSErrorPtr folderGone() { return errorOf(ENOENT, "find the folder"); }

}  // namespace

FileContents& contentsOf(const OpenFile& file) {
  return *static_cast<const OpenVersion&>(file).contents;
}

struct LiveTree::Aftermath {
  std::vector<Waiter> waiters;
  NSErrorPtr waitersError;      // null: success
  std::vector<Waiter> orphans;  // who waited for a folder that is gone
  std::vector<std::shared_ptr<FileContents>> abandoned;
  std::string leftOut;
};

LiveTree::LiveTree(Services services)
    : services_(std::move(services)), tree_(platform::NSFileProviderRootContainerItemIdentifier) {
  tree_.root().item.modified = services_.clock->now();
}

void LiveTree::setContentsFactory(ContentsFactory factory) {
  contentsFactory_ = std::move(factory);
}

void LiveTree::setListedLate(std::function<void(NodeId)> listedLate) {
  listedLate_ = std::move(listedLate);
}

void LiveTree::lookup(NodeId folder, std::string name, Reply<Entry> reply) {
  std::optional<Answer<Entry>> answer;
  {
    MutexLock lock(mutex_);
    Node* node = tree_.find(folder);
    if (node == nullptr || !node->linked) {
      answer = errorOf(ESTALE, "look up in a folder that is gone");
    } else if (!node->isFolder) {
      answer = errorOf(ENOTDIR, "look up in a file");
    } else if (node->listed) {
      answer = entryIn(*node, name);
    }
  }
  if (answer) {
    reply(std::move(*answer));
    return;
  }
  auto visited = [self = shared_from_this(), folder, name = std::move(name),
                  reply = std::move(reply)](const Answer<Done>& done) {
    if (done.ok()) {
      self->lookup(folder, name, reply);
    } else {
      reply(done.error());
    }
  };
  visit(folder, std::move(visited));
}

Answer<Entry> LiveTree::entryIn(Node& folder, const std::string& name) {
  Node* child = tree_.child(folder, name);
  if (child == nullptr) return Entry();
  ++child->kernelReferences;
  return Entry{child->id, attributesOf(*child)};
}

void LiveTree::forget(NodeId node, std::uint64_t count) {
  MutexLock lock(mutex_);
  Node* found = tree_.find(node);
  if (found != nullptr && node != kRootNode) tree_.dropKernelReferences(*found, count);
}

Attributes LiveTree::attributesOf(const Node& node) const {
  Attributes attributes;
  attributes.inode = node.inode;
  attributes.isFolder = node.isFolder;
  attributes.sizeBytes = node.sizeBytes();
  attributes.storedBytes = node.storedBytes.value_or(0);
  attributes.modified = FileTime::of(std::max(node.item.modified, node.entriesChanged));
  attributes.accessed = attributes.modified;
  attributes.changed = attributes.modified;
  return attributes;
}

Answer<Attributes> LiveTree::attributes(NodeId node) {
  MutexLock lock(mutex_);
  const Node* found = tree_.find(node);
  if (found == nullptr || (!found->linked && !found->isFolder && found->openFiles == 0)) {
    return errorOf(ESTALE, "examine a version that is gone");
  }
  return attributesOf(*found);
}

void LiveTree::visit(NodeId folder, Reply<Done> reply) {
  platform::NSFileProviderItemIdentifier identifier;
  bool begin = false;
  std::optional<Answer<Done>> answer;
  {
    MutexLock lock(mutex_);
    const Node* node = tree_.find(folder);
    if (node == nullptr || !node->linked) {
      answer = errorOf(ESTALE, "open a folder that is gone");
    } else if (!node->isFolder) {
      answer = errorOf(ENOTDIR, "open a file as a folder");
    } else if (node->listed) {
      answer = Done();
    } else {
      const auto [visit, isNew] = visits_.try_emplace(folder);
      begin = isNew;
      identifier = node->item.identifier;
      OnceReply<Done> once(std::exchange(reply, nullptr));
      auto timeOut = [once] { once.answer(errorOf(ETIMEDOUT, "wait for the folder's content")); };
      visit->second.waiters.push_back(
          {once, services_.timers->after(services_.patience, std::move(timeOut))});
    }
  }
  if (answer) reply(std::move(*answer));
  if (!begin) return;
  enumerateFolder(services_.extension, std::move(identifier),
                  [self = shared_from_this(), folder](Answer<Listing> listing) {
                    self->enumerated(folder, std::move(listing));
                  });
}

void LiveTree::enumerated(NodeId folder, Answer<Listing> listing) {
  Aftermath aftermath;
  std::string failedPath;
  bool late = false;
  {
    MutexLock lock(mutex_);
    const auto visit = visits_.extract(folder);
    if (visit.empty()) return;  // the folder went meanwhile, and everybody was told
    aftermath.waiters = std::move(visit.mapped().waiters);
    Node& node = *tree_.find(folder);
    if (listing.ok()) {
      Effects effects;
      tree_.setChildren(node, listing.value().items, services_.clock->now(), effects);
      anchors_[folder] = std::move(listing.value().anchor);
      late = visit.mapped().changesAsked;
      takeEffects(node, std::move(effects), aftermath);
    } else {
      aftermath.waitersError = listing.error();
      failedPath = tree_.path(node);
    }
  }
  if (aftermath.waitersError) {
    services_.log->failure("enumerate", "list '" + failedPath + "'",
                           aftermath.waitersError->localizedDescription());
  }
  finish(aftermath);
  if (late && listedLate_) listedLate_(folder);
}

void LiveTree::takeEffects(const Node& folder, Effects effects, Aftermath& aftermath) {
  for (const NodeId gone : effects.detachedFolders) {
    anchors_.erase(gone);
    if (auto visit = visits_.extract(gone); !visit.empty()) {
      for (auto& waiter : visit.mapped().waiters) aftermath.orphans.push_back(std::move(waiter));
    }
  }
  aftermath.abandoned = std::move(effects.abandonedContents);
  // At once: nobody who sees the new version may have the old one fetched.
  for (const auto& contents : aftermath.abandoned) contents->abandon();
  if (effects.leftOut > 0) {
    aftermath.leftOut = std::to_string(effects.leftOut) + " items of '" + tree_.path(folder) +
                        "' cannot be shown as files; the first is " + effects.firstLeftOut;
  }
  if (!effects.cache.empty()) services_.kernel->tell(std::move(effects.cache), nullptr);
}

void LiveTree::finish(const Aftermath& aftermath) {
  if (!aftermath.leftOut.empty()) services_.log->note("names", aftermath.leftOut);
  for (const auto& contents : aftermath.abandoned) contents->discard();
  for (const auto& waiter : aftermath.orphans) {
    services_.timers->cancel(waiter.timeOut);
    waiter.reply.answer(folderGone());
  }
  for (const auto& waiter : aftermath.waiters) {
    services_.timers->cancel(waiter.timeOut);
    if (aftermath.waitersError) {
      waiter.reply.answer(aftermath.waitersError);
    } else {
      waiter.reply.answer(Done());
    }
  }
}

NSErrorPtr LiveTree::readFolder(NodeId folder, std::uint64_t after, bool remember,
                                FolderSink& sink) {
  MutexLock lock(mutex_);
  const Node* node = tree_.find(folder);
  if (node == nullptr) return errorOf(ESTALE, "read a folder that is gone");
  if (!node->isFolder) return errorOf(ENOTDIR, "read a file as a folder");
  const Node& parent = node->parent != nullptr ? *node->parent : *node;
  if (after < kCookieOfSelf && !sink.add({".", {0, attributesOf(*node)}, kCookieOfSelf}))
    return nullptr;
  if (after < kCookieOfParent && !sink.add({"..", {0, attributesOf(parent)}, kCookieOfParent}))
    return nullptr;
  for (auto at = node->childrenByCookie.upper_bound(after); at != node->childrenByCookie.end();
       ++at) {
    Node& child = *at->second;
    if (!sink.add({child.item.name, {child.id, attributesOf(child)}, child.cookie})) break;
    if (remember) ++child.kernelReferences;
  }
  return nullptr;
}

Answer<OpenFilePtr> LiveTree::open(NodeId node) {
  MutexLock lock(mutex_);
  Node* found = tree_.find(node);
  if (found == nullptr || !found->linked) return errorOf(ESTALE, "open a version that is gone");
  if (found->isFolder) return errorOf(EISDIR, "open a folder as a file");
  if (!found->contents) found->contents = contentsFactory_(node, found->item.identifier);
  ++found->openFiles;
  found->contents->opened();
  auto file = std::make_shared<OpenVersion>(node, found->contents);
  file->listedEmpty = !found->storedBytes && found->sizeBytes() == 0;
  return OpenFilePtr(std::move(file));
}

void LiveTree::release(const OpenFile& file) {
  contentsOf(file).closed();
  MutexLock lock(mutex_);
  if (Node* found = tree_.find(file.node)) tree_.dropOpenFile(*found);
}

void LiveTree::contentsArrived(NodeId node, std::int64_t sizeBytes, std::function<void()> then) {
  std::vector<CacheUpdate> updates;
  bool larger = false;
  {
    MutexLock lock(mutex_);
    Node* found = tree_.find(node);
    if (found != nullptr) {
      larger = found->sizeBytes() < sizeBytes;
      const bool smaller = found->sizeBytes() > sizeBytes;
      found->storedBytes = sizeBytes;
      if (!smaller) {
        updates.push_back({CacheUpdate::Kind::attributes, node});
      } else if (found->parent != nullptr) {
        updates.push_back({CacheUpdate::Kind::entry, found->parent->id, found->item.name});
      }
    }
  }
  // A larger file must be announced before its bytes, or the reader stops at the size that was listed. A smaller one must
  // not be: when a read ends early the kernel shortens the file by itself, but not if it was told to doubt the attributes
  // meanwhile, and then the reader would see zeros. So it only looks up the name again, and learns the size with that.
  if (larger) {
    services_.kernel->tell(std::move(updates), std::move(then));
  } else {
    then();
    if (!updates.empty()) services_.kernel->tell(std::move(updates), nullptr);
  }
}

std::vector<NodeId> LiveTree::listedFolders() {
  MutexLock lock(mutex_);
  for (auto& [folder, visit] : visits_) visit.changesAsked = true;
  std::vector<NodeId> folders;
  folders.reserve(anchors_.size());
  for (const auto& [folder, anchor] : anchors_) folders.push_back(folder);
  return folders;
}

std::optional<LiveTree::FolderState> LiveTree::listedFolder(NodeId folder) {
  MutexLock lock(mutex_);
  const auto anchor = anchors_.find(folder);
  if (anchor == anchors_.end()) return std::nullopt;
  return FolderState{tree_.find(folder)->item.identifier, anchor->second};
}

void LiveTree::applyChanges(NodeId folder, const ChangeSet& changes) {
  Aftermath aftermath;
  {
    MutexLock lock(mutex_);
    const auto anchor = anchors_.find(folder);
    if (anchor == anchors_.end()) return;
    anchor->second = changes.anchor;
    Node& node = *tree_.find(folder);
    Effects effects;
    tree_.applyChanges(node, changes.changes, services_.clock->now(), effects);
    takeEffects(node, std::move(effects), aftermath);
  }
  finish(aftermath);
}

void LiveTree::applyListing(NodeId folder, const Listing& listing) {
  Aftermath aftermath;
  {
    MutexLock lock(mutex_);
    const auto anchor = anchors_.find(folder);
    if (anchor == anchors_.end()) return;
    anchor->second = listing.anchor;
    Node& node = *tree_.find(folder);
    Effects effects;
    tree_.setChildren(node, listing.items, services_.clock->now(), effects);
    takeEffects(node, std::move(effects), aftermath);
  }
  finish(aftermath);
}

bool LiveTree::isWithin(NodeId node, NodeId folder) {
  MutexLock lock(mutex_);
  const Node* inner = tree_.find(node);
  const Node* outer = tree_.find(folder);
  return inner != nullptr && outer != nullptr && Tree::isWithin(*inner, *outer);
}

NodeId LiveTree::folderOf(NodeId node) {
  MutexLock lock(mutex_);
  const Node* found = tree_.find(node);
  return found != nullptr && found->parent != nullptr ? found->parent->id : 0;
}

std::string LiveTree::path(NodeId node) {
  MutexLock lock(mutex_);
  const Node* found = tree_.find(node);
  return found == nullptr ? "a file that is gone" : tree_.path(*found);
}

}  // namespace kestrune::host
