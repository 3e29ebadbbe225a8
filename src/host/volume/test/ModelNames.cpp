#include "host/volume/test/ModelNames.h"

#include <cerrno>
#include <functional>

#include "platform/files/Paths.h"

namespace kestrune::host::test {

namespace {

std::string parentOf(const std::string& path) { return platform::deletingLastPathComponent(path); }
std::string nameOf(const std::string& path) { return platform::lastPathComponent(path); }

bool isWithin(const ModelNodePtr& node, const ModelNodePtr& folder) {
  if (node == folder) return true;
  for (const auto& [name, child] : folder->children) {
    if (isWithin(node, child)) return true;
  }
  return false;
}

ModelNodePtr childOf(const ModelNodePtr& folder, const std::string& name) {
  const auto found = folder->children.find(name);
  return found == folder->children.end() ? nullptr : found->second;
}

}  // namespace

ModelNodePtr ModelNames::folder() {
  auto node = std::make_shared<ModelNode>();
  node->isFolder = true;
  return node;
}

ModelNames::ModelNames(const Paths& paths) : root_(folder()) {
  for (const auto& [path, contents] : paths) {  // folders come before what is in them
    make(path, !contents);
    find(path)->bytes = contents.value_or("");
  }
}

ModelNodePtr ModelNames::find(const std::string& path, int& error) const {
  if (path == "/") return root_;
  ModelNodePtr folder = find(parentOf(path), error);
  if (!folder) return nullptr;
  error = folder->isFolder ? ENOENT : ENOTDIR;
  return childOf(folder, nameOf(path));
}

ModelNodePtr ModelNames::find(const std::string& path) const {
  int error = 0;
  return find(path, error);
}

ModelNames::Paths ModelNames::paths() const {
  Paths paths;
  const std::function<void(const std::string&, const ModelNodePtr&)> visit =
      [&](const std::string& path, const ModelNodePtr& node) {
        for (const auto& [name, child] : node->children) {
          const std::string at = path + "/" + name;
          paths[at] = child->isFolder ? std::nullopt : std::optional(child->bytes);
          visit(at, child);
        }
      };
  visit("", root_);
  return paths;
}

std::vector<std::string> ModelNames::folders() const {
  std::vector<std::string> folders = {"/"};
  for (const auto& [path, contents] : paths()) {
    if (!contents) folders.push_back(path);
  }
  return folders;
}

int ModelNames::make(const std::string& path, bool isFolder) {
  int error = 0;
  const ModelNodePtr parent = find(parentOf(path), error);
  if (!parent) return error;
  if (!parent->isFolder) return ENOTDIR;
  if (childOf(parent, nameOf(path))) return EEXIST;
  auto node = std::make_shared<ModelNode>();
  node->isFolder = isFolder;
  parent->children[nameOf(path)] = node;
  return 0;
}

int ModelNames::removeFile(const std::string& path) {
  int error = 0;
  const ModelNodePtr node = find(path, error);
  if (!node) return error;
  if (node->isFolder) return EISDIR;
  find(parentOf(path))->children.erase(nameOf(path));
  return 0;
}

int ModelNames::removeFolder(const std::string& path) {
  int error = 0;
  const ModelNodePtr node = find(path, error);
  if (!node) return error;
  if (!node->isFolder) return ENOTDIR;
  if (!node->children.empty()) return ENOTEMPTY;
  find(parentOf(path))->children.erase(nameOf(path));
  return 0;
}

int ModelNames::rename(const std::string& from, const std::string& to, RenameMode mode) {
  int error = 0;
  const ModelNodePtr oldFolder = find(parentOf(from), error);
  if (!oldFolder) return error;
  const ModelNodePtr newFolder = find(parentOf(to), error);
  if (!newFolder) return error;
  if (!oldFolder->isFolder || !newFolder->isFolder) return ENOTDIR;
  const ModelNodePtr node = childOf(oldFolder, nameOf(from));
  if (!node) return ENOENT;
  const ModelNodePtr replaced = childOf(newFolder, nameOf(to));
  if (replaced == node) return 0;
  if (isWithin(newFolder, node)) return EINVAL;
  if (mode == RenameMode::noReplace && replaced) return EEXIST;
  if (mode == RenameMode::exchange) {
    if (!replaced) return ENOENT;
    if (isWithin(oldFolder, replaced)) return EINVAL;
    oldFolder->children[nameOf(from)] = replaced;
    newFolder->children[nameOf(to)] = node;
    return 0;
  }
  if (replaced && node->isFolder && !replaced->isFolder) return ENOTDIR;
  if (replaced && !node->isFolder && replaced->isFolder) return EISDIR;
  if (replaced && !replaced->children.empty()) return ENOTEMPTY;
  oldFolder->children.erase(nameOf(from));
  newFolder->children[nameOf(to)] = node;
  return 0;
}

std::string shortened(const std::string& text) {
  return text.size() <= 40 ? text : text.substr(0, 40) + "… (" + std::to_string(text.size()) + ")";
}

std::string described(const ModelNames::Paths& paths) {
  std::string text;
  for (const auto& [path, contents] : paths)
    text += "\n    " + path + (contents ? ": " + shortened(*contents) : "/");
  return text;
}

}  // namespace kestrune::host::test
