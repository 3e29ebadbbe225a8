#include "tests/mount/FrontTree.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>
#include <utility>

#include "tests/mount/FrontTreeItems.h"

namespace kestrune::mounttest {

using host::Answer;
using host::Attributes;
using host::Created;
using host::Done;
using host::Entry;
using host::FileTime;
using host::LocalFilePtr;
using host::NodeId;
using host::OpenFilePtr;
using host::OpenMode;
using host::Reply;
using platform::MutexLock;

namespace {

platform::NSErrorPtr errorOf(int number) {
  return platform::NSPOSIXError(number, "work on the test's tree").share();
}

}  // namespace

FrontTree::FrontTree(std::filesystem::path objects) : objects_(std::move(objects)) {
  MutexLock lock(mutex_);
  auto root = std::make_shared<Item>();
  root->isFolder = true;
  root->inode = nextInode_++;
  root->touch();
  nodes_[newNode(root)].references = 1;
}

void FrontTree::hold(const std::string& operation) {
  MutexLock lock(mutex_);
  held_[operation];
}

void FrontTree::letGo(const std::string& operation) {
  std::vector<std::function<void()>> waiting;
  {
    MutexLock lock(mutex_);
    waiting = std::move(held_[operation]);
    held_.erase(operation);
  }
  for (const auto& work : waiting) work();
}

void FrontTree::answerLater(bool later) {
  MutexLock lock(mutex_);
  later_ = later;
}

void FrontTree::sayWhole(bool whole) {
  MutexLock lock(mutex_);
  whole_ = whole;
}

void FrontTree::makeUnseen(const std::string& name, const std::string& text) {
  MutexLock lock(mutex_);
  const auto item = makeItem(itemOf(host::kRootNode), name, false);
  if (::pwrite(item->bytes->number(), text.data(), text.size(), 0) !=
      static_cast<ssize_t>(text.size()))
    fail(EIO);
}

int FrontTree::asked(const std::string& operation) const {
  MutexLock lock(mutex_);
  const auto found = asked_.find(operation);
  return found == asked_.end() ? 0 : found->second;
}

int FrontTree::openFiles() const {
  MutexLock lock(mutex_);
  return openFiles_;
}

std::uint64_t FrontTree::references() const {
  MutexLock lock(mutex_);
  std::uint64_t sum = 0;
  for (const auto& [number, node] : nodes_) {
    if (number != host::kRootNode) sum += node.references;
  }
  return sum;
}

int FrontTree::successors() const {
  MutexLock lock(mutex_);
  return successors_;
}

void FrontTree::perform(const std::string& operation, std::function<void()> work) {
  bool later = false;
  {
    MutexLock lock(mutex_);
    ++asked_[operation];
    if (const auto held = held_.find(operation); held != held_.end()) {
      held->second.push_back(std::move(work));
      return;
    }
    later = later_;
  }
  if (later) {
    queue_.async(std::move(work));
  } else {
    work();
  }
}

template <class T>
void FrontTree::answer(const std::string& operation, Reply<T> reply, std::function<T()> work) {
  perform(operation, [this, reply = std::move(reply), work = std::move(work)] {
    std::optional<Answer<T>> answer;
    try {
      MutexLock lock(mutex_);
      answer.emplace(work());
    } catch (const std::system_error& error) {
      answer.emplace(errorOf(error.code().value()));
    }
    reply(std::move(*answer));
  });
}

// The work that `answer` runs holds the lock, which the analysis does not see through the function object.
#define LOCKED KESTRUNE_TSA(no_thread_safety_analysis)

const FrontTree::ItemPtr& FrontTree::itemOf(NodeId node) const {
  const auto found = nodes_.find(node);
  if (found == nodes_.end()) fail(ESTALE);
  return found->second.item;
}

FrontTree::ItemPtr FrontTree::childOf(NodeId folder, const std::string& name) const {
  const auto& parent = itemOf(folder);
  const auto found = parent->cookies.find(name);
  return found == parent->cookies.end() ? nullptr : parent->children.at(found->second).second;
}

NodeId FrontTree::newNode(const ItemPtr& item) {
  const NodeId node = nextNode_++;
  nodes_[node].item = item;
  item->node = node;
  return node;
}

FrontTree::ItemPtr FrontTree::makeItem(const ItemPtr& folder, const std::string& name,
                                       bool isFolder) {
  if (folder->cookies.count(name) != 0) fail(EEXIST);
  auto item = std::make_shared<Item>();
  item->inode = nextInode_++;
  item->isFolder = isFolder;
  if (!isFolder) {
    const auto path = objects_ / std::to_string(item->inode);
    item->bytes = std::make_unique<host::Descriptor>(
        checked(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)));
  }
  item->touch();
  item->accessed = item->modified;
  newNode(item);
  put(folder, name, item);
  return item;
}

Entry FrontTree::entryOf(const ItemPtr& item) {
  ++nodes_.at(item->node).references;
  return {item->node, item->attributes()};
}

void FrontTree::put(const ItemPtr& folder, const std::string& name, const ItemPtr& item) {
  const auto cookie = nextCookie_++;
  folder->cookies[name] = cookie;
  folder->children[cookie] = {name, item};
  folder->touch();
}

void FrontTree::take(const ItemPtr& folder, const std::string& name) {
  folder->children.erase(folder->cookies.at(name));
  folder->cookies.erase(name);
  folder->touch();
}

void FrontTree::remove(const ItemPtr& folder, const std::string& name, bool isFolder) {
  const auto found = folder->cookies.find(name);
  if (found == folder->cookies.end()) fail(ENOENT);
  const ItemPtr item = folder->children.at(found->second).second;
  if (item->isFolder != isFolder) fail(isFolder ? ENOTDIR : EISDIR);
  if (!item->children.empty()) fail(ENOTEMPTY);
  take(folder, name);
  item->isUnlinked = true;
}

void FrontTree::lookup(NodeId folder, std::string name, Reply<Entry> reply) {
  answer<Entry>("lookup", std::move(reply), [this, folder, name]() LOCKED {
    const auto item = childOf(folder, name);
    return item ? entryOf(item) : Entry();
  });
}

void FrontTree::forget(NodeId node, std::uint64_t count) {
  MutexLock lock(mutex_);
  Node& known = nodes_.at(node);
  if (known.references < count) std::abort();  // given back more than was given out
  known.references -= count;
  if (known.references == 0 && (known.item->node != node || known.item->isUnlinked))
    nodes_.erase(node);
}

Answer<Attributes> FrontTree::attributes(NodeId node) {
  MutexLock lock(mutex_);
  ++asked_["attributes"];
  const auto found = nodes_.find(node);
  if (found == nodes_.end()) return errorOf(ESTALE);
  return found->second.item->attributes();
}

void FrontTree::openFolder(NodeId folder, Reply<Done> reply) {
  answer<Done>("openFolder", std::move(reply), [this, folder]() LOCKED {
    itemOf(folder);
    return Done();
  });
}

platform::NSErrorPtr FrontTree::readFolder(NodeId folder, std::uint64_t after, bool remember,
                                           host::FolderSink& sink) {
  MutexLock lock(mutex_);
  const auto found = nodes_.find(folder);
  if (found == nodes_.end()) return errorOf(ESTALE);
  const Item& item = *found->second.item;
  const Entry self = {0, item.attributes()};
  if (after < 1 && !sink.add({".", self, 1})) return nullptr;
  if (after < 2 && !sink.add({"..", self, 2})) return nullptr;
  for (auto at = item.children.upper_bound(after); at != item.children.end(); ++at) {
    const auto& [name, child] = at->second;
    if (!sink.add({name, {child->node, child->attributes()}, at->first})) break;
    if (remember) ++nodes_.at(child->node).references;
  }
  return nullptr;
}

OpenFilePtr FrontTree::openItem(const ItemPtr& item, OpenMode mode) {
  if (item->isFolder) fail(EISDIR);
  if (mode.truncates) {
    checked(::ftruncate(item->bytes->number(), 0));
    item->touch();
  }
  auto file = std::make_shared<File>(item->node, item, mode.writes);
  if (mode.writes) ++item->writers;
  if (whole_ && item->writers == 0) file->whole = item->file();
  ++openFiles_;
  return file;
}

void FrontTree::open(NodeId node, OpenMode mode, host::Caller, Reply<OpenFilePtr> reply) {
  answer<OpenFilePtr>(mode.writes ? "openForWriting" : "open", std::move(reply),
                      [this, node, mode]() LOCKED {
                        const ItemPtr item = itemOf(node);
                        if (item->node != node) fail(ESTALE);
                        return openItem(item, mode);
                      });
}

LocalFilePtr FrontTree::present(const host::OpenFile& file, std::int64_t, std::size_t) {
  MutexLock lock(mutex_);
  if (held_.count("read") != 0) return nullptr;
  ++asked_["present"];
  return File::itemOf(file).file();
}

void FrontTree::read(OpenFilePtr file, std::int64_t, std::size_t, Reply<LocalFilePtr> reply) {
  answer<LocalFilePtr>("read", std::move(reply), [file] { return File::itemOf(*file).file(); });
}

void FrontTree::release(OpenFilePtr file) {
  MutexLock lock(mutex_);
  ++asked_["release"];
  --openFiles_;
  if (File::writes(*file)) --File::itemOf(*file).writers;
}

host::Space FrontTree::space() { return {1ULL << 40U, 3ULL << 30U}; }

void FrontTree::write(OpenFilePtr file, std::int64_t offset, std::span<const std::byte> bytes,
                      Reply<Done> reply) {
  std::string copy(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  answer<Done>("write", std::move(reply), [file, offset, copy = std::move(copy)] {
    Item& item = File::itemOf(*file);
    if (!File::writes(*file)) fail(EBADF);
    const auto written = ::pwrite(item.bytes->number(), copy.data(), copy.size(), offset);
    if (written != static_cast<ssize_t>(copy.size())) fail(EIO);
    item.touch();
    return Done();
  });
}

void FrontTree::flush(OpenFilePtr, Reply<Done> reply) {
  answer<Done>("flush", std::move(reply), [] { return Done(); });
}

void FrontTree::sync(OpenFilePtr, Reply<Done> reply) {
  answer<Done>("sync", std::move(reply), [] { return Done(); });
}

void FrontTree::syncFolder(NodeId, Reply<Done> reply) {
  answer<Done>("syncFolder", std::move(reply), [] { return Done(); });
}

void FrontTree::reserve(OpenFilePtr file, std::int64_t offset, std::int64_t length, bool keepsSize,
                        Reply<Done> reply) {
  answer<Done>("reserve", std::move(reply), [file, offset, length, keepsSize] {
    checked(::fallocate(File::itemOf(*file).bytes->number(), keepsSize ? FALLOC_FL_KEEP_SIZE : 0,
                        offset, length));
    return Done();
  });
}

void FrontTree::setAttributes(NodeId node, OpenFilePtr, const host::AttributeChanges& changes,
                              Reply<Attributes> reply) {
  answer<Attributes>("setAttributes", std::move(reply), [this, node, changes]() LOCKED {
    Item& item = *itemOf(node);
    if (changes.sizeBytes) {
      checked(::ftruncate(item.bytes->number(), *changes.sizeBytes));
      item.touch();
    }
    item.isExecutable = changes.isExecutable.value_or(item.isExecutable);
    item.accessed = changes.accessed.value_or(item.accessed);
    item.modified = changes.modified.value_or(item.modified);
    item.changed = timeNow();
    return item.attributes();
  });
}

void FrontTree::create(NodeId folder, std::string name, bool isExecutable, OpenMode mode,
                       host::Caller, Reply<Created> reply) {
  answer<Created>("create", std::move(reply), [this, folder, name, isExecutable, mode]() LOCKED {
    const auto item = makeItem(itemOf(folder), name, false);
    item->isExecutable = isExecutable;
    return Created{entryOf(item), openItem(item, mode)};
  });
}

void FrontTree::makeFolder(NodeId folder, std::string name, Reply<Entry> reply) {
  answer<Entry>("makeFolder", std::move(reply), [this, folder, name]() LOCKED {
    return entryOf(makeItem(itemOf(folder), name, true));
  });
}

void FrontTree::removeFile(NodeId folder, std::string name, Reply<Done> reply) {
  answer<Done>("removeFile", std::move(reply), [this, folder, name]() LOCKED {
    remove(itemOf(folder), name, false);
    return Done();
  });
}

void FrontTree::removeFolder(NodeId folder, std::string name, Reply<Done> reply) {
  answer<Done>("removeFolder", std::move(reply), [this, folder, name]() LOCKED {
    remove(itemOf(folder), name, true);
    return Done();
  });
}

void FrontTree::rename(NodeId folder, std::string name, NodeId newFolder, std::string newName,
                       host::RenameMode mode, Reply<Done> reply) {
  answer<Done>("rename", std::move(reply), [this, folder, name, newFolder, newName, mode]() LOCKED {
    const ItemPtr from = itemOf(folder);
    const ItemPtr to = itemOf(newFolder);
    const ItemPtr item = childOf(folder, name);
    const ItemPtr other = childOf(newFolder, newName);
    if (!item || (mode == host::RenameMode::exchange && !other)) fail(ENOENT);
    if (other && mode == host::RenameMode::noReplace) fail(EEXIST);
    if (mode == host::RenameMode::exchange) {
      from->children.at(from->cookies.at(name)).second = other;
      to->children.at(to->cookies.at(newName)).second = item;
      return Done();
    }
    if (other) remove(to, newName, item->isFolder);
    take(from, name);
    put(to, newName, item);
    item->changed = timeNow();
    return Done();
  });
}

Answer<std::string> FrontTree::extendedAttribute(NodeId node, const std::string& name) {
  MutexLock lock(mutex_);
  ++asked_["extendedAttribute"];
  if (name == "user.kestrune.state") return std::string("local");
  const auto& all = itemOf(node)->extended;
  const auto found = all.find(name);
  if (found == all.end()) return errorOf(ENODATA);
  return found->second;
}

Answer<std::vector<std::string>> FrontTree::extendedAttributeNames(NodeId node) {
  MutexLock lock(mutex_);
  std::vector<std::string> names = {"user.kestrune.state"};
  for (const auto& [name, value] : itemOf(node)->extended) names.push_back(name);
  return names;
}

void FrontTree::setExtendedAttribute(NodeId node, std::string name,
                                     std::optional<std::string> value, bool mustBeNew,
                                     bool mustBeThere, Reply<Done> reply) {
  answer<Done>("setExtendedAttribute", std::move(reply),
               [this, node, name, value, mustBeNew, mustBeThere]() LOCKED {
                 if (name.starts_with("user.kestrune.")) fail(EPERM);
                 auto& all = itemOf(node)->extended;
                 const bool isThere = all.count(name) != 0;
                 if (mustBeNew && isThere) fail(EEXIST);
                 if (mustBeThere && !isThere) fail(ENODATA);
                 if (value) {
                   all[name] = *value;
                 } else {
                   all.erase(name);
                 }
                 return Done();
               });
}

void FrontTree::succeed(NodeId node) {
  MutexLock lock(mutex_);
  const ItemPtr item = itemOf(node);
  if (item->node != node) return;
  newNode(item);
  ++successors_;
}

}  // namespace kestrune::mounttest
