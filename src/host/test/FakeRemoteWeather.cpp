// How the remote store in memory treats questions at random, and what others do there at one moment.
#include <algorithm>
#include <boost/asio/post.hpp>
#include <utility>

#include "host/test/FakeItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Paths.h"
#include "platform/tasks/Task.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;

const char* const kRoot = platform::NSFileProviderRootContainerItemIdentifier;

bool differ(const RemoteItem& a, const RemoteItem& b) {
  return a.name != b.name || a.version != b.version || a.isFolder != b.isFolder ||
         a.modified != b.modified || a.listedSize != b.listedSize;
}

std::string joined(const std::string& folder, const std::string& name) {
  return (folder == "/" ? "" : folder) + "/" + name;
}

}  // namespace

// ------------------------------------------------------------------------------------------- weather

void FakeRemote::setWeather(Weather weather) {
  MutexLock lock(mutex_);
  weather_ = std::move(weather);
}

void FakeRemote::answerUnder(const Treatment& treatment, const Held& question,
                             const std::function<void()>& take) {
  using Kind = Treatment::Kind;
  const auto post = [](std::function<void()> work) {
    boost::asio::post(platform::sharedExecutor(), std::move(work));
  };
  switch (treatment.kind) {
    case Kind::fair:
    case Kind::refused:
      post([answer = question.answer, error = treatment.error] { answer(error); });
      return;
    case Kind::lost:
      post([answer = question.answer, take, error = treatment.error] {
        if (take) take();
        answer(error);
      });
      return;
    case Kind::late:
      post([self = shared_from_this(), question, take] {
        if (take) take();
        MutexLock lock(self->mutex_);
        self->heldByWeather_.push_back(question);
      });
      return;
    case Kind::held:
      MutexLock lock(mutex_);
      heldByWeather_.push_back(question);
  }
}

void FakeRemote::releaseAll(NSErrorPtr error) {
  std::vector<Held> held;
  {
    MutexLock lock(mutex_);
    held.swap(heldByWeather_);
  }
  for (const Held& question : held) question.answer(error);
}

std::size_t FakeRemote::countHeld() const {
  MutexLock lock(mutex_);
  return heldByWeather_.size();
}

std::size_t FakeRemote::countUnderWay() const {
  MutexLock lock(mutex_);
  return underWay_;
}

// ------------------------------------------------------------------------------------------- anchors and versions

void FakeRemote::moveAnchorWithEveryChange() {
  MutexLock lock(mutex_);
  everyChangeMoves_ = true;
  history_[time_] = folders_;
}

void FakeRemote::changed() {
  if (everyChangeMoves_) history_[++time_] = folders_;
}

std::set<std::string> FakeRemote::seenIn(const std::string& folderIdentifier, std::uint64_t from,
                                         std::uint64_t to) const {
  MutexLock lock(mutex_);
  std::set<std::string> identifiers;
  for (auto at = history_.lower_bound(from); at != history_.end() && at->first <= to; ++at) {
    const auto folder = at->second.find(folderIdentifier);
    if (folder == at->second.end()) continue;
    for (const RemoteItem& item : folder->second.items) identifiers.insert(item.identifier);
  }
  return identifiers;
}

bool FakeRemote::wasOther(const std::string& folderIdentifier, const RemoteItem& item,
                          std::uint64_t from, std::uint64_t to) const {
  MutexLock lock(mutex_);
  const auto begin = history_.lower_bound(from);
  if (begin == history_.end() || begin->first != from) return true;
  for (auto at = begin; at != history_.end() && at->first <= to; ++at) {
    const auto folder = at->second.find(folderIdentifier);
    const RemoteItem* then =
        folder == at->second.end() ? nullptr : byIdentifier(folder->second.items, item.identifier);
    if (then == nullptr || differ(*then, item)) return true;
  }
  return false;
}

std::string FakeRemote::versionOf(const char* kind, const RemoteItem& item) {
  std::string version = kind + ("-" + std::to_string(nextVersion_++));
  versions_[version] = item.contents;
  versionsOf_[item.identifier].push_back(version);
  return version;
}

std::optional<std::string> FakeRemote::contentsOfVersion(const std::string& version) const {
  MutexLock lock(mutex_);
  const auto found = versions_.find(version);
  return found == versions_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<std::string> FakeRemote::contentsSince(const std::string& version) const {
  MutexLock lock(mutex_);
  std::vector<std::string> contents;
  for (const auto& [identifier, versions] : versionsOf_) {
    for (auto at = std::find(versions.begin(), versions.end(), version); at != versions.end(); ++at)
      contents.push_back(versions_.at(*at));
  }
  return contents;
}

// ------------------------------------------------------------------------------------------- others

bool FakeRemote::isFolderAt(const std::string& path) {
  if (path == "/") return true;
  const RemoteItem* item = findIfThere(path);
  return item != nullptr && item->isFolder;
}

RemoteItem* FakeRemote::findIfThere(const std::string& path) {
  return isFolderAt(platform::deletingLastPathComponent(path)) ? find(path) : nullptr;
}

// A folder goes with all that is in it.
void FakeRemote::removeFrom(Folder& folder, const std::string& identifier,
                            std::vector<std::string>& gone) {
  const RemoteItem item = *findIn(folder, identifier);
  std::erase_if(folder.items,
                [&](const RemoteItem& other) { return other.identifier == identifier; });
  if (!item.isFolder) {
    gone.push_back(item.contents);
    return;
  }
  Folder& inner = folders_[item.identifier];
  while (!inner.items.empty()) removeFrom(inner, std::string(inner.items.front().identifier), gone);
  folders_.erase(item.identifier);
}

bool FakeRemote::tryPut(const std::string& path, const std::optional<std::string>& contents) {
  MutexLock lock(mutex_);
  if (!isFolderAt(platform::deletingLastPathComponent(path)) || find(path) != nullptr) return false;
  RemoteItem item;
  item.name = platform::lastPathComponent(path);
  item.identifier = identifierAt(path);
  item.isFolder = !contents;
  if (contents) {
    item.contents = *contents;
    item.version = versionOf("put", item);
  } else {
    folders_[item.identifier];
  }
  folderAt(platform::deletingLastPathComponent(path)).items.push_back(item);
  changed();
  return true;
}

bool FakeRemote::tryOverwrite(const std::string& path, std::string contents, std::string& gone) {
  MutexLock lock(mutex_);
  RemoteItem* item = findIfThere(path);
  if (item == nullptr || item->isFolder) return false;
  gone = std::exchange(item->contents, std::move(contents));
  item->version = versionOf("overwritten", *item);
  item->modified += std::chrono::seconds(1);
  changed();
  return true;
}

bool FakeRemote::tryRemove(const std::string& path, std::vector<std::string>& gone) {
  MutexLock lock(mutex_);
  const RemoteItem* item = findIfThere(path);
  if (item == nullptr) return false;
  removeFrom(folderAt(platform::deletingLastPathComponent(path)), std::string(item->identifier),
             gone);
  changed();
  return true;
}

bool FakeRemote::tryRename(const std::string& from, const std::string& to) {
  MutexLock lock(mutex_);
  const RemoteItem* item = findIfThere(from);
  const bool isWithin = (to + "/").starts_with(from + "/");
  if (item == nullptr || isWithin || findIfThere(to) != nullptr) return false;
  const std::string parent = platform::deletingLastPathComponent(to);
  if (!isFolderAt(parent)) return false;
  const std::string folder = parent == "/" ? kRoot : find(parent)->identifier;
  place(std::string(item->identifier), folder, platform::lastPathComponent(to));
  changed();
  return true;
}

std::map<std::string, std::optional<std::string>> FakeRemote::tree() {
  MutexLock lock(mutex_);
  std::map<std::string, std::optional<std::string>> tree;
  std::vector<std::pair<std::string, std::string>> folders = {{"/", kRoot}};  // path, identifier
  for (std::size_t i = 0; i < folders.size(); ++i) {
    const auto [path, identifier] = folders[i];
    for (const RemoteItem& item : folders_[identifier].items) {
      const std::string at = joined(path, item.name);
      tree[at] = item.isFolder ? std::nullopt : std::optional(item.contents);
      if (item.isFolder) folders.emplace_back(at, item.identifier);
    }
  }
  return tree;
}

}  // namespace kestrune::host::test
