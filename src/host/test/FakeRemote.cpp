#include "host/test/FakeRemote.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "host/test/FakeItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/AtomicFile.h"
#include "platform/files/Paths.h"
#include "platform/tasks/Task.h"

namespace kestrune::host::test {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;

constexpr std::chrono::seconds kDeadline{20};
const char* const kRoot = platform::NSFileProviderRootContainerItemIdentifier;

}  // namespace

FakeRemote::FakeRemote() {
  MutexLock lock(mutex_);
  folders_[kRoot];
}

FakeRemote::Folder& FakeRemote::folderAt(const std::string& path) {
  if (path == "/" || path.empty()) return folders_[kRoot];
  const RemoteItem* item = find(path);
  if (item == nullptr || !item->isFolder) throw std::logic_error("no folder " + path);
  return folders_[item->identifier];
}

RemoteItem* FakeRemote::find(const std::string& path) {
  auto& items = folderAt(platform::deletingLastPathComponent(path)).items;
  const std::string name = platform::lastPathComponent(path);
  const auto found =
      std::find_if(items.begin(), items.end(), [&](const auto& item) { return item.name == name; });
  return found == items.end() ? nullptr : &*found;
}

std::string FakeRemote::identifierAt(const std::string& path) {
  const std::string parent = platform::deletingLastPathComponent(path);
  const RemoteItem* folder = parent == "/" || parent.empty() ? nullptr : find(parent);
  return identifierFor(folder == nullptr ? kRoot : folder->identifier,
                       platform::lastPathComponent(path));
}

std::string FakeRemote::pathOf(const std::string& identifier) const {
  if (identifier == kRoot) return "/";
  for (const auto& [id, folder] : folders_) {
    if (const RemoteItem* item = byIdentifier(folder.items, identifier)) {
      const std::string parent = pathOf(id);
      return (parent == "/" ? "" : parent) + "/" + item->name;
    }
  }
  return identifier;  // gone: only by its identifier can it still be spoken of
}

std::string FakeRemote::putFolder(const std::string& path) {
  MutexLock lock(mutex_);
  RemoteItem item;
  item.name = platform::lastPathComponent(path);
  item.identifier = identifierAt(path);
  item.isFolder = true;
  folders_[item.identifier];
  folderAt(platform::deletingLastPathComponent(path)).items.push_back(item);
  changed();
  return item.identifier;
}

std::string FakeRemote::putFile(const std::string& path, std::string contents) {
  MutexLock lock(mutex_);
  RemoteItem item;
  item.name = platform::lastPathComponent(path);
  item.identifier = identifierAt(path);
  item.contents = std::move(contents);
  item.version = versionOf("put", item);
  folderAt(platform::deletingLastPathComponent(path)).items.push_back(item);
  changed();
  return item.identifier;
}

void FakeRemote::putFileListedAs(const std::string& path, std::string contents,
                                 std::int64_t listedSize) {
  putFile(path, std::move(contents));
  MutexLock lock(mutex_);
  find(path)->listedSize = listedSize;
}

void FakeRemote::putItem(const std::string& folder, RemoteItem item) {
  MutexLock lock(mutex_);
  if (item.identifier.empty()) item.identifier = "item-" + std::to_string(nextIdentifier_++);
  if (item.isFolder) folders_[item.identifier];
  folderAt(folder).items.push_back(std::move(item));
}

void FakeRemote::overwrite(const std::string& path, std::string contents) {
  MutexLock lock(mutex_);
  RemoteItem* item = find(path);
  item->contents = std::move(contents);
  item->version = versionOf("overwritten", *item);
  item->modified += std::chrono::seconds(1);
  changed();
}

void FakeRemote::loseContents(const std::string& path) {
  MutexLock lock(mutex_);
  find(path)->version = "lost";
}

void FakeRemote::remove(const std::string& path) {
  MutexLock lock(mutex_);
  const RemoteItem* item = find(path);
  if (item == nullptr) return;
  std::vector<std::string> gone;
  removeFrom(folderAt(platform::deletingLastPathComponent(path)), std::string(item->identifier),
             gone);
  changed();
}

void FakeRemote::rename(const std::string& from, const std::string& to) {
  MutexLock lock(mutex_);
  const std::string parent = platform::deletingLastPathComponent(to);
  const std::string folder = parent == "/" ? kRoot : find(parent)->identifier;
  place(std::string(find(from)->identifier), folder, platform::lastPathComponent(to));
  changed();
}

void FakeRemote::announce() {
  std::filesystem::path file;
  std::string text;
  {
    MutexLock lock(mutex_);
    history_[++time_] = folders_;
    file = signalFile_;
    text = "time-" + std::to_string(time_);
  }
  if (!file.empty()) platform::replaceFile(file, text, platform::Durability::atomic);
}

void FakeRemote::setSignalFile(std::filesystem::path file) {
  MutexLock lock(mutex_);
  signalFile_ = std::move(file);
}

std::string FakeRemote::anchor() const {
  MutexLock lock(mutex_);
  return "time-" + std::to_string(time_);
}

std::vector<RemoteItem> FakeRemote::listing(const std::string& folderIdentifier) const {
  MutexLock lock(mutex_);
  const auto found = folders_.find(folderIdentifier);
  return found == folders_.end() ? std::vector<RemoteItem>{} : found->second.items;
}

std::vector<RemoteItem> FakeRemote::listingAt(const std::string& folderIdentifier,
                                              std::uint64_t time) const {
  MutexLock lock(mutex_);
  const auto then = history_.find(time);
  if (then == history_.end()) return {};
  const auto found = then->second.find(folderIdentifier);
  return found == then->second.end() ? std::vector<RemoteItem>{} : found->second.items;
}

void FakeRemote::answerLater(Ask ask, const std::string& identifier,
                             std::function<void(NSErrorPtr)> answer, std::function<void()> take) {
  answerAt(ask, pathIn(identifier), std::move(answer), std::move(take));
}

void FakeRemote::answerAt(Ask ask, const std::string& path, std::function<void(NSErrorPtr)> answer,
                          std::function<void()> take) {
  Treatment treatment;
  Held question{ask, path,
                [self = shared_from_this(), answer = std::move(answer)](const NSErrorPtr& error) {
                  answer(error);
                  MutexLock lock(self->mutex_);
                  --self->underWay_;
                }};
  Weather weather;
  {
    MutexLock lock(mutex_);
    const Key key(ask, path);
    ++counts_[key];
    ++underWay_;
    asked_.notify_all();
    if (holding_[key]) {
      held_.push_back(std::move(question));
      return;
    }
    if (const auto found = failures_.find(key); found != failures_.end())
      treatment = {Treatment::Kind::refused, found->second};
    if (unreachable_) {
      treatment = {Treatment::Kind::refused,
                   NSFileProviderError(NSFileProviderError::serverUnreachable).share()};
    }
    weather = weather_;
  }
  if (weather) treatment = weather(ask);
  answerUnder(treatment, question, take);
}

void FakeRemote::hold(Ask ask, const std::string& path) {
  MutexLock lock(mutex_);
  holding_[{ask, path}] = true;
}

void FakeRemote::release(Ask ask, const std::string& path, NSErrorPtr error) {
  std::function<void(NSErrorPtr)> answer;
  {
    MutexLock lock(mutex_);
    const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) {
      return held.ask == ask && held.path == path;
    });
    if (found == held_.end()) throw std::logic_error("nothing is held for " + path);
    answer = std::move(found->answer);
    held_.erase(found);
  }
  answer(std::move(error));
}

void FakeRemote::stopHolding(Ask ask, const std::string& path) {
  std::vector<std::function<void(NSErrorPtr)>> answers;
  {
    MutexLock lock(mutex_);
    holding_[{ask, path}] = false;
    for (auto& held : held_) {
      if (held.ask == ask && held.path == path) answers.push_back(std::move(held.answer));
    }
    std::erase_if(held_, [&](const Held& held) { return held.ask == ask && held.path == path; });
  }
  for (const auto& answer : answers) answer(nullptr);
}

void FakeRemote::failWith(Ask ask, const std::string& path, NSErrorPtr error) {
  MutexLock lock(mutex_);
  failures_[{ask, path}] = std::move(error);
}

void FakeRemote::setUnreachable(bool unreachable) {
  MutexLock lock(mutex_);
  unreachable_ = unreachable;
}

void FakeRemote::failChangesSilently(bool fail) {
  MutexLock lock(mutex_);
  changesFail_ = fail;
}

void FakeRemote::exaggerateChanges(bool exaggerate) {
  MutexLock lock(mutex_);
  exaggerate_ = exaggerate;
}

void FakeRemote::setPageSize(std::size_t items) {
  MutexLock lock(mutex_);
  pageSize_ = items;
}

void FakeRemote::setChangesAtOnce(std::size_t changes) {
  MutexLock lock(mutex_);
  changesAtOnce_ = changes;
}

void FakeRemote::setPolicy(const std::string& path, platform::NSFileProviderContentPolicy policy) {
  MutexLock lock(mutex_);
  find(path)->policy = policy;
}

void FakeRemote::expireAnchors(bool expire) {
  MutexLock lock(mutex_);
  anchorsExpired_ = expire;
}

int FakeRemote::asked(Ask ask, const std::string& path) const {
  MutexLock lock(mutex_);
  const auto found = counts_.find({ask, path});
  return found == counts_.end() ? 0 : found->second;
}

bool FakeRemote::waitUntilAsked(Ask ask, const std::string& path, int count) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex_);
  while (counts_[{ask, path}] < count) {
    if (!lock.waitUntil(asked_, deadline)) return false;
  }
  return true;
}

bool FakeRemote::invalidated() const {
  MutexLock lock(mutex_);
  return invalidated_;
}

int FakeRemote::cancelled() const {
  MutexLock lock(mutex_);
  return cancelled_;
}

}  // namespace kestrune::host::test
