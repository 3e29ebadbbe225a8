#include "host/volume/test/HostHarness.h"

#include <unistd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <span>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/store/ItemTable.h"
#include "host/volume/test/ReplicaCopy.h"
#include "platform/files/Directories.h"
#include "platform/files/Paths.h"
#include "platform/tasks/Task.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

using platform::MutexLock;

Timers::Token ManualTimers::after(std::chrono::nanoseconds delay, std::function<void()> work) {
  MutexLock lock(mutex_);
  entries_.push_back({next_, now_ + delay, std::move(work)});
  changed_.notify_all();
  return next_++;
}

void ManualTimers::cancel(Token token) {
  MutexLock lock(mutex_);
  std::erase_if(entries_, [&](const Entry& entry) { return entry.token == token; });
}

std::chrono::nanoseconds ManualTimers::now() const {
  MutexLock lock(mutex_);
  if (jump_ && jump_->thread == std::this_thread::get_id() && --jump_->asks == 0)
    now_ += jump_->duration;
  return now_;
}

void ManualTimers::advance(std::chrono::nanoseconds duration, int nth,
                           std::chrono::nanoseconds within) {
  {
    MutexLock lock(mutex_);
    jump_ = Jump{std::this_thread::get_id(), nth, within};
  }
  advance(duration);
  MutexLock lock(mutex_);
  jump_.reset();
}

void ManualTimers::advance(std::chrono::nanoseconds duration) {
  std::vector<std::function<void()>> due;
  {
    MutexLock lock(mutex_);
    now_ += duration;
    const auto now = now_;
    for (auto& entry : entries_) {
      if (entry.due <= now) due.push_back(std::move(entry.work));
    }
    std::erase_if(entries_, [now](const Entry& entry) { return entry.due <= now; });
  }
  for (const auto& work : due) work();
}

std::optional<std::chrono::nanoseconds> ManualTimers::untilNext() const {
  MutexLock lock(mutex_);
  std::optional<std::chrono::nanoseconds> next;
  for (const auto& entry : entries_) {
    if (!next || entry.due - now_ < *next) next = entry.due - now_;
  }
  return next;
}

bool ManualTimers::has(std::chrono::nanoseconds delay) const {
  const auto due = now_ + delay;
  return std::any_of(entries_.begin(), entries_.end(),
                     [due](const Entry& entry) { return entry.due == due; });
}

bool ManualTimers::waitForTimer(std::chrono::nanoseconds delay) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex_);
  while (!has(delay)) {
    if (!lock.waitUntil(changed_, deadline)) return false;
  }
  return true;
}

std::size_t ManualTimers::count() const {
  MutexLock lock(mutex_);
  return entries_.size();
}

void RecordingKernelCache::tell(std::vector<CacheUpdate> updates, std::function<void()> then) {
  MutexLock lock(mutex_);
  updates_.insert(updates_.end(), updates.begin(), updates.end());
  if (!then) return;
  if (holding_) {
    waiting_.push_back(std::move(then));
  } else {
    boost::asio::post(platform::sharedExecutor(), std::move(then));
  }
}

std::vector<CacheUpdate> RecordingKernelCache::takeUpdates() {
  MutexLock lock(mutex_);
  return std::exchange(updates_, {});
}

void RecordingKernelCache::hold() {
  MutexLock lock(mutex_);
  holding_ = true;
}

void RecordingKernelCache::release() {
  std::vector<std::function<void()>> waiting;
  {
    MutexLock lock(mutex_);
    holding_ = false;
    waiting.swap(waiting_);
  }
  for (const auto& then : waiting) then();
}

namespace {

// The steps in which time passes, and how long each takes in truth.
constexpr std::chrono::milliseconds kStep{10};
constexpr std::chrono::microseconds kStepTakes{500};

template <class T>
T valueOf(const Awaited<T>& awaited) {
  auto answer = awaited.get();
  if (!answer.ok()) throw std::runtime_error(answer.error()->localizedDescription());
  return answer.value();
}

}  // namespace

HostHarness::HostHarness(bool offersParts)
    : offersParts_(offersParts),
      replica_(directory_.path() / "replica"),
      remote_(std::make_shared<FakeRemote>()),
      timers_(std::make_shared<ManualTimers>()),
      kernel_(std::make_shared<RecordingKernelCache>()) {
  mount();
}

void HostHarness::mount() {
  std::shared_ptr<ContentDirectory> directory;
  // Of an old mount that nobody holds any more the lock may be going at this moment.
  const bool isMine = support::waitUntil([&] {
    try {
      directory = std::make_shared<ContentDirectory>(replica_);
    } catch (const platform::NSPOSIXError& error) {
      if (error.code() != EBUSY) throw;
    }
    return directory != nullptr;
  });
  if (!isMine) throw std::runtime_error("the replica stays locked");
  platform::setTemporaryDirectory(directory->temporaryDirectory());
  contents_ = directory;
  Volume::Services services;
  services.extension = remote_->makeExtension(offersParts_);
  services.timers = timers_;
  services.kernel = kernel_;
  services.clock = std::make_shared<const platform::SystemClock>();
  services.log = std::make_shared<HostLog>();
  services.directory = std::move(directory);
  services.store = std::make_shared<ItemStore>(openItems(replica_ / "items.sqlite").database);
  services.machine = "test";
  const auto succession = std::exchange(succession_, std::nullopt);
  if (succession) succession->prepare(services);
  fileSystem_ = std::make_unique<FileSystem>(std::move(services), FileSystemOptions());
  if (succession) succession->takeOver(*fileSystem_);
}

void HostHarness::unmount(const std::function<void()>& whileEnding) {
  fileSystem_->stop();
  fileSystem_.reset();
  const bool hasEnded = support::waitUntil([&] {
    if (whileEnding) whileEnding();
    return contents_.expired();
  });
  if (!hasEnded) throw std::runtime_error("the old mount does not end");
}

void HostHarness::restart(const std::function<void()>& whileEnding) {
  unmount(whileEnding);
  mount();
  fileSystem_->start();
}

void HostHarness::restartFromCopy(const std::function<void()>& whileEnding) {
  const auto copy = directory_.path() / ("copy " + std::to_string(++copies_));
  copyReplica(replica_, copy);
  unmount(whileEnding);
  std::filesystem::remove_all(replica_);
  replica_ = copy;
  mount();
  fileSystem_->start();
}

HostHarness::~HostHarness() = default;

Answer<Entry> HostHarness::lookup(NodeId folder, const std::string& name) {
  const Awaited<Entry> found;
  fileSystem_->lookup(folder, name, found.reply());
  return found.get();
}

Entry HostHarness::find(const std::string& path) {
  if (path == "/") return {kRootNode, fileSystem_->attributes(kRootNode).value()};
  const Entry folder = find(platform::deletingLastPathComponent(path));
  auto found = lookup(folder.node, platform::lastPathComponent(path));
  if (!found.ok() || found.value().node == 0) throw std::runtime_error("no " + path);
  return found.value();
}

std::vector<std::string> HostHarness::names(NodeId folder) {
  const Awaited<Done> opened;
  fileSystem_->openFolder(folder, opened.reply());
  if (auto answer = opened.get(); !answer.ok())
    throw std::runtime_error(answer.error()->localizedDescription());
  NameSink sink;
  fileSystem_->readFolder(folder, 0, false, sink);
  if (sink.names.size() < 2 || sink.names[0] != "." || sink.names[1] != "..")
    throw std::runtime_error("no . and ..");
  return {sink.names.begin() + 2, sink.names.end()};
}

int HostHarness::openFolderError(NodeId folder) {
  const Awaited<Done> opened;
  fileSystem_->openFolder(folder, opened.reply());
  auto answer = opened.get();
  return answer.ok() ? 0 : errnoFor(*answer.error());
}

int HostHarness::openError(NodeId node) {
  const Awaited<OpenFilePtr> opened;
  fileSystem_->open(node, OpenMode(), Caller(), opened.reply());
  return errnoOf(opened.get());
}

OpenFilePtr HostHarness::open(NodeId node, OpenMode mode) {
  const Awaited<OpenFilePtr> opened;
  fileSystem_->open(node, mode, Caller(), opened.reply());
  return valueOf(opened);
}

OpenFilePtr HostHarness::openForWriting(const std::string& path, bool truncates) {
  OpenMode mode;
  mode.writes = true;
  mode.truncates = truncates;
  return open(find(path).node, mode);
}

Awaited<LocalFilePtr> HostHarness::startRead(const OpenFilePtr& file) {
  const Awaited<LocalFilePtr> read;
  fileSystem_->read(file, 0, SIZE_MAX, read.reply());
  return read;
}

std::string HostHarness::bytes(const LocalFilePtr& file) {
  std::string text(static_cast<std::size_t>(file->sizeBytes()), '\0');
  const ssize_t length = ::pread(file->descriptor(), text.data(), text.size(), 0);
  if (length != file->sizeBytes()) throw std::runtime_error("cannot read the local file");
  return text;
}

std::string HostHarness::readAll(const OpenFilePtr& file) {
  auto answer = startRead(file).get();
  if (!answer.ok()) throw std::runtime_error(answer.error()->localizedDescription());
  return bytes(answer.value());
}

std::string HostHarness::readPath(const std::string& path) {
  const OpenFilePtr file = open(find(path).node);
  std::string text = readAll(file);
  fileSystem_->release(file);
  return text;
}

Entry HostHarness::parentOf(const std::string& path) {
  return find(platform::deletingLastPathComponent(path));
}

OpenFilePtr HostHarness::create(const std::string& path) {
  const Awaited<Created> created;
  fileSystem_->create(parentOf(path).node, platform::lastPathComponent(path), false, OpenMode(),
                      Caller(), created.reply());
  return valueOf(created).file;
}

void HostHarness::write(const OpenFilePtr& file, const std::string& text, std::int64_t offset) {
  const Awaited<Done> written;
  fileSystem_->write(file, offset, std::as_bytes(std::span(text)), written.reply());
  valueOf(written);
}

void HostHarness::close(const OpenFilePtr& file) {
  const Awaited<Done> flushed;
  fileSystem_->flush(file, flushed.reply());
  valueOf(flushed);
  fileSystem_->release(file);
}

void HostHarness::save(const std::string& path, const std::string& text) {
  const auto known = lookup(parentOf(path).node, platform::lastPathComponent(path));
  const OpenFilePtr file =
      known.ok() && known.value().node != 0 ? openForWriting(path, true) : create(path);
  write(file, text);
  close(file);
}

void HostHarness::makeFolder(const std::string& path) {
  const Awaited<Entry> made;
  fileSystem_->makeFolder(parentOf(path).node, platform::lastPathComponent(path), made.reply());
  valueOf(made);
}

int HostHarness::removeFile(const std::string& path) {
  const Awaited<Done> removed;
  fileSystem_->removeFile(parentOf(path).node, platform::lastPathComponent(path), removed.reply());
  return errnoOf(removed.get());
}

int HostHarness::removeFolder(const std::string& path) {
  const Awaited<Done> removed;
  fileSystem_->removeFolder(parentOf(path).node, platform::lastPathComponent(path),
                            removed.reply());
  return errnoOf(removed.get());
}

int HostHarness::rename(const std::string& from, const std::string& to, RenameMode mode) {
  const Awaited<Done> renamed;
  fileSystem_->rename(parentOf(from).node, platform::lastPathComponent(from), parentOf(to).node,
                      platform::lastPathComponent(to), mode, renamed.reply());
  return errnoOf(renamed.get());
}

bool HostHarness::passUntil(const std::function<bool()>& condition,
                            std::chrono::nanoseconds limit) {
  const auto end = timers_->now() + limit;
  while (!condition()) {
    if (timers_->now() >= end) return false;
    timers_->advance(kStep);
    std::this_thread::sleep_for(kStepTakes);
  }
  return true;
}

void HostHarness::pass(std::chrono::nanoseconds duration) {
  static_cast<void>(passUntil([] { return false; }, duration));
}

bool HostHarness::waitUntilSent(std::chrono::nanoseconds limit) {
  // What is removed while it is being made differs again when that has ended.
  const auto isQuiet = [this] {
    return sender().countUnsent() == 0 && fileSystem_->calls()->count() == 0;
  };
  const auto end = timers_->now() + limit;
  while (passUntil(isQuiet, end - timers_->now())) {
    pass(Sender::kVerify * 3);
    if (isQuiet()) return true;
  }
  return false;
}

std::vector<UnsentChange> HostHarness::unsent(const std::string& path) {
  std::size_t total = 0;
  return sender().unsent(path, SIZE_MAX, total);
}

void HostHarness::announce(const std::string& folder) {
  const int before = remote_->asked(Ask::changes, folder);
  remote_->announce();
  fileSystem_->changesSignalled();
  if (!remote_->waitUntilAsked(Ask::changes, folder, before + 1))
    throw std::runtime_error("changes were not asked");
}

bool HostHarness::waitForNames(std::vector<std::string> names, NodeId folder) {
  return support::waitUntil([&] { return this->names(folder) == names; });
}

bool NameSink::add(const FolderEntry& entry) {
  if (names.size() >= room_) return false;
  names.emplace_back(entry.name);
  entries.push_back(entry.entry);
  last = entry.cookie;
  return true;
}

int errnoOf(const platform::NSErrorPtr& error) { return error ? errnoFor(*error) : 0; }

}  // namespace kestrune::host::test
