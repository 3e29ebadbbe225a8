// What the kernel calls things. A node stands for one version of an item: when the store's contents replace an item's, the
// kernel gets a new node for it, so that its page cache cannot mix the bytes of two versions; who has the old one open
// finishes on that. Inode numbers, which users see, are the items' and stay.
//
// Threads: none of its own; the lock of the volume guards every call.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <boost/unordered/unordered_flat_set.hpp>

#include "host/tree/Tree.h"

namespace kestrune::host {

struct Node {
  NodeId id = 0;
  ItemId item = 0;
  /// Set when it no longer stands for its item.
  std::unique_ptr<DetachedVersion> detached;
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

  // For a host that takes over from another.
  std::size_t count() const { return nodes_.size(); }
  template <class Visit>
  void forEach(Visit&& visit) const {
    for (const auto& node : nodes_) visit(*node);
  }
  /// The number that the next new node gets.
  NodeId next() const { return next_; }
  void beginAt(NodeId next) { next_ = next; }
  /// A node that the kernel knows from there; its open files are counted one by one afterwards. It is detached from an item that is
  /// gone.
  void restore(Node node, Tree& tree);

 private:
  using NodePtr = std::unique_ptr<Node>;
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(NodeId id) const { return std::hash<NodeId>()(id); }
    std::size_t operator()(const NodePtr& node) const { return (*this)(node->id); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const NodePtr& a, const NodePtr& b) const { return a->id == b->id; }
    bool operator()(NodeId a, const NodePtr& b) const { return a == b->id; }
    bool operator()(const NodePtr& a, NodeId b) const { return a->id == b; }
  };
  Node& make(NodeId id, ItemId item);
  void dropIfUnused(const Node& node, Tree& tree);

  NodeId next_ = kRootNode + 1;
  /// The kernel may know a million.
  boost::unordered_flat_set<NodePtr, Hash, Equal> nodes_;
};

}  // namespace kestrune::host
