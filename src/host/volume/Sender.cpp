#include "host/volume/Sender.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSError;
using platform::Task;

// Ends of changes come in bursts: one look at everything serves them all.
constexpr std::chrono::milliseconds kTogether{1};

// So often the next extension is given at once what the last one died with; then there is a pause, as after other failures.
constexpr int kInterruptionsAtOnce = 3;

// Nothing gets through, whatever it is.
bool isOffline(const NSError& error) {
  if (platform::isInterruption(error)) return false;
  const int number = errnoFor(error);
  return number == EHOSTUNREACH || number == ETIMEDOUT || number == ENETDOWN;
}

// What is guarded by a lock that is held, for lambdas that run under it: the analysis does not see that they do.
template <class T>
T& held(const MutexLock&, T& guarded) {
  return guarded;
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
  return folder == "/" || path == folder ||
         (path.starts_with(folder) && path[folder.size()] == '/');
}

Change::Kind kindOf(const OutgoingItem& item) {
  // What is gone here and not known to be there is being made, and goes when that has ended.
  if (item.isToBeRemoved() || !item.isLinked) return Change::Kind::remove;
  if (item.isToBeCreated()) return Change::Kind::create;
  return item.isToBeMoved() ? Change::Kind::move : Change::Kind::send;
}

bool isSame(const OutgoingItem& a, const OutgoingItem& b) {
  return a.isLinked == b.isLinked && a.here == b.here && a.there == b.there && a.edits == b.edits &&
         a.sentEdits == b.sentEdits;
}

}  // namespace

Sender::Sender(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister,
               std::shared_ptr<Contents> contents, std::shared_ptr<ExtensionCalls> calls)
    : volume_(std::move(volume)),
      lister_(std::move(lister)),
      contents_(std::move(contents)),
      calls_(std::move(calls)) {}

// After so many failures before the last one.
std::chrono::seconds Sender::pauseAfter(int failures) {
  return std::min<std::chrono::seconds>(kLongestPause,
                                        std::chrono::seconds(1LL << std::min(failures, 9)));
}

Sender::Clock Sender::quietFor(ItemId id) {
  const platform::Date wallClock = volume_->services().clock->now();
  return volume_->look([&](Tree& tree, Nodes&) -> Clock {
    const Item* item = tree.find(id);
    if (item == nullptr) return Clock(0);
    const OutgoingItem outgoing = Tree::outgoingItem(*item);
    if (outgoing.isToBeRemoved() || outgoing.isToBeMoved()) return kQuietNames;
    if (item->isFolder) return Clock(0);
    if (item->timesLost > 0 && !item->there) return pauseAfter(item->timesLost - 1);
    if (outgoing.isToBeCreated() && item->sizeBytes >= kLargeBytes) return kQuietLarge;
    const platform::Date sent{std::chrono::seconds(item->uploadedSeconds())};
    const bool again = item->uploadedSeconds() != 0 && wallClock - sent < std::chrono::seconds(3);
    return again ? Clock(kQuietAgain) : Clock(kQuiet);
  });
}

std::optional<OutgoingItem> Sender::outgoing(ItemId id) {
  return volume_->look([id](Tree& tree, Nodes&) -> std::optional<OutgoingItem> {
    const Item* item = tree.find(id);
    if (item == nullptr) return std::nullopt;
    return Tree::outgoingItem(*item);
  });
}

void Sender::differ(const std::vector<ItemId>& items) {
  Clock first = Clock::max();
  for (const ItemId id : items) {
    const Clock quiet = quietFor(id);
    const Clock at = now();
    const auto differs = outgoing(id);
    MutexLock lock(mutex_);
    Waits::Wait& wait = waits_.of(id, at);
    // What fails and is changed again may succeed now. Not all that is told here is such a change.
    const auto& failed = wait.failed;
    const bool isOther = failed && differs && !isSame(*failed, *differs);
    if (isOther && !wait.unreachable) wait.attempts = 0;
    if (wait.attempts == 0) wait.notBefore = at + quiet;
    first = std::min(first, quiet);
  }
  if (first != Clock::max()) pumpSoon(first);
}

void Sender::begin() {
  const auto items = volume_->look([](Tree& tree, Nodes&) {
    return std::vector<ItemId>(tree.differing().begin(), tree.differing().end());
  });
  differ(items);
}

void Sender::closed(ItemId item) {
  {
    MutexLock lock(mutex_);
    Waits::Wait* wait = waits_.find(item);
    if (wait == nullptr) return;
    // A program has saved: that may succeed now. What it wrote may count to the edit that failed before it was read.
    if (!wait->unreachable) wait->attempts = 0;
  }
  differ({item});
}

void Sender::retry(const std::string& path) {
  {
    MutexLock lock(mutex_);
    offlineUntil_ = Clock(0);
    const Clock at = now();
    auto& waits = held(lock, waits_);
    volume_->look([&](Tree& tree, Nodes&) {
      for (auto& [id, wait] : waits.all()) {
        const Item* item = tree.find(id);
        if (item == nullptr) continue;
        const std::string itemPath = tree.path(*item);
        if (isAtOrBelow(itemPath, path) || (item->isFolder && isAtOrBelow(path, itemPath)))
          wait.notBefore = at;
      }
    });
  }
  pumpSoon(Clock(0));
}

void Sender::reached(const platform::NSErrorPtr& error) {
  if (error && isUnreachable(*error)) return;
  bool any = false;
  {
    MutexLock lock(mutex_);
    offline_ = 0;
    offlineUntil_ = Clock(0);
    if (!std::exchange(anyUnreachable_, false)) return;
    for (auto& [id, wait] : waits_.all()) {
      if (!wait.unreachable) continue;
      wait.unreachable = false;
      wait.notBefore = now();
      any = true;
    }
  }
  if (any) pumpSoon(Clock(0));
}

void Sender::stop() {
  Timers::Token timer = 0;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    timer = std::exchange(timer_, 0);
  }
  if (timer != 0) volume_->services().timers->cancel(timer);
}

// ------------------------------------------------------------------------------------------- when

void Sender::pumpSoon(Clock delay) {
  Timers::Token old = 0;
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    const Clock due = std::max(now() + delay, passNotBefore_);
    if (timer_ != 0 && timerDue_ <= due) return;
    old = std::exchange(timer_, 0);
    timerDue_ = due;
    timer_ = volume_->services().timers->after(due - now(), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->pass();
    });
  }
  if (old != 0) volume_->services().timers->cancel(old);
}

void Sender::pass() {
  {
    MutexLock lock(mutex_);
    timer_ = 0;
    if (stopped_) return;
    if (passing_) {
      passAgain_ = true;
      return;
    }
    passing_ = true;
  }
  for (bool again = true; again;) {
    const Clock began = now();
    for (const Change& change : choose()) {
      platform::spawnDetached("send", run(shared_from_this(), change));
    }
    MutexLock lock(mutex_);
    passNotBefore_ = now() + std::min<Clock>(kRests * (now() - began), kLongestRest);
    again = std::exchange(passAgain_, false) && !stopped_;
    if (!again) passing_ = false;
  }
  setTimer();
}

// What may begin now, and is counted as under way from here on.
std::vector<Change> Sender::choose() {
  MutexLock lock(mutex_);
  if (stopped_) return {};
  const Clock at = now();
  lookedAt_ = at;
  if (at < offlineUntil_) return {};
  const std::size_t limit = offline_ > 0 ? 1 : kAtOnce;
  if (underWay_.size() >= limit) return {};
  auto& waits = held(lock, waits_);
  const auto& underWay = held(lock, underWay_);
  std::vector<Change> ready = volume_->look([&](Tree& tree, Nodes&) {
    waits.agree(tree.differing(), at);
    const auto mayBegin = [&](const OutgoingItem& outgoing) {
      const Waits::Wait* wait = waits.find(outgoing.id);
      if (wait != nullptr && wait->notBefore > at) return false;
      const Item* item = tree.find(outgoing.id);
      if (item == nullptr || item->isUnderWay) return false;
      const bool carries = !item->isFolder && (outgoing.isToBeCreated() || outgoing.isToBeSent());
      if (carries && item->object() && item->object()->isOpenForWriting()) return false;
      return !item->there || tree.isSure(*item);
    };
    return readyChanges(*tree.outgoing(), waits.byAge(at), underWay, limit, mayBegin);
  });
  underWay_.insert(underWay_.end(), ready.begin(), ready.end());
  return ready;
}

void Sender::setTimer() {
  Clock next = Clock::max();
  {
    MutexLock lock(mutex_);
    const Clock at = now();
    for (const auto& [id, wait] : waits_.all()) {
      // What was due at the last look waits for something else, which will have it looked at again; what has become due since does not.
      const Clock due = std::max(wait.notBefore, offlineUntil_);
      if (due <= lookedAt_) continue;
      const Clock delay = std::max(due - at, Clock(0));
      const bool isUnderWay = std::any_of(underWay_.begin(), underWay_.end(),
                                          [id = id](const Change& c) { return c.id == id; });
      if (!isUnderWay) next = std::min(next, delay);
    }
  }
  if (next != Clock::max()) pumpSoon(next);
}

Task<void> Sender::run(std::shared_ptr<Sender> self, Change change) {
  Outcome outcome;
  try {
    outcome = co_await perform(change);
  } catch (...) {
    outcome.error = platform::currentError();
  }
  // Whatever happened to it, it is under way no longer.
  volume_->change([&](Tree& tree, Nodes&) {
    if (Item* item = tree.find(change.id); item != nullptr && item->isUnderWay)
      tree.endChange(*item);
  });
  self->finished(change, outcome);
}

void Sender::finished(const Change& change, const Outcome& outcome) {
  if (outcome.error) {
    volume_->services().log->failure("send", "send '" + volume_->path(change.id) + "'",
                                     outcome.error->localizedDescription());
  }
  const auto failed = outcome.error ? outgoing(change.id) : std::nullopt;
  // The store was reached or not: the extension's death says nothing of it. What became of the change is looked up first.
  const bool isInterrupted = outcome.error && platform::isInterruption(*outcome.error);
  {
    MutexLock lock(mutex_);
    std::erase_if(underWay_, [&](const Change& other) { return other.id == change.id; });
    Waits::Wait* wait = waits_.find(change.id);
    if (wait != nullptr && isInterrupted && ++wait->interruptions <= kInterruptionsAtOnce) {
      wait->notBefore = now() + kQuiet;
    } else if (wait != nullptr && outcome.error) {
      wait->failed = failed;
      waitAfter(*wait, *outcome.error);
    } else if (wait != nullptr && outcome.lookAgain) {
      wait->notBefore = now() + kQuiet;
    } else if (wait != nullptr) {
      wait->attempts = 0;
      wait->interruptions = 0;
      wait->failed.reset();
      wait->reason.clear();
      waits_.renew(change.id, now());
    }
  }
  const bool failedBelow = outcome.error && (isInterrupted || !isUnreachable(*outcome.error));
  if (told_ && !outcome.lookAgain && !failedBelow) told_(outcome.error);
  if (ended_) ended_(change.id);
  pumpSoon(kTogether);
}

void Sender::waitAfter(Waits::Wait& wait, const platform::NSError& error) {
  const Clock at = now();
  wait.notBefore = at + pauseAfter(wait.attempts);
  ++wait.attempts;
  wait.reason = error.localizedDescription();
  wait.unreachable = isUnreachable(error);
  wait.forbidden = isForbidden(error);
  anyUnreachable_ = anyUnreachable_ || wait.unreachable;
  if (!isOffline(error)) return;
  wait.notBefore = at;  // the pause is everybody's
  offlineUntil_ = at + std::min<Clock>(pauseAfter(offline_), kProbe);
  ++offline_;
}

// ------------------------------------------------------------------------------------------- what is unsent

namespace {

// What differs, and what does so no longer but is on its way: what was removed while it is being made, for example.
std::set<ItemId> unsentItems(const Tree& tree, const std::vector<Change>& underWay) {
  std::set<ItemId> items = tree.differing();
  for (const Change& change : underWay) {
    if (tree.find(change.id) != nullptr) items.insert(change.id);
  }
  return items;
}

}  // namespace

std::vector<UnsentChange> Sender::unsent(const std::string& path, std::size_t most,
                                         std::size_t& total) {
  MutexLock lock(mutex_);
  const Clock at = now();
  const auto& waits = held(lock, waits_);
  const auto& underWay = held(lock, underWay_);
  std::vector<UnsentChange> changes;
  total = 0;
  volume_->look([&](Tree& tree, Nodes&) {
    for (const ItemId id : unsentItems(tree, underWay)) {
      // Of all that there is, what is not told is only counted: it may be a hundred thousand.
      if (path == "/" && ++total > most) continue;
      const Item& item = *tree.find(id);
      std::string itemPath = tree.path(item);
      if (path != "/" && (!isAtOrBelow(itemPath, path) || ++total > most)) continue;
      UnsentChange change;
      change.item = id;
      change.kind = kindOf(Tree::outgoingItem(item));
      change.path = std::move(itemPath);
      change.sizeBytes = item.object() ? item.object()->sizeBytes() : item.sizeBytes;
      change.isUnderWay = std::any_of(underWay.begin(), underWay.end(),
                                      [id](const Change& c) { return c.id == id; });
      if (const Waits::Wait* wait = waits.find(id); wait != nullptr) {
        change.waiting = at - wait->since();
        change.attempts = wait->attempts;
        change.reason = wait->reason;
        change.isRefused = wait->attempts > 0 && !wait->unreachable;
        change.isForbidden = change.isRefused && wait->forbidden;
        change.until = std::max(Clock(0), wait->notBefore - at);
      }
      if (change.reason.empty() && item.object() && item.object()->isOpenForWriting())
        change.reason = "a program has it open for writing";
      if (change.reason.empty() && item.timesLost > 0 && !item.there)
        change.reason = "the store took it and does not show it";
      changes.push_back(std::move(change));
    }
  });
  return changes;
}

std::size_t Sender::countUnsent() {
  MutexLock lock(mutex_);
  const auto& underWay = held(lock, underWay_);
  return volume_->look([&](Tree& tree, Nodes&) {
    const auto& differing = tree.differing();
    return differing.size() + static_cast<std::size_t>(std::count_if(
                                  underWay.begin(), underWay.end(), [&](const Change& change) {
                                    return !differing.contains(change.id) &&
                                           tree.find(change.id) != nullptr;
                                  }));
  });
}

std::size_t Sender::countFailed() {
  MutexLock lock(mutex_);
  const auto& waits = waits_.all();
  return static_cast<std::size_t>(std::count_if(
      waits.begin(), waits.end(), [](const auto& wait) { return wait.second.attempts > 0; }));
}

}  // namespace kestrune::host
