// What becomes of the changes that are sent to the remote store in memory.
#include <algorithm>
#include <chrono>
#include <utility>

#include "host/test/FakeItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/AtomicFile.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemPtr;

const char* const kRoot = platform::NSFileProviderRootContainerItemIdentifier;

}  // namespace

std::string FakeRemote::pathIn(const std::string& identifier, const std::string& name) const {
  MutexLock lock(mutex_);
  const std::string path = pathOf(identifier);
  if (name.empty()) return path;
  return (path == "/" ? "" : path) + "/" + name;
}

FakeRemote::Folder* FakeRemote::folderOf(const std::string& identifier, std::string& parent) {
  for (auto& [id, folder] : folders_) {
    if (byIdentifier(folder.items, identifier) == nullptr) continue;
    parent = id;
    return &folder;
  }
  return nullptr;
}

std::optional<RemoteItem> FakeRemote::copyOf(const std::string& identifier) const {
  MutexLock lock(mutex_);
  for (const auto& [id, folder] : folders_) {
    if (const RemoteItem* item = byIdentifier(folder.items, identifier)) return *item;
  }
  return std::nullopt;
}

NSFileProviderItemPtr FakeRemote::described(const std::string& identifier) const {
  MutexLock lock(mutex_);
  for (const auto& [id, folder] : folders_) {
    if (const RemoteItem* item = byIdentifier(folder.items, identifier))
      return std::make_shared<FakeItem>(*item, id);
  }
  return nullptr;
}

void FakeRemote::store(RemoteItem& item, const std::filesystem::path& contents) {
  item.contents = platform::readFile(contents);
  item.version = versionOf("stored", item);
  item.modified = std::chrono::floor<std::chrono::seconds>(platform::SystemClock().now());
  uploads_.push_back(pathOf(item.identifier));
}

// What an upload is answered with: nobody has asked yet which version the store made of it.
NSFileProviderItemPtr FakeRemote::answerFor(const RemoteItem& item, const std::string& parent,
                                            bool hasContents) {
  RemoteItem answer = item;
  if (hasContents) answer.version = versionOf("answered", item);
  return std::make_shared<FakeItem>(answer, parent);
}

NSFileProviderItemPtr FakeRemote::create(const platform::NSFileProviderItem& wanted,
                                         const std::optional<std::filesystem::path>& contents) {
  MutexLock lock(mutex_);
  const std::string parent = wanted.parentItemIdentifier();
  const auto folder = folders_.find(parent);
  if (folder == folders_.end())
    throw NSFileProviderError(NSFileProviderError::cannotSynchronize, "There is no such folder.");
  RemoteItem item;
  item.name = wanted.filename();
  item.isFolder = !contents;
  const bool isTaken =
      std::any_of(folder->second.items.begin(), folder->second.items.end(),
                  [&](const RemoteItem& other) { return other.name == item.name; });
  if (isTaken) throw NSFileProviderError(NSFileProviderError::filenameCollision);
  item.identifier = identifierFor(parent, item.name);
  folder->second.items.push_back(item);
  if (contents) {
    store(folder->second.items.back(), *contents);
  } else {
    folders_[item.identifier];
  }
  changed();
  return answerFor(folders_[parent].items.back(), parent, contents.has_value());
}

bool FakeRemote::isWithin(std::string folder, const std::string& identifier) {
  while (folder != identifier) {
    if (folderOf(std::string(folder), folder) == nullptr) return false;
  }
  return true;
}

NSFileProviderItemPtr FakeRemote::modify(const platform::NSFileProviderItem& wanted,
                                         NSFileProviderItemFields fields,
                                         const std::optional<std::filesystem::path>& contents) {
  MutexLock lock(mutex_);
  std::string parent;
  std::string identifier = wanted.itemIdentifier();
  if (folderOf(identifier, parent) == nullptr)
    throw NSFileProviderError(NSFileProviderError::noSuchItem);
  if (platform::contains(fields, NSFileProviderItemFields::filename) ||
      platform::contains(fields, NSFileProviderItemFields::parentItemIdentifier)) {
    parent = wanted.parentItemIdentifier();
    const auto to = folders_.find(parent);
    if (to == folders_.end())
      throw NSFileProviderError(NSFileProviderError::cannotSynchronize, "There is no such folder.");
    for (const RemoteItem& other : to->second.items) {
      if (other.name == wanted.filename() && other.identifier != identifier)
        throw NSFileProviderError(NSFileProviderError::filenameCollision);
    }
    if (isWithin(parent, identifier)) {
      throw NSFileProviderError(NSFileProviderError::cannotSynchronize,
                                "A folder cannot be moved into itself.");
    }
    identifier = place(identifier, parent, wanted.filename());
  }
  RemoteItem& item = *findIn(folders_[parent], identifier);
  if (contents) store(item, *contents);
  changed();
  return answerFor(item, parent, contents.has_value());
}

void FakeRemote::removeItem(const std::string& identifier) {
  MutexLock lock(mutex_);
  std::string parent;
  Folder* folder = folderOf(identifier, parent);
  if (folder == nullptr) throw NSFileProviderError(NSFileProviderError::noSuchItem);
  std::vector<std::string> gone;
  removeFrom(*folder, std::string(identifier), gone);
  changed();
}

RemoteItem* FakeRemote::findIn(Folder& folder, const std::string& identifier) {
  const auto found = std::find_if(folder.items.begin(), folder.items.end(),
                                  [&](const auto& item) { return item.identifier == identifier; });
  return found == folder.items.end() ? nullptr : &*found;
}

// Moves the item; where identifiers are paths it and all below it get others. Returns its identifier.
std::string FakeRemote::place(const std::string& identifier, const std::string& parent,
                              const std::string& name) {
  std::string oldParent;
  Folder* left = folderOf(identifier, oldParent);
  RemoteItem item = *findIn(*left, identifier);
  std::erase_if(left->items, [&](const auto& other) { return other.identifier == identifier; });
  item.name = name;
  if (pathIdentifiers_) item.identifier = identifierFor(parent, name);
  if (item.identifier != identifier && !item.isFolder)
    versionsOf_[item.identifier].push_back(item.version);
  folders_[parent].items.push_back(item);
  if (item.isFolder && item.identifier != identifier) renumber(identifier, item.identifier);
  return item.identifier;
}

void FakeRemote::renumber(const std::string& from, const std::string& to) {
  Folder folder = std::move(folders_.extract(from).mapped());
  for (RemoteItem& item : folder.items) {
    const std::string before = std::exchange(item.identifier, to + "/" + item.name);
    if (!item.isFolder) versionsOf_[item.identifier].push_back(item.version);
    if (item.isFolder) renumber(before, item.identifier);
  }
  folders_[to] = std::move(folder);
}

void FakeRemote::usePathsAsIdentifiers() {
  MutexLock lock(mutex_);
  pathIdentifiers_ = true;
}

std::string FakeRemote::identifierFor(const std::string& parent, const std::string& name) {
  if (!pathIdentifiers_) return "item-" + std::to_string(nextIdentifier_++);
  return (parent == kRoot ? "path:" : parent) + "/" + name;
}

void FakeRemote::changeLater(
    Ask ask, const std::string& path, const std::function<NSFileProviderItemPtr()>& change,
    const std::function<void(NSFileProviderItemPtr item, NSErrorPtr error)>& answer) {
  struct Made {
    bool isTried = false;
    NSFileProviderItemPtr item;
    NSErrorPtr error;
  };
  const auto made = std::make_shared<Made>();
  auto make = [made, change] {
    made->isTried = true;
    try {
      made->item = change();
    } catch (const platform::NSError& failure) {
      made->error = failure.share();
    }
  };
  auto tell = [self = shared_from_this(), ask, path, made, make, answer](NSErrorPtr error) {
    if (!error && !made->isTried) make();
    if (!error) error = made->error;
    {
      MutexLock lock(self->mutex_);
      const auto lost = self->lost_.find({ask, path});
      if (!error && lost != self->lost_.end()) error = lost->second;
    }
    answer(error ? nullptr : made->item, error);
  };
  answerAt(ask, path, tell, make);
}

void FakeRemote::loseAnswers(Ask ask, const std::string& path, NSErrorPtr error) {
  MutexLock lock(mutex_);
  if (error) {
    lost_[{ask, path}] = std::move(error);
  } else {
    lost_.erase({ask, path});
  }
}

std::optional<std::string> FakeRemote::contents(const std::string& path) {
  MutexLock lock(mutex_);
  const RemoteItem* item = findIfThere(path);
  return item == nullptr ? std::nullopt : std::optional(item->contents);
}

std::string FakeRemote::identifierOf(const std::string& path) {
  MutexLock lock(mutex_);
  const RemoteItem* item = findIfThere(path);
  return item == nullptr ? std::string() : item->identifier;
}

std::vector<std::string> FakeRemote::names(const std::string& folder) {
  MutexLock lock(mutex_);
  std::vector<std::string> names;
  for (const RemoteItem& item : folderAt(folder).items) names.push_back(item.name);
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> FakeRemote::uploads() const {
  MutexLock lock(mutex_);
  return uploads_;
}

}  // namespace kestrune::host::test
