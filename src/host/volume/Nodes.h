// What the kernel calls things. A node stands for one version of an item: when the store's contents replace an item's, the
// kernel gets a new node for it, so that its page cache cannot mix the bytes of two versions; who has the old one open
// finishes on that. Inode numbers, which users see, are the items' and stay.
//
// Threads: none of its own; the lock of the volume guards every call.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>

#include "host/tree/Tree.h"

namespace kestrune::host {

struct Node {
  NodeId id = 0;
  ItemId item = 0;
  /// Set when it no longer stands for its item.
  std::optional<DetachedVersion> detached;
  std::uint64_t kernelReferences = 0;
  std::uint64_t openFiles = 0;
};

class Nodes {
 public:
  Nodes();

  /// The node of the item's present version, made if the kernel knows none.
  Node& of(Item& item);
  /// Null if there is none, or none any more.
  Node* find(NodeId id);
  void detach(const DetachedVersion& version);
  void forget(NodeId id, std::uint64_t count, Tree& tree);
  void opened(NodeId id);
  void released(NodeId id, Tree& tree);

 private:
  void dropIfUnused(Node& node, Tree& tree);

  NodeId next_ = kRootNode + 1;
  std::unordered_map<NodeId, Node> nodes_;
};

}  // namespace kestrune::host
