// What programs do with names.
#include <gtest/gtest.h>

#include <cerrno>

#include "host/volume/test/ModelFileSystem.h"
#include "platform/files/Paths.h"

namespace kestrune::host::test {

namespace {

std::string parentOf(const std::string& path) { return platform::deletingLastPathComponent(path); }
std::string nameOf(const std::string& path) { return platform::lastPathComponent(path); }

}  // namespace

// As the kernel does before it changes a name: so the names beside it are known.
int ModelFileSystem::lookUp(const std::string& path) {
  const Walked found = walk(path);
  return found.error == ENOENT ? 0 : found.error;
}

int ModelFileSystem::create(const std::string& path, bool isFolder, HandlePtr* opened) {
  const Walked parent = walk(parentOf(path));
  if (parent.error != 0) return parent.error;
  if (const int error = lookUp(path); error != 0) return error;
  Entry entry;
  OpenFilePtr file;
  if (isFolder) {
    const Awaited<Entry> made;
    host_.fileSystem().makeFolder(parent.node, nameOf(path), made.reply());
    const auto answer = get(made, Waits::disk);
    if (!answer.ok()) return errnoOf(answer);
    entry = answer.value();
    visited_.push_back(entry.node);
  } else {
    const Awaited<Created> made;
    host_.fileSystem().create(parent.node, nameOf(path), false, OpenMode(), Caller(), made.reply());
    const auto answer = get(made, Waits::disk);
    if (!answer.ok()) return errnoOf(answer);
    entry = answer.value().entry;
    file = answer.value().file;
    local_[volumeFile(*file).object->state().number] = {};
  }
  EXPECT_EQ(entry.attributes.isFolder, isFolder);
  if (isExact_ && names_.make(path, isFolder) == 0)
    names_.find(path)->inode = entry.attributes.inode;
  if (opened != nullptr) {
    *opened = std::make_shared<Handle>(
        Handle{file, entry.attributes.inode, path, true, isExact_ ? names_.find(path) : nullptr});
    handles_.push_back(*opened);
  }
  return 0;
}

void ModelFileSystem::make() {
  const std::string folder = someFolder();
  const std::string path =
      percent(70) ? (folder == "/" ? "" : folder) + "/" + "abcd"[below(4)] : somePath();
  const bool isFolder = percent(35);
  const std::string what = (isFolder ? "mkdir " : "create ") + path;
  ModelNames expected = isExact_ ? names_ : ModelNames();
  int should = 0;
  if (isExact_) {
    ModelNames::Paths copy = names_.paths();
    should = ModelNames(copy).make(path, isFolder);
  }
  HandlePtr handle;
  if (!judge(what, create(path, isFolder, isFolder ? nullptr : &handle), should) || isFolder)
    return;
  if (percent(80)) write(handle, 0, newText());
  if (percent(80)) close(handle);
}

// By the folder's number: others may just be moving it.
InodeNumber ModelFileSystem::childOf(const Walked& folder, const std::string& name) {
  return host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) -> InodeNumber {
    const Item* above = tree.find(folder.attributes.inode);
    const Item* item = above == nullptr ? nullptr : tree.child(*above, name);
    return item == nullptr ? 0 : item->id;
  });
}

int ModelFileSystem::removePath(const std::string& path, bool isFolder) {
  const Walked parent = walk(parentOf(path));
  if (parent.error != 0) return parent.error;
  if (const int error = lookUp(path); error != 0) return error;
  const InodeNumber inode = childOf(parent, nameOf(path));
  auto contents = shown(inode);
  const Awaited<Done> removed;
  if (isFolder) {
    host_.fileSystem().removeFolder(parent.node, nameOf(path), removed.reply());
  } else {
    host_.fileSystem().removeFile(parent.node, nameOf(path), removed.reply());
  }
  const auto answer = get(removed, isFolder ? Waits::listing : Waits::disk);
  if (!answer.ok()) return errnoOf(answer);
  forgetContents(contents);
  forgetContents(shown(inode));
  if (isExact_) EXPECT_EQ(isFolder ? names_.removeFolder(path) : names_.removeFile(path), 0);
  return 0;
}

void ModelFileSystem::remove() {
  const std::string path = somePath();
  const ModelNames names = known();
  const ModelNodePtr node = names.find(path);
  const bool isFolder = percent(10) ? percent(50) : node && node->isFolder;
  ModelNames copy(names.paths());
  const int should = isFolder ? copy.removeFolder(path) : copy.removeFile(path);
  judge((isFolder ? "rmdir " : "unlink ") + path, removePath(path, isFolder), should);
}

// What others had made of a replaced file may have become known after it was shown: it is that in whose place the new contents are.
std::vector<std::string> ModelFileSystem::replacedBy(InodeNumber inode) {
  const std::string base = host_.fileSystem().volume()->look([inode](Tree& tree, Nodes&) {
    const Item* item = tree.find(inode);
    return item != nullptr && item->content() ? item->content()->base : std::string();
  });
  const auto contents = host_.remote().contentsOfVersion(base);
  return contents ? std::vector{*contents} : std::vector<std::string>{};
}

int ModelFileSystem::renamePath(const std::string& from, const std::string& to, RenameMode mode) {
  const Walked oldFolder = walk(parentOf(from));
  if (oldFolder.error != 0) return oldFolder.error;
  const Walked newFolder = walk(parentOf(to));
  if (newFolder.error != 0) return newFolder.error;
  for (const std::string& path : {from, to}) {
    if (const int error = lookUp(path); error != 0) return error;
  }
  const bool replaces = mode == RenameMode::replace && from != to;
  const InodeNumber inode = replaces ? childOf(newFolder, nameOf(to)) : 0;
  const auto contents = shown(inode);
  const Awaited<Done> renamed;
  host_.fileSystem().rename(oldFolder.node, nameOf(from), newFolder.node, nameOf(to), mode,
                            renamed.reply());
  const auto answer = get(renamed, Waits::listing);
  if (!answer.ok()) return errnoOf(answer);
  forgetContents(contents);
  if (!isLinked(inode)) forgetContents(shown(inode));
  if (replaces) forgetContents(replacedBy(childOf(newFolder, nameOf(to))));
  if (isExact_) EXPECT_EQ(names_.rename(from, to, mode), 0);
  return 0;
}

void ModelFileSystem::rename() {
  const std::string from = somePath();
  const std::string to = somePath();
  constexpr std::array kModes = {RenameMode::replace, RenameMode::replace, RenameMode::replace,
                                 RenameMode::noReplace, RenameMode::exchange};
  const RenameMode mode = kModes.at(below(kModes.size()));
  // The kernel never asks for these.
  if (from == to || (mode == RenameMode::noReplace && known().find(to))) return;
  ModelNames copy(known().paths());
  const int should = copy.rename(from, to, mode);
  const std::string how = mode == RenameMode::exchange ? " <-> " : " -> ";
  judge("rename " + from + how + to, renamePath(from, to, mode), should);
}

// As many programs save: a new file beside the old one, renamed over it; or the old one renamed aside, or removed, first.
void ModelFileSystem::saveByRename() {
  const std::string path = somePath();
  const ModelNodePtr node = known().find(path);
  if (!node || node->isFolder) return;
  const std::string beside = path + "~";
  if (known().find(beside)) return;
  const std::size_t way = below(3);
  if (way == 1 &&
      !judge("rename " + path + " -> " + beside, renamePath(path, beside, RenameMode::replace), 0))
    return;
  if (way == 2 && !judge("unlink " + path, removePath(path, false), 0)) return;
  const std::string written = way == 0 ? beside : path;
  HandlePtr handle;
  if (!judge("create " + written, create(written, false, &handle), 0)) return;
  write(handle, 0, newText());
  if (percent(30)) pass(std::chrono::milliseconds(200));
  close(handle);
  if (percent(30)) pass(std::chrono::milliseconds(400));
  if (way == 0)
    judge("rename " + beside + " -> " + path, renamePath(beside, path, RenameMode::replace), 0);
}

void ModelFileSystem::list() {
  const std::string path = someFolder();
  Walked at;
  for (int attempt = 0; attempt == 0 || (at.error == ESTALE && attempt < 2); ++attempt) {
    at = walk(path);
    if (at.error != 0) continue;
    const Awaited<Done> opened;
    host_.fileSystem().openFolder(at.node, opened.reply());
    at.error = errnoOf(get(opened, Waits::listing));
  }
  if (!judge("list " + path, at.error, 0)) return;
  std::set<std::string> names;
  std::uint64_t after = 0;
  for (bool more = true; more;) {
    NameSink sink(1 + below(4));
    const auto error = host_.fileSystem().readFolder(at.node, after, false, sink);
    if (error) {
      judge("read " + path, errnoOf(error), 0);
      return;
    }
    // What others replaced meanwhile is another item of the same name.
    for (const auto& name : sink.names)
      EXPECT_TRUE(names.insert(name).second || !isExact_) << name << " twice";
    more = !sink.names.empty();
    after = sink.last;
  }
  if (!isExact_) return;
  std::set<std::string> expected = {".", ".."};
  for (const auto& [name, node] : names_.find(path)->children) expected.insert(name);
  EXPECT_EQ(names, expected) << path;
}

void ModelFileSystem::examine() {
  const std::string path = somePath();
  int should = 0;
  const ModelNodePtr node = isExact_ ? names_.find(path, should) : nullptr;
  if (node) should = 0;
  const Walked at = walk(path);
  if (!judge("stat " + path, at.error, should) || !node) return;
  EXPECT_EQ(at.attributes.isFolder, node->isFolder);
  EXPECT_EQ(at.attributes.sizeBytes, static_cast<std::int64_t>(node->bytes.size()));
  if (node->modified) EXPECT_EQ(at.attributes.modified, *node->modified);
}

void ModelFileSystem::setTime() {
  const std::string path = somePath();
  int should = 0;
  const ModelNodePtr node = isExact_ ? names_.find(path, should) : nullptr;
  if (node) should = 0;
  const Walked at = walk(path);
  if (at.error != 0) {
    judge("set time of " + path, at.error, should);
    return;
  }
  AttributeChanges changes;
  changes.modified = FileTime{1'600'000'000 + static_cast<std::int64_t>(below(1'000'000)), 7};
  const Awaited<Attributes> set;
  host_.fileSystem().setAttributes(at.node, nullptr, changes, set.reply());
  const auto answer = get(set, Waits::disk);
  if (!judge("set time of " + path, errnoOf(answer), should) || !node) return;
  EXPECT_EQ(answer.value().modified, *changes.modified);
  if (!node->isFolder) node->modified = changes.modified;
}

}  // namespace kestrune::host::test
