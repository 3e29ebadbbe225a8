#include "host/Tree.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/FileContents.h"
#include "host/basics/ItemName.h"

namespace kestrune::host {

using Kind = CacheUpdate::Kind;

Tree::Tree(std::string rootIdentifier) : root_(&makeNode(nextInode_++, true)) {
  assert(root_->id == kRootNode);
  root_->item.identifier = std::move(rootIdentifier);
  root_->item.isFolder = true;
  byIdentifier_.emplace(root_->item.identifier, root_);
}

Node* Tree::find(NodeId id) {
  const auto found = nodes_.find(id);
  return found == nodes_.end() ? nullptr : found->second.get();
}

Node* Tree::child(const Node& folder, std::string_view name) const {
  const auto found = folder.childrenByName.find(name);
  return found == folder.childrenByName.end() ? nullptr : found->second;
}

std::string Tree::path(const Node& node) const {
  if (&node == root_) return "/";
  std::vector<const Node*> chain;
  for (const Node* at = &node; at != nullptr && at != root_; at = at->parent) chain.push_back(at);
  std::string text;
  for (auto at = chain.rbegin(); at != chain.rend(); ++at) text += "/" + (*at)->item.name;
  return text;
}

bool Tree::isWithin(const Node& node, const Node& folder) {
  for (const Node* at = &node; at != nullptr; at = at->parent) {
    if (at == &folder) return true;
  }
  return false;
}

void Tree::setChildren(Node& folder, const std::vector<ItemRecord>& items, platform::Date now,
                       Effects& effects) {
  Shown shown;
  shown.reserve(items.size());
  for (const ItemRecord& item : items) upsert(folder, item, shown, effects);
  std::vector<Node*> gone;
  for (const auto& [cookie, node] : folder.childrenByCookie) {
    if (!shown.contains(node)) gone.push_back(node);
  }
  for (Node* node : gone) remove(*node, effects);
  folder.listed = true;
  stampFolders(now, effects);
}

void Tree::applyChanges(Node& folder, const std::vector<ReportedChange>& changes,
                        platform::Date now, Effects& effects) {
  Shown shown;
  for (const ReportedChange& change : changes) {
    if (change.kind == ReportedChange::Kind::update) {
      upsert(folder, change.item, shown, effects);
      continue;
    }
    const auto found = byIdentifier_.find(change.item.identifier);
    // An item that moved elsewhere is reported as deleted by the folder that it left.
    if (found == byIdentifier_.end() || found->second->parent != &folder) continue;
    shown.erase(found->second);
    remove(*found->second, effects);
  }
  stampFolders(now, effects);
}

void Tree::dropKernelReferences(Node& node, std::uint64_t count) {
  assert(node.kernelReferences >= count);
  node.kernelReferences -= std::min(count, node.kernelReferences);
  forgetIfUnused(node);
}

void Tree::dropOpenFile(Node& node) {
  assert(node.openFiles > 0);
  --node.openFiles;
  forgetIfUnused(node);
}

Node& Tree::makeNode(InodeNumber inode, bool isFolder) {
  const NodeId id = nextNode_++;
  auto made = std::make_unique<Node>(id, inode, isFolder);
  Node& node = *made;
  nodes_.emplace(id, std::move(made));
  return node;
}

// REQUIRES: node.item is set, its name is free in `folder` and its identifier is free.
void Tree::link(Node& node, Node& folder, std::uint64_t cookie) {
  node.parent = &folder;
  node.cookie = cookie;
  folder.childrenByCookie.emplace(cookie, &node);
  folder.childrenByName.emplace(node.item.name, &node);
  byIdentifier_.emplace(node.item.identifier, &node);
}

void Tree::unlinkFromParent(Node& node) {
  Node& folder = *node.parent;
  folder.childrenByCookie.erase(node.cookie);
  folder.childrenByName.erase(node.item.name);
  byIdentifier_.erase(node.item.identifier);
  node.parent = nullptr;
}

// Takes a name out of its folder with everything below it.
void Tree::remove(Node& node, Effects& effects) {
  nameChanged(*node.parent, Kind::deletion, node.item.name, node.id, effects);
  std::vector<Node*> pending = {&node};
  while (!pending.empty()) {
    Node* at = pending.back();
    if (!at->childrenByCookie.empty()) {
      pending.push_back(at->childrenByCookie.rbegin()->second);
      continue;
    }
    pending.pop_back();
    unlinkFromParent(*at);
    detach(*at, effects);
  }
}

// REQUIRES: unlinked from its parent, without children. The node may be gone afterwards.
void Tree::detach(Node& node, Effects& effects) {
  node.linked = false;
  if (node.contents) effects.abandonedContents.push_back(node.contents);
  if (node.isFolder) effects.detachedFolders.push_back(node.id);
  forgetIfUnused(node);
}

void Tree::forgetIfUnused(Node& node) {
  if (!node.linked && node.kernelReferences == 0 && node.openFiles == 0) nodes_.erase(node.id);
}

const char* Tree::whyNotShown(const Node& folder, const ItemRecord& item,
                              const Shown& shown) const {
  if (const char* reason = whyNotAFileName(item.name)) return reason;
  // A remote name with a slash in it can read as an item of some other folder.
  if (item.parentIdentifier && *item.parentIdentifier != folder.item.identifier) {
    return "it says that it lies in another folder";
  }
  if (const Node* named = child(folder, item.name); named != nullptr && shown.contains(named)) {
    return "another item has its name";
  }
  const auto found = byIdentifier_.find(item.identifier);
  if (found == byIdentifier_.end()) return nullptr;
  if (shown.contains(found->second)) return "another item has its identifier";
  if (isWithin(folder, *found->second)) return "its identifier is that of a folder that holds it";
  return nullptr;
}

void Tree::upsert(Node& folder, const ItemRecord& item, Shown& shown, Effects& effects) {
  if (const char* reason = whyNotShown(folder, item, shown)) {
    if (effects.leftOut++ == 0)
      effects.firstLeftOut = "'" + item.name.substr(0, kLongestNameBytes) + "': " + reason;
    return;
  }
  Node* named = child(folder, item.name);
  if (named != nullptr && named->item.identifier != item.identifier) {
    remove(*named, effects);
    named = nullptr;
  }
  // Looked for only now: it may have been below the item whose name it takes.
  const auto found = byIdentifier_.find(item.identifier);
  Node* known = found == byIdentifier_.end() ? nullptr : found->second;
  if (known != nullptr && known->isFolder != item.isFolder) {
    // A file that became a folder is another item under an old name.
    remove(*known, effects);
    known = nullptr;
  }
  if (known == nullptr) {
    create(folder, item, shown, effects);
    return;
  }
  if (known != named) move(*known, folder, item, effects);
  update(*known, item, shown, effects);
}

void Tree::create(Node& folder, const ItemRecord& item, Shown& shown, Effects& effects) {
  Node& node = makeNode(nextInode_++, item.isFolder);
  node.item = item;
  link(node, folder, folder.nextCookie++);
  shown.insert(&node);
  // The kernel may remember that there was no such name.
  nameChanged(folder, Kind::entry, item.name, 0, effects);
}

void Tree::move(Node& node, Node& folder, const ItemRecord& item, Effects& effects) {
  nameChanged(*node.parent, Kind::entry, node.item.name, 0, effects);
  unlinkFromParent(node);
  node.item.name = item.name;
  link(node, folder, folder.nextCookie++);
  nameChanged(folder, Kind::entry, item.name, 0, effects);
}

// REQUIRES: `node` is linked under the item's name and identifier, and of its kind.
void Tree::update(Node& node, const ItemRecord& item, Shown& shown, Effects& effects) {
  const bool contentsChanged = !node.isFolder && !node.item.sameContents(item);
  if (contentsChanged && node.contents) {
    succeed(node, item, shown, effects);
    return;
  }
  shown.insert(&node);
  const std::int64_t shownBytes = node.sizeBytes();
  const bool moved = node.item.modified != item.modified;
  node.item = item;
  const bool visible = moved || node.sizeBytes() != shownBytes;
  if (visible && isKnownToKernel(node)) effects.cache.push_back({Kind::attributes, node.id});
}

// A new node for a new version of a file, in the place of the old one.
void Tree::succeed(Node& node, const ItemRecord& item, Shown& shown, Effects& effects) {
  Node& folder = *node.parent;
  const std::uint64_t cookie = node.cookie;
  Node& successor = makeNode(node.inode, false);
  unlinkFromParent(node);
  successor.item = item;
  link(successor, folder, cookie);
  shown.insert(&successor);
  nameChanged(folder, Kind::entry, item.name, 0, effects);
  detach(node, effects);
}

void Tree::nameChanged(const Node& folder, Kind kind, std::string name, NodeId child,
                       Effects& effects) const {
  // Of a folder that is listed for the first time nobody has been told anything.
  if (!folder.listed) return;
  effects.changedFolders.insert(folder.id);
  if (isKnownToKernel(folder)) effects.cache.push_back({kind, folder.id, std::move(name), child});
}

// The modification time of a folder moves when a name in it comes, goes or stands for another node. The kernel tells by
// it that a listing that it put together meanwhile is an old one.
void Tree::stampFolders(platform::Date now, Effects& effects) {
  for (const NodeId id : std::exchange(effects.changedFolders, {})) {
    Node* folder = find(id);
    if (folder == nullptr) continue;
    // Compared before adding: "never" is the earliest date.
    folder->entriesChanged =
        folder->entriesChanged < now ? now : folder->entriesChanged + std::chrono::microseconds(1);
    if (isKnownToKernel(*folder)) effects.cache.push_back({Kind::listing, id});
  }
}

}  // namespace kestrune::host
