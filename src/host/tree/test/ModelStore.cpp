#include "host/tree/test/ModelStore.h"

#include <cassert>

namespace kestrune::host {

platform::NSFileProviderItemIdentifier ModelStore::identifier(Key key) const {
  if (key == kRoot) return "root";
  return identifiers_ == Identifiers::paths ? path(key) : "n" + std::to_string(key);
}

std::optional<ModelStore::Key> ModelStore::find(
    const platform::NSFileProviderItemIdentifier& wanted) const {
  if (wanted == "root") return kRoot;
  for (const auto& [key, node] : nodes_) {
    if (identifier(key) == wanted) return key;
  }
  return std::nullopt;
}

std::optional<ModelStore::Key> ModelStore::child(Key parent, const std::string& name) const {
  for (const auto& [key, node] : nodes_) {
    if (node.parent == parent && node.name == name) return key;
  }
  return std::nullopt;
}

bool ModelStore::isWithin(Key key, Key folder) const {
  while (key != folder && key != kRoot) key = nodes_.at(key).parent;
  return key == folder;
}

std::vector<ModelStore::Key> ModelStore::tree(Key key) const {
  std::vector<Key> keys = {key};
  for (std::size_t i = 0; i < keys.size(); ++i) {
    for (const auto& [child, node] : nodes_) {
      if (node.parent == keys[i]) keys.push_back(child);
    }
  }
  return keys;
}

std::string ModelStore::path(Key key) const {
  std::string text;
  for (; key != kRoot; key = nodes_.at(key).parent) text.insert(0, "/" + nodes_.at(key).name);
  return text;
}

std::string ModelStore::newVersion(const char* kind, Token token) {
  std::string version = kind + std::to_string(versions_.size());
  versions_.emplace(version, token);
  return version;
}

std::string ModelStore::guess(Token token) { return newVersion("guess", token); }

// Moving or removing a folder is, with paths, moving or removing all that is in it.
void ModelStore::tellComing(Key key) {
  const bool isDeep = identifiers_ == Identifiers::paths;
  for (const Key each : isDeep ? tree(key) : std::vector<Key>{key})
    log_.push_back({identifier(nodes_.at(each).parent), false, identifier(each), each});
}

void ModelStore::tellGoing(Key key) {
  const bool isDeep = identifiers_ == Identifiers::paths;
  for (const Key each : isDeep ? tree(key) : std::vector<Key>{key})
    log_.push_back({identifier(nodes_.at(each).parent), true, identifier(each), each});
}

ModelStore::Key ModelStore::create(Key parent, const std::string& name, bool isFolder, Token token,
                                   platform::Date now) {
  assert(!child(parent, name));
  const Key key = ++last_;
  nodes_[key] = {parent, name, isFolder, token, isFolder ? "" : newVersion("v", token), now};
  tellComing(key);
  return key;
}

void ModelStore::write(Key key, Token token, platform::Date now) {
  Node& node = nodes_.at(key);
  node.token = token;
  node.version = newVersion("v", token);
  node.modified = now;
  log_.push_back({identifier(node.parent), false, identifier(key), key});
}

void ModelStore::move(Key key, Key parent, const std::string& name) {
  assert(!child(parent, name) && !isWithin(parent, key));
  if (identifiers_ == Identifiers::paths || nodes_.at(key).parent != parent) tellGoing(key);
  nodes_.at(key).parent = parent;
  nodes_.at(key).name = name;
  tellComing(key);
}

void ModelStore::remove(Key key) {
  tellGoing(key);
  for (const Key each : tree(key)) nodes_.erase(each);
}

ItemRecord ModelStore::record(Key key) const {
  const Node& node = nodes_.at(key);
  ItemRecord record;
  record.identifier = identifier(key);
  record.parentIdentifier = identifier(node.parent);
  record.name = node.name;
  record.isFolder = node.isFolder;
  record.sizeBytes = static_cast<std::int64_t>(node.token);
  record.modified = node.modified;
  record.contentVersion = node.version;
  record.metadataVersion = node.name;
  return record;
}

std::vector<ItemRecord> ModelStore::list(Key folder) const {
  std::vector<ItemRecord> records;
  for (const auto& [key, node] : nodes_) {
    if (node.parent == folder) records.push_back(record(key));
  }
  return records;
}

std::vector<ReportedChange> ModelStore::changes(Key folder, const std::string& anchor) const {
  std::vector<ReportedChange> changes;
  for (std::size_t i = std::stoul(anchor); i < log_.size(); ++i) {
    const Event& event = log_[i];
    if (event.folder != identifier(folder)) continue;
    ReportedChange change;
    if (event.isDeletion) {
      change.kind = ReportedChange::Kind::deletion;
      change.item.identifier = event.identifier;
    } else {
      const auto node = nodes_.find(event.key);
      if (node == nodes_.end() || node->second.parent != folder) continue;
      change.item = record(event.key);
    }
    changes.push_back(change);
  }
  return changes;
}

}  // namespace kestrune::host
