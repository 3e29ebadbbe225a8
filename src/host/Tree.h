// The folder tree as far as it has been visited: which node has which name in which folder, what is known of it, and how
// long it must be remembered. It knows neither the extension's calls nor the kernel, and does no input or output.
//
// An *item* is what the extension describes; its inode number is what users see, and stays while the item lives. A *node*
// is what the kernel is told about: its number stands for one version of a file's contents, and those never change. When
// the version of a file that has ever been opened changes, its node is detached (it loses its name, open files finish on
// it) and a successor takes its place, with a new node number and the same inode number. So the kernel's page cache
// cannot mix the bytes of two versions. Folders, and files that nobody opened yet, are updated in place.
//
//   linked    it has a name in its folder, or is the root
//   detached  it has none any more, but the kernel refers to it or has files open on it; then it is forgotten
//
// Items are recognised by the extension's identifier: the same identifier under another name or in another folder is a
// move. Identifiers are compared, never interpreted.
//
// Threads: none of its own; the owner's lock guards every call and every Node.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/basics/KernelCache.h"
#include "host/in/ItemRecord.h"

namespace kestrune::host {

class FileContents;

struct Node {
  Node(NodeId nodeId, InodeNumber inodeNumber, bool folder)
      : id(nodeId), inode(inodeNumber), isFolder(folder) {}
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  const NodeId id;
  const InodeNumber inode;
  const bool isFolder;

  ItemRecord item;
  /// Null for the root and for detached nodes.
  Node* parent = nullptr;
  bool linked = true;
  /// Its place among its siblings, for readers that come back for more: never given to another sibling, and kept by a
  /// successor.
  std::uint64_t cookie = 0;

  // Files.
  /// The bytes of this version; made when it is first opened.
  std::shared_ptr<FileContents> contents;
  /// How many bytes it has, once they are on the local disk. They count, not the listed size.
  std::optional<std::int64_t> storedBytes;
  std::int64_t sizeBytes() const { return storedBytes.value_or(item.sizeBytes); }

  // Folders.
  /// Its content has been enumerated, and is kept up to date from then on.
  bool listed = false;
  std::map<std::uint64_t, Node*> childrenByCookie;
  std::unordered_map<std::string_view, Node*> childrenByName;
  std::uint64_t nextCookie = 3;  // 1 and 2 are "." and ".."
  /// When a name last came or went here, or "never".
  platform::Date entriesChanged = platform::kDistantPast;

  // What keeps it alive when it is detached.
  std::uint64_t kernelReferences = 0;
  std::uint64_t openFiles = 0;
};

/// What follows from a change of the tree outside of it.
struct Effects {
  std::vector<CacheUpdate> cache;
  /// Contents whose node was detached.
  std::vector<std::shared_ptr<FileContents>> abandonedContents;
  /// Folders that were detached.
  std::vector<NodeId> detachedFolders;
  /// Folders in which a name came or went.
  std::set<NodeId> changedFolders;
  /// Items that cannot be shown: how many, and the first of them with its reason.
  std::size_t leftOut = 0;
  std::string firstLeftOut;
};

class Tree {
 public:
  explicit Tree(std::string rootIdentifier);
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  Node& root() { return *root_; }
  /// Null if there is none, or none any more.
  Node* find(NodeId id);
  /// The linked child of that name, or null.
  Node* child(const Node& folder, std::string_view name) const;
  /// "/a/b"; what is known of it for a detached node. For log lines.
  std::string path(const Node& node) const;
  /// The folder itself or a folder above it.
  static bool isWithin(const Node& node, const Node& folder);

  /// Makes `items` the whole content of `folder`. Of two items with one name, or one identifier, the first is shown.
  void setChildren(Node& folder, const std::vector<ItemRecord>& items, platform::Date now,
                   Effects& effects);
  /// Applies changes reported for `folder`. The deletion of an item that is not in this folder does nothing.
  void applyChanges(Node& folder, const std::vector<ReportedChange>& changes, platform::Date now,
                    Effects& effects);

  /// Takes back references that the kernel was given, or an open file; the node may be gone afterwards.
  void dropKernelReferences(Node& node, std::uint64_t count);
  void dropOpenFile(Node& node);

 private:
  // The nodes that one listing or one batch of changes has shown already.
  using Shown = std::unordered_set<const Node*>;

  Node& makeNode(InodeNumber inode, bool isFolder);
  void link(Node& node, Node& folder, std::uint64_t cookie);
  void unlinkFromParent(Node& node);
  void remove(Node& node, Effects& effects);
  void detach(Node& node, Effects& effects);
  void upsert(Node& folder, const ItemRecord& item, Shown& shown, Effects& effects);
  const char* whyNotShown(const Node& folder, const ItemRecord& item, const Shown& shown) const;
  void create(Node& folder, const ItemRecord& item, Shown& shown, Effects& effects);
  void move(Node& node, Node& folder, const ItemRecord& item, Effects& effects);
  void update(Node& node, const ItemRecord& item, Shown& shown, Effects& effects);
  void succeed(Node& node, const ItemRecord& item, Shown& shown, Effects& effects);
  void nameChanged(const Node& folder, CacheUpdate::Kind kind, std::string name, NodeId child,
                   Effects& effects) const;
  void stampFolders(platform::Date now, Effects& effects);
  void forgetIfUnused(Node& node);
  bool isKnownToKernel(const Node& node) const {
    return &node == root_ || node.kernelReferences > 0;
  }

  NodeId nextNode_ = kRootNode;
  InodeNumber nextInode_ = kRootNode;
  std::unordered_map<NodeId, std::unique_ptr<Node>> nodes_;
  std::unordered_map<platform::NSFileProviderItemIdentifier, Node*> byIdentifier_;  // linked nodes
  Node* root_;
};

}  // namespace kestrune::host
