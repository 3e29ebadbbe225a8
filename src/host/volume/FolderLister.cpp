#include "host/volume/FolderLister.h"

#include <cerrno>
#include <iterator>
#include <utility>

#include "host/basics/ErrorToErrno.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;

NSErrorPtr errorOf(int number, const char* what) { return NSPOSIXError(number, what).share(); }
NSErrorPtr ended() { return errorOf(ENOTCONN, "list a folder of a mount that ended"); }

// Beyond this the oldest notes of what is fresh are of no use to anybody.
constexpr std::size_t kMostFresh = 10'000;

}  // namespace

void FolderLister::visit(ItemId folder, Reply<Done> reply) {
  enum class State { known, unknown, gone, file };
  const State state = volume_->look([folder](Tree& tree, Nodes&) {
    const Item* item = tree.find(folder);
    if (item == nullptr || !item->isLinked()) return State::gone;
    if (!item->isFolder) return State::file;
    return item->part()->listing.isEnumerated ? State::known : State::unknown;
  });
  switch (state) {
    case State::known:
      reply(Done());
      return;
    case State::gone:
      reply(errorOf(ESTALE, "open a folder that is gone"));
      return;
    case State::file:
      reply(errorOf(ENOTDIR, "open a file as a folder"));
      return;
    case State::unknown:
      break;
  }
  const OnceReply<Done> once(std::move(reply));
  const auto& timers = volume_->services().timers;
  const Timers::Token timeOut = timers->after(
      kPatience, [once] { once.answer(errorOf(ETIMEDOUT, "wait for the folder's content")); });
  Reply<Done> visited = [timers, timeOut, once](const Answer<Done>& answer) {
    timers->cancel(timeOut);
    once.answer(answer);
  };
  {
    MutexLock lock(mutex_);
    const auto [running, isNew] = running_.try_emplace(folder);
    running->second.waiters.push_back(std::move(visited));
    if (!isNew) return;
  }
  begin(folder);
}

void FolderLister::list(ItemId folder, Reply<Done> reply) {
  {
    MutexLock lock(mutex_);
    const auto [running, isNew] = running_.try_emplace(folder);
    (isNew ? running->second.waiters : running->second.next).push_back(std::move(reply));
    if (!isNew) return;
  }
  begin(folder);
}

void FolderLister::compare(ItemId folder, Reply<std::size_t> reply) {
  {
    MutexLock lock(mutex_);
    compared_[folder] = 0;
  }
  list(folder,
       [self = shared_from_this(), folder, reply = std::move(reply)](const Answer<Done>& listed) {
         std::size_t differences = 0;
         {
           MutexLock lock(self->mutex_);
           differences = self->compared_.extract(folder).mapped();
         }
         if (!listed.ok()) return reply(listed.error());
         reply(differences);
       });
}

bool FolderLister::join(ItemId folder, Reply<Done> reply) {
  MutexLock lock(mutex_);
  const auto found = running_.find(folder);
  if (found == running_.end()) return false;
  found->second.waiters.push_back(std::move(reply));
  return true;
}

std::vector<ItemId> FolderLister::running() {
  MutexLock lock(mutex_);
  std::vector<ItemId> folders;
  folders.reserve(running_.size());
  for (const auto& [folder, running] : running_) {
    if (running.pause == 0) folders.push_back(folder);
  }
  return folders;
}

void FolderLister::begin(ItemId folder) {
  Question question;
  question.folder = folder;
  question.began = volume_->services().timers->now();
  const bool isThere = volume_->look([&](Tree& tree, Nodes&) {
    question.asOf = tree.moment();
    const Item* item = tree.find(folder);
    if (item == nullptr || !item->isFolder || !item->there) return false;
    question.identifier = item->there->identifier;
    return true;
  });
  if (!isThere) {
    listed(question, errorOf(ESTALE, "list a folder that is not at the store"));
    return;
  }
  enumerateFolder(volume_->services().extension, question.identifier,
                  [self = shared_from_this(), question](const Answer<Listing>& listing) {
                    if (self->reached_) self->reached_(listing.ok() ? nullptr : listing.error());
                    self->listed(question, listing);
                  });
}

// Whether it was not found because it has another identifier by now, or is getting one.
bool FolderLister::hasMoved(const Question& question, const platform::NSError& error) {
  if (errnoFor(error) != ENOENT) return false;
  return volume_->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(question.folder);
    if (item == nullptr || !item->there) return false;
    return item->there->identifier != question.identifier || tree.isMoving(*item);
  });
}

bool FolderLister::beginsAgain(ItemId folder, int most) {
  MutexLock lock(mutex_);
  Running& running = running_.at(folder);
  if (stopped_ || ++running.attempts > most) return false;
  running.pause = volume_->services().timers->after(kMoves, [weak = weak_from_this(), folder] {
    if (const auto self = weak.lock()) self->goOn(folder);
  });
  return true;
}

void FolderLister::goOn(ItemId folder) {
  {
    MutexLock lock(mutex_);
    const auto running = running_.find(folder);
    if (running == running_.end() || std::exchange(running->second.pause, 0) == 0) return;
  }
  begin(folder);
}

void FolderLister::pause(const Reply<Done>& reply) {
  bool isEnded = false;
  {
    MutexLock lock(mutex_);
    isEnded = stopped_;
    if (!isEnded) {
      const std::uint64_t pause = ++lastPause_;
      pausing_.emplace(pause, reply);
      volume_->services().timers->after(kMoves, [weak = weak_from_this(), pause] {
        if (const auto self = weak.lock()) self->paused(pause);
      });
    }
  }
  if (isEnded) reply(ended());
}

void FolderLister::paused(std::uint64_t pause) {
  Reply<Done> reply;
  {
    MutexLock lock(mutex_);
    const auto found = pausing_.find(pause);
    if (found == pausing_.end()) return;
    reply = std::move(found->second);
    pausing_.erase(found);
  }
  reply(Done());
}

void FolderLister::stop() {
  std::vector<Reply<Done>> waiters;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    for (auto& [pause, reply] : std::exchange(pausing_, {})) waiters.push_back(std::move(reply));
    for (auto at = running_.begin(); at != running_.end();) {
      const bool isPausing = at->second.pause != 0;
      if (isPausing) {
        for (auto* of : {&at->second.waiters, &at->second.next})
          waiters.insert(waiters.end(), of->begin(), of->end());
      }
      at = isPausing ? running_.erase(at) : std::next(at);
    }
  }
  for (const auto& reply : waiters) reply(ended());
}

void FolderLister::listed(const Question& question, const Answer<Listing>& listing) {
  const ItemId folder = question.folder;
  if (!listing.ok() && hasMoved(question, *listing.error()) && beginsAgain(folder, kMostAttempts))
    return;
  const bool mayHaveGaps = listing.ok() && listing.value().mayHaveGaps;
  if (mayHaveGaps && beginsAgain(folder, kMostGaps)) return;
  bool applied = false;
  bool isThere = false;
  bool isCompared = false;
  std::size_t differences = 0;
  {
    MutexLock lock(mutex_);
    isCompared = compared_.contains(folder);
  }
  if (listing.ok()) {
    volume_->change([&](Tree& tree, Nodes&) {
      Item* item = tree.find(folder);
      if (item == nullptr || !item->isFolder || !item->there) return;
      isThere = true;
      if (isCompared) differences = tree.countDifferences(*item, listing.value().items);
      // Nobody tells of what fell into a gap: only another listing does.
      const auto anchor = mayHaveGaps ? std::nullopt : listing.value().anchor;
      tree.applyListing(*item, listing.value().items, anchor, question.asOf);
      applied = item->part()->listing.isEnumerated && !item->part()->listing.hasStaleIdentifiers;
    });
    // It moved meanwhile, or what is in it is to be found out by names while some of that changes.
    if (!applied && isThere && beginsAgain(folder, kMostAttempts)) return;
    if (described_) described_(listing.value().described);
  } else {
    volume_->services().log->failure("enumerate", "list '" + volume_->path(folder) + "'",
                                     listing.error()->localizedDescription());
  }
  std::vector<Reply<Done>> waiters;
  bool again = false;
  {
    MutexLock lock(mutex_);
    if (const auto compared = compared_.find(folder); compared != compared_.end())
      compared->second = differences;
    if (applied) {
      if (fresh_.size() >= kMostFresh) fresh_.clear();
      fresh_[folder] = question.began;
    }
    const auto running = running_.find(folder);
    running->second.attempts = 0;
    waiters = std::exchange(running->second.waiters, std::exchange(running->second.next, {}));
    again = !running->second.waiters.empty();
    if (!again) running_.erase(running);
  }
  if (again) begin(folder);
  for (const auto& reply : waiters) {
    if (!listing.ok()) {
      reply(listing.error());
    } else if (!applied) {
      reply(errorOf(ESTALE, "list a folder that moved meanwhile"));
    } else {
      reply(Done());
    }
  }
}

bool FolderLister::isFresh(ItemId folder, std::chrono::nanoseconds age) {
  const auto now = volume_->services().timers->now();
  MutexLock lock(mutex_);
  const auto found = fresh_.find(folder);
  return found != fresh_.end() && now - found->second < age;
}

void FolderLister::madeHere(ItemId folder) {
  const auto now = volume_->services().timers->now();
  MutexLock lock(mutex_);
  fresh_[folder] = now;
}

void FolderLister::doubt(ItemId id) {
  const ItemId folder = volume_->look([id](Tree& tree, Nodes&) -> ItemId {
    const Item* item = tree.find(id);
    return item != nullptr && item->there ? item->there->folder : 0;
  });
  MutexLock lock(mutex_);
  fresh_.erase(folder);
}

void FolderLister::listUnlessFresh(ItemId folder, std::chrono::nanoseconds age, Reply<Done> reply) {
  if (isFresh(folder, age)) {
    reply(Done());
  } else {
    list(folder, std::move(reply));
  }
}

}  // namespace kestrune::host
