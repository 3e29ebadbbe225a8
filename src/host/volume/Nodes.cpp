#include "host/volume/Nodes.h"

#include <algorithm>
#include <cassert>

namespace kestrune::host {

Nodes::Nodes() { make(kRootNode, kRootItem).kernelReferences = 1; }

Node& Nodes::make(NodeId id, ItemId item) {
  auto node = std::make_unique<Node>();
  node->id = id;
  node->item = item;
  return **nodes_.insert(std::move(node)).first;
}

Node& Nodes::of(Item& item) {
  if (item.node != 0) return **nodes_.find(item.node);
  item.node = next_++;
  return make(item.node, item.id);
}

void Nodes::restore(Node node, Tree& tree) {
  if (const auto old = nodes_.find(node.id); old != nodes_.end()) nodes_.erase(old);  // the root
  Item* item = tree.find(node.item);
  if (item == nullptr && !node.detached) {
    node.detached = std::make_unique<DetachedVersion>();
    node.detached->node = node.id;
    node.detached->item = node.item;
  }
  if (!node.detached && node.id != kRootNode) item->node = node.id;
  nodes_.insert(std::make_unique<Node>(std::move(node)));
}

Node* Nodes::find(NodeId id) {
  const auto found = nodes_.find(id);
  return found == nodes_.end() ? nullptr : found->get();
}

void Nodes::detach(const DetachedVersion& version) {
  Node* node = find(version.node);
  if (node == nullptr) return;
  if (node->kernelReferences == 0 && node->openFiles == 0) {
    nodes_.erase(nodes_.find(version.node));
  } else {
    node->detached = std::make_unique<DetachedVersion>(version);
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

void Nodes::dropIfUnused(const Node& node, Tree& tree) {
  if (node.kernelReferences > 0 || node.openFiles > 0 || node.id == kRootNode) return;
  if (Item* item = tree.find(node.item); item != nullptr && item->node == node.id) item->node = 0;
  nodes_.erase(nodes_.find(node.id));
}

}  // namespace kestrune::host
