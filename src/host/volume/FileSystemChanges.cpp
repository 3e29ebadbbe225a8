// Names made, moved and removed by programs, and the attributes that they set.
#include <cerrno>
#include <future>
#include <utility>

#include "host/basics/ItemName.h"
#include "host/volume/FileSystem.h"
#include "host/volume/OpenVolumeFile.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSPOSIXError;

constexpr const char* kOwnAttributes = "user.kestrune.";

NSErrorPtr errorOf(int number, const char* what) { return NSPOSIXError(number, what).share(); }

Item* itemOf(Tree& tree, Nodes& nodes, NodeId node) {
  const Node* found = nodes.find(node);
  return found == nullptr || found->detached ? nullptr : tree.find(found->item);
}

NSErrorPtr whyNotAName(const std::string& name) {
  if (name.size() > kLongestNameBytes) return errorOf(ENAMETOOLONG, "use a name of over 255 bytes");
  if (whyNotAFileName(name) != nullptr) return errorOf(EINVAL, "use such a name");
  return nullptr;
}

// The folder in which something is to be made or removed; sets `error` if it is none.
Item* folderFor(Tree& tree, Nodes& nodes, NodeId node, NSErrorPtr& error) {
  Item* folder = itemOf(tree, nodes, node);
  if (folder == nullptr || !folder->isLinked()) {
    error = errorOf(ESTALE, "change a folder that is gone");
  } else if (!folder->isFolder) {
    error = errorOf(ENOTDIR, "change names in a file");
  } else {
    return folder;
  }
  return nullptr;
}

// Whether the store will never have what is in the folder; programs copy into it, then.
bool staysHere(const Item& folder) {
  for (const Item* at = &folder; at != nullptr; at = at->folder) {
    if (at->staysHere) return true;
  }
  return false;
}

// Why `target` cannot be replaced by `item`.
NSErrorPtr whyNotReplaced(const Item& target, const Item& item) {
  if (item.isFolder && !target.isFolder) return errorOf(ENOTDIR, "replace a file by a folder");
  if (!item.isFolder && target.isFolder) return errorOf(EISDIR, "replace a folder by a file");
  if (target.isFolder && !target.part()->children.empty())
    return errorOf(ENOTEMPTY, "replace a folder that is not empty");
  return nullptr;
}

}  // namespace

void FileSystem::create(NodeId folder, std::string name, bool isExecutable, OpenMode mode,
                        Caller caller, Reply<Created> reply) {
  if (auto error = whyNotAName(name)) return reply(std::move(error));
  const ContentNumber number = volume_->newContentNumber();
  try {
    volume_->services().directory->create(number);
  } catch (const platform::NSError& error) {
    return reply(error.share());
  }
  const auto created = std::make_shared<Created>();
  auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
    NSErrorPtr error;
    Item* parent = folderFor(tree, nodes, folder, error);
    if (parent == nullptr) return error;
    if (tree.child(*parent, name) != nullptr) return errorOf(EEXIST, "create a file");
    Item& item = tree.create(*parent, name, false, isExecutable);
    contents_->makeEmpty(tree, item, number);
    Node& node = nodes.of(item);
    mode.writes = true;
    auto opened = openItem(tree, nodes, node.id, mode, openerOf(caller));
    if (!opened.ok()) {
      tree.remove(item);
      return opened.error();
    }
    ++nodes.find(node.id)->kernelReferences;
    created->file = opened.value();
    created->entry = {node.id, Volume::attributesOf(item)};
    return nullptr;
  };
  auto committed = [this, created, number, reply](const Answer<Done>& done) {
    if (done.ok()) {
      volumeFile(*created->file).object->remembered(Contents::kFirstEdit);
      return reply(*created);
    }
    if (created->file) {
      // It is here all the same, and remembered when there is room; but the program is told the truth.
      release(created->file);
      forget(created->entry.node, 1);
    } else {
      volume_->services().directory->remove(number);
    }
    reply(done.error());
  };
  volume_->change(work, Volume::Survives::processEnd, unlessEnded(reply, std::move(committed)));
}

void FileSystem::makeFolder(NodeId folder, std::string name, Reply<Entry> reply) {
  if (auto error = whyNotAName(name)) return reply(std::move(error));
  const auto made = std::make_shared<Entry>();
  auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
    NSErrorPtr error;
    Item* parent = folderFor(tree, nodes, folder, error);
    if (parent == nullptr) return error;
    if (tree.child(*parent, name) != nullptr) return errorOf(EEXIST, "make a folder");
    Item& item = tree.create(*parent, name, true, false);
    Node& node = nodes.of(item);
    ++node.kernelReferences;
    *made = {node.id, Volume::attributesOf(item)};
    return nullptr;
  };
  auto committed = [this, made, reply](const Answer<Done>& done) {
    if (done.ok()) return reply(*made);
    if (made->node != 0) forget(made->node, 1);
    reply(done.error());
  };
  volume_->change(work, Volume::Survives::processEnd, unlessEnded(reply, std::move(committed)));
}

void FileSystem::removeFile(NodeId folder, std::string name, Reply<Done> reply) {
  auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
    NSErrorPtr error;
    Item* parent = folderFor(tree, nodes, folder, error);
    if (parent == nullptr) return error;
    Item* item = tree.child(*parent, name);
    if (item == nullptr) return errorOf(ENOENT, "remove a file");
    if (item->isFolder) return errorOf(EISDIR, "remove a folder as a file");
    tree.remove(*item);
    return nullptr;
  };
  volume_->change(work, Volume::Survives::processEnd, reply);
}

void FileSystem::removeFolder(NodeId folder, std::string name, Reply<Done> reply) {
  const ItemId removed = volume_->look([&](Tree& tree, Nodes& nodes) -> ItemId {
    NSErrorPtr error;
    Item* parent = folderFor(tree, nodes, folder, error);
    const Item* item = parent == nullptr ? nullptr : tree.child(*parent, name);
    return item == nullptr ? 0 : item->id;
  });
  if (removed == 0) return reply(errorOf(ENOENT, "remove a folder"));
  // Only of a folder whose names are known can it be said that it is empty.
  auto visited = [this, folder, name = std::move(name), reply](const Answer<Done>& known) {
    if (!known.ok()) return reply(known.error());
    auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
      NSErrorPtr error;
      Item* parent = folderFor(tree, nodes, folder, error);
      if (parent == nullptr) return error;
      Item* item = tree.child(*parent, name);
      if (item == nullptr) return errorOf(ENOENT, "remove a folder");
      if (!item->isFolder) return errorOf(ENOTDIR, "remove a file as a folder");
      if (!item->part()->children.empty()) return errorOf(ENOTEMPTY, "remove a folder");
      tree.remove(*item);
      return nullptr;
    };
    volume_->change(work, Volume::Survives::processEnd, reply);
  };
  lister_->visit(removed, unlessEnded(reply, std::move(visited)));
}

void FileSystem::rename(NodeId folder, std::string name, NodeId newFolder, std::string newName,
                        RenameMode mode, Reply<Done> reply) {
  if (auto error = whyNotAName(newName)) return reply(std::move(error));
  const ItemId target = volume_->look([&](Tree& tree, Nodes& nodes) -> ItemId {
    const Item* parent = itemOf(tree, nodes, newFolder);
    const Item* item =
        parent == nullptr || !parent->isFolder ? nullptr : tree.child(*parent, newName);
    return item != nullptr && item->isFolder && mode == RenameMode::replace ? item->id : 0;
  });
  auto go = [this, folder, name = std::move(name), newFolder, newName = std::move(newName), mode,
             reply](const Answer<Done>& known) {
    if (!known.ok()) return reply(known.error());
    auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
      NSErrorPtr error;
      Item* from = folderFor(tree, nodes, folder, error);
      Item* to = from == nullptr ? nullptr : folderFor(tree, nodes, newFolder, error);
      if (to == nullptr) return error;
      Item* item = tree.child(*from, name);
      if (item == nullptr) return errorOf(ENOENT, "rename");
      Item* there = tree.child(*to, newName);
      if (there == item) return nullptr;
      if (Tree::isWithin(*to, *item)) return errorOf(EINVAL, "move a folder into itself");
      if (item->there && staysHere(*to)) return errorOf(EXDEV, "move out of the store");
      if (mode == RenameMode::noReplace && there != nullptr) return errorOf(EEXIST, "rename");
      if (mode == RenameMode::exchange) {
        if (there == nullptr) return errorOf(ENOENT, "exchange with nothing");
        if (Tree::isWithin(*from, *there)) return errorOf(EINVAL, "move a folder into itself");
        tree.exchange(*item, *there);
        return nullptr;
      }
      if (there != nullptr) {
        if (auto why = whyNotReplaced(*there, *item)) return why;
      }
      tree.move(*item, *to, newName);
      return nullptr;
    };
    volume_->change(work, Volume::Survives::processEnd, reply);
  };
  if (target == 0) {
    go(Done());
  } else {
    lister_->visit(target, unlessEnded(reply, std::move(go)));
  }
}

void FileSystem::setAttributes(NodeId node, OpenFilePtr file, const AttributeChanges& changes,
                               Reply<Attributes> reply) {
  auto set = [this, node, file, changes, reply](const Answer<Done>& resized) {
    if (!resized.ok()) return reply(resized.error());
    auto work = [&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
      Item* item = itemOf(tree, nodes, node);
      if (item == nullptr) return nullptr;  // an open version that is gone: nobody sees its times
      if (changes.isExecutable) item->isExecutable = *changes.isExecutable;
      ItemTimes times = item->times();
      if (changes.accessed) times.accessed = *changes.accessed;
      if (changes.modified) times.modified = *changes.modified;
      times.changed = FileTime::of(volume_->services().clock->now());
      item->setTimes(times);
      tree.changedHere(*item);
      return nullptr;
    };
    auto committed = [this, node, reply](const Answer<Done>& done) {
      if (done.ok()) {
        reply(attributes(node));
      } else {
        reply(done.error());
      }
    };
    volume_->change(work, Volume::Survives::processEnd, unlessEnded(reply, committed));
  };
  if (!changes.sizeBytes) {
    set(Done());
    return;
  }
  if (file && volumeFile(*file).writes) {
    resize(file, node, *changes.sizeBytes, std::move(set));
    return;
  }
  OpenMode mode;
  mode.writes = true;
  open(node, mode, Caller(), [this, node, changes, reply, set](const Answer<OpenFilePtr>& opened) {
    if (!opened.ok()) return reply(opened.error());
    resize(opened.value(), node, *changes.sizeBytes,
           [this, opened = opened.value(), set, reply](const Answer<Done>& done) {
             flush(opened,
                   unlessEnded(reply, [this, opened, set, done](const Answer<Done>& remembered) {
                     release(opened);
                     set(done.ok() ? remembered : done);
                   }));
           });
  });
}

// ------------------------------------------------------------------------------------------- extended attributes

Answer<std::string> FileSystem::extendedAttribute(NodeId node, const std::string& name) {
  if (!options_.showsAttributes) return errorOf(ENOTSUP, "use extended attributes");
  if (name.starts_with(kOwnAttributes)) {
    return volume_->look([&](Tree& tree, Nodes& nodes) -> Answer<std::string> {
      const Item* item = itemOf(tree, nodes, node);
      if (item == nullptr) return errorOf(ESTALE, "read an attribute");
      const std::string which = name.substr(std::string(kOwnAttributes).size());
      if (which == "path") return tree.path(*item);
      if (which == "state") return std::string(stateText(*item));
      if (which == "pinned") return std::string(isKept(*item) ? "1" : "0");
      return errorOf(ENODATA, "read an attribute");
    });
  }
  const auto all = keptAttributes(node);
  if (!all.ok()) return all.error();
  const auto found = all.value().find(name);
  if (found == all.value().end()) return errorOf(ENODATA, "read an attribute");
  return found->second;
}

Answer<std::vector<std::string>> FileSystem::extendedAttributeNames(NodeId node) {
  if (!options_.showsAttributes) return errorOf(ENOTSUP, "use extended attributes");
  const auto all = keptAttributes(node);
  if (!all.ok()) return all.error();
  std::vector<std::string> names;
  for (const char* own : {"path", "pinned", "state"})
    names.push_back(std::string(kOwnAttributes) + own);
  for (const auto& [name, value] : all.value()) names.push_back(name);
  return names;
}

// Waits for the store's thread, which only works on the local disk.
Answer<FileSystem::KeptAttributes> FileSystem::keptAttributes(NodeId node) {
  const ItemId item = volume_->look([&](Tree& tree, Nodes& nodes) -> ItemId {
    const Item* found = itemOf(tree, nodes, node);
    return found == nullptr ? 0 : found->id;
  });
  if (item == 0) return errorOf(ESTALE, "read attributes");
  const auto answer = std::make_shared<std::promise<Answer<KeptAttributes>>>();
  auto future = answer->get_future();
  volume_->services().store->attributes(
      item, [answer](Answer<KeptAttributes> kept) { answer->set_value(std::move(kept)); });
  return future.get();
}

void FileSystem::setExtendedAttribute(NodeId node, std::string name,
                                      std::optional<std::string> value, bool mustBeNew,
                                      bool mustBeThere, Reply<Done> reply) {
  if (!options_.showsAttributes) return reply(errorOf(ENOTSUP, "use extended attributes"));
  if (name.starts_with(kOwnAttributes)) return reply(errorOf(EPERM, "set what the host tells"));
  const auto all = keptAttributes(node);
  if (!all.ok()) return reply(all.error());
  const bool isThere = all.value().contains(name);
  if (isThere && mustBeNew) return reply(errorOf(EEXIST, "set an attribute"));
  if (!isThere && (mustBeThere || !value)) return reply(errorOf(ENODATA, "set an attribute"));
  const ItemId item = volume_->look([&](Tree& tree, Nodes& nodes) -> ItemId {
    const Item* found = itemOf(tree, nodes, node);
    return found == nullptr ? 0 : found->id;
  });
  volume_->services().store->putAttribute(item, std::move(name), std::move(value),
                                          Volume::Survives::processEnd, std::move(reply));
}

const char* FileSystem::stateText(const Item& item) {
  if (item.staysHere) return "local";
  if (Tree::differs(item)) return item.isUnderWay ? "sending" : "unsent";
  if (item.isFolder) return "stored";
  if (item.isWhole()) return "here";
  return item.content() && !item.content()->state.present.isEmpty() ? "partly" : "online";
}

bool FileSystem::isKept(const Item& item) {
  return item.there && item.there->policy ==
                           platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
}

}  // namespace kestrune::host
