#include "host/control/test/FakeHostControl.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::host {

using platform::Json;
using platform::MutexLock;

namespace {

std::string joined(std::string words, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) words += " " + path;
  return words;
}

const char* nameOf(ItemAction action) {
  switch (action) {
    case ItemAction::pin:
      return "pin";
    case ItemAction::unpin:
      return "unpin";
    case ItemAction::evict:
      return "evict";
    case ItemAction::download:
      return "download";
  }
}

}  // namespace

template <class T>
void FakeHostControl::answer(std::string call, const Reply<T>& reply, Answer<T> answer) {
  {
    MutexLock lock(mutex_);
    calls_.push_back(std::move(call));
    if (holds_) {
      held_.emplace_back([reply, answer = std::move(answer)] { reply(answer); });
      return;
    }
  }
  reply(std::move(answer));
}

template <class T>
Each<T> FakeHostControl::each(const std::vector<std::string>& paths,
                              const std::function<T(const std::string&)>& of) {
  Each<T> all;
  for (const std::string& path : paths) {
    auto error = whyUnknown(path);
    all.push_back(error ? Answer<T>(std::move(error)) : Answer<T>(of(path)));
  }
  return all;
}

platform::NSErrorPtr FakeHostControl::whyUnknown(const std::string& path) const {
  MutexLock lock(mutex_);
  if (pending_.contains(path)) return nullptr;
  return platform::NSPOSIXError(ENOENT, "find '" + path + "'").share();
}

void FakeHostControl::status(Reply<HostStatus> reply) {
  HostStatus status;
  {
    MutexLock lock(mutex_);
    status = status_;
  }
  answer("status", reply, Answer<HostStatus>(std::move(status)));
}

void FakeHostControl::condition(Reply<HostCondition> reply) {
  HostCondition condition;
  {
    MutexLock lock(mutex_);
    condition = status_;
  }
  answer("condition", reply, Answer<HostCondition>(std::move(condition)));
}

void FakeHostControl::pending(std::string path, std::size_t most, Reply<PendingChanges> reply) {
  const std::string call = "pending " + path + " " + std::to_string(most);
  if (auto error = whyUnknown(path)) {
    return answer(call, reply, Answer<PendingChanges>(std::move(error)));
  }
  PendingChanges pending;
  {
    MutexLock lock(mutex_);
    pending = pending_[path];
  }
  answer(call, reply, Answer<PendingChanges>(std::move(pending)));
}

void FakeHostControl::tryNow(std::string path, Reply<Done> reply) {
  auto error = whyUnknown(path);
  answer("tryNow " + path, reply, error ? Answer<Done>(std::move(error)) : Answer<Done>(Done()));
}

void FakeHostControl::act(ItemAction action, std::vector<std::string> paths,
                          Reply<Each<Done>> reply) {
  answer(joined(nameOf(action), paths), reply,
         Answer<Each<Done>>(each<Done>(paths, [](const auto&) { return Done(); })));
}

void FakeHostControl::links(std::vector<std::string> paths, Reply<Each<std::string>> reply) {
  answer(joined("links", paths), reply,
         Answer<Each<std::string>>(each<std::string>(
             paths, [](const std::string& path) { return "https://share.test" + path; })));
}

void FakeHostControl::states(std::vector<std::string> paths, Reply<Each<ItemState>> reply) {
  answer(joined("states", paths), reply,
         Answer<Each<ItemState>>(each<ItemState>(paths, [](const std::string& path) {
           ItemState state;
           state.sizeBytes = 10;
           state.bytesHere = 5;
           state.isPinned = true;
           state.pending = pendingSend(path);
           return state;
         })));
}

void FakeHostControl::reasons(std::vector<std::string> paths, Reply<Each<ItemReasons>> reply) {
  answer(joined("reasons", paths), reply,
         Answer<Each<ItemReasons>>(each<ItemReasons>(paths, [this](const std::string& path) {
           MutexLock lock(mutex_);
           return reasons_[path];
         })));
}

void FakeHostControl::recentLog(Reply<std::vector<std::string>> reply) {
  std::vector<std::string> lines;
  {
    MutexLock lock(mutex_);
    lines = log_;
  }
  answer("log", reply, Answer<std::vector<std::string>>(std::move(lines)));
}

void FakeHostControl::end(Reply<Done> reply) {
  std::function<void()> end;
  {
    MutexLock lock(mutex_);
    end = end_;
  }
  if (end) end();
  answer("end", reply, Answer<Done>(Done()));
}

void FakeHostControl::folderStates(std::string folder, Reply<std::vector<EntryState>> reply) {
  Answer<std::vector<EntryState>> told =
      platform::NSPOSIXError(ENOENT, "find '" + folder + "'").share();
  {
    MutexLock lock(mutex_);
    if (const auto at = entries_.find(folder); at != entries_.end()) told = at->second;
  }
  answer("folderStates " + folder, reply, std::move(told));
}

void FakeHostControl::watch(std::function<void()> wake) {
  MutexLock lock(mutex_);
  wake_ = std::move(wake);
}

HostChanges FakeHostControl::takeChanges() {
  MutexLock lock(mutex_);
  return std::exchange(changes_, {});
}

void FakeHostControl::setEntries(const std::string& folder, std::vector<EntryState> entries) {
  MutexLock lock(mutex_);
  entries_[folder] = std::move(entries);
}

void FakeHostControl::change(HostChanges changes) {
  MutexLock lock(mutex_);
  const auto append = [](auto& to, const auto& from) {
    for (const std::string& path : from) {
      if (std::find(to.begin(), to.end(), path) == to.end()) to.push_back(path);
    }
  };
  append(changes_.folders, changes.folders);
  append(changes_.conflicts, changes.conflicts);
  if (wake_) wake_();
}

bool FakeHostControl::isWatched() const {
  MutexLock lock(mutex_);
  return wake_ != nullptr;
}

void FakeHostControl::restart(Reply<Done> reply) {
  answer("restart", reply, Answer<Done>(platform::NSPOSIXError(ENOEXEC, "execute").share()));
}

void FakeHostControl::allowDeletions(Reply<std::uint64_t> reply) {
  answer("allowDeletions", reply, Answer<std::uint64_t>(std::uint64_t{7}));
}

void FakeHostControl::keepDeleted(Reply<std::uint64_t> reply) {
  answer("keepDeleted", reply, Answer<std::uint64_t>(std::uint64_t{8}));
}

void FakeHostControl::setReasons(const std::string& path, ItemReasons reasons) {
  MutexLock lock(mutex_);
  reasons_[path] = std::move(reasons);
  pending_.try_emplace(path);
}

void FakeHostControl::setLog(std::vector<std::string> lines) {
  MutexLock lock(mutex_);
  log_ = std::move(lines);
}

void FakeHostControl::setEnd(std::function<void()> end) {
  MutexLock lock(mutex_);
  end_ = std::move(end);
}

void FakeHostControl::setStatus(HostStatus status) {
  MutexLock lock(mutex_);
  status_ = std::move(status);
}

void FakeHostControl::setPending(const std::string& path, PendingChanges pending) {
  MutexLock lock(mutex_);
  pending_[path] = std::move(pending);
}

void FakeHostControl::hold() {
  MutexLock lock(mutex_);
  holds_ = true;
}

void FakeHostControl::release() {
  std::deque<std::function<void()>> held;
  {
    MutexLock lock(mutex_);
    holds_ = false;
    held = std::exchange(held_, {});
  }
  for (const auto& reply : held) reply();
}

std::size_t FakeHostControl::heldCount() const {
  MutexLock lock(mutex_);
  return held_.size();
}

std::vector<std::string> FakeHostControl::calls() const {
  MutexLock lock(mutex_);
  return calls_;
}

std::size_t FakeHostControl::callCount(std::string_view call) const {
  MutexLock lock(mutex_);
  return static_cast<std::size_t>(std::count(calls_.begin(), calls_.end(), call));
}

RawClient::RawClient(const std::filesystem::path& socketFile)
    : connection_(ControlSocket::connect(socketFile)) {}

void RawClient::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t went = ::send(connection_->number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (went < 0 && (errno == EPIPE || errno == ECONNRESET)) return;
    if (went < 0) throw std::system_error(errno, std::generic_category(), "send");
    bytes.remove_prefix(static_cast<std::size_t>(went));
  }
}

void RawClient::endSending() const { ::shutdown(connection_->number(), SHUT_WR); }

std::optional<Json> RawClient::readLine() {
  std::array<char, 4096> piece{};
  for (;;) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      const Json line = platform::decodeJson(unread_.substr(0, end));
      unread_.erase(0, end + 1);
      return line;
    }
    constexpr int kDeadlineMilliseconds = 20'000;
    pollfd polled = {connection_->number(), POLLIN, 0};
    if (::poll(&polled, 1, kDeadlineMilliseconds) == 0) throw std::runtime_error("no line in time");
    const ssize_t got = ::recv(connection_->number(), piece.data(), piece.size(), 0);
    if (got == 0 || (got < 0 && errno == ECONNRESET)) return std::nullopt;
    if (got > 0) unread_.append(piece.data(), static_cast<std::size_t>(got));
  }
}

Json RawClient::ask(const std::string& line) {
  send(line + "\n");
  return readLine().value_or(Json());
}

std::string RawClient::readError() {
  return readLine().value_or(Json::object()).value("error", "");
}

ControlledHost::ControlledHost(std::chrono::milliseconds patience, std::size_t mostClients) {
  ControlOptions chosen = options();
  chosen.patience = patience;
  chosen.mostClients = mostClients;
  server = std::make_unique<ControlServer>(std::move(chosen), control);
}

ControlOptions ControlledHost::options() const {
  ControlOptions options;
  options.socketFile = file();
  options.mountPoint = "/mnt/k";
  options.domainIdentifier = "main";
  options.replica = "/var/replica";
  return options;
}

PendingChange pendingSend(const std::string& path, const std::string& reason) {
  PendingChange change;
  change.path = path;
  change.kind = PendingChange::Kind::send;
  change.bytes = 5;
  if (!reason.empty()) {
    change.attempts = 3;
    change.reason = reason;
    change.nextAttempt = std::chrono::seconds(8);
  }
  return change;
}

}  // namespace kestrune::host
