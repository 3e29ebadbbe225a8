#include "host/volume/Nodes.h"

#include <algorithm>
#include <cassert>

namespace kestrune::host {

Nodes::Nodes() { nodes_[kRootNode] = Node{kRootNode, kRootItem, std::nullopt, 1, 0}; }

Node& Nodes::of(Item& item) {
  if (item.node != 0) return nodes_.at(item.node);
  item.node = next_++;
  return nodes_[item.node] = Node{item.node, item.id, std::nullopt, 0, 0};
}

Node* Nodes::find(NodeId id) {
  const auto found = nodes_.find(id);
  return found == nodes_.end() ? nullptr : &found->second;
}

void Nodes::detach(const DetachedVersion& version) {
  Node* node = find(version.node);
  if (node == nullptr) return;
  if (node->kernelReferences == 0 && node->openFiles == 0) {
    nodes_.erase(version.node);
  } else {
    node->detached = version;
    if (node->openFiles == 0) node->detached->object = nullptr;
  }
}

void Nodes::forget(NodeId id, std::uint64_t count, Tree& tree) {
  Node* node = find(id);
  if (node == nullptr || id == kRootNode) return;
  assert(node->kernelReferences >= count);
  node->kernelReferences -= std::min(count, node->kernelReferences);
  dropIfUnused(*node, tree);
}

void Nodes::opened(NodeId id) {
  if (Node* node = find(id)) ++node->openFiles;
}

void Nodes::released(NodeId id, Tree& tree) {
  Node* node = find(id);
  if (node == nullptr) return;
  assert(node->openFiles > 0);
  --node->openFiles;
  // Its file may go; the kernel takes its time to forget.
  if (node->openFiles == 0 && node->detached) node->detached->object = nullptr;
  dropIfUnused(*node, tree);
}

void Nodes::dropIfUnused(Node& node, Tree& tree) {
  if (node.kernelReferences > 0 || node.openFiles > 0 || node.id == kRootNode) return;
  if (Item* item = tree.find(node.item); item != nullptr && item->node == node.id) item->node = 0;
  nodes_.erase(node.id);
}

}  // namespace kestrune::host
