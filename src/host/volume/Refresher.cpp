#include "host/volume/Refresher.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSError;
using platform::NSFileProviderError;
using platform::NSFileProviderSyncAnchor;

bool isExpiredAnchor(const NSError& error) {
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         error.code() == NSFileProviderError::syncAnchorExpired;
}

// The next piece of an answer.
void join(ChangeSet& pieces, const ChangeSet& next) {
  pieces.changes.insert(pieces.changes.end(), next.changes.begin(), next.changes.end());
  pieces.described.insert(pieces.described.end(), next.described.begin(), next.described.end());
  pieces.anchor = next.anchor;
  pieces.moreComing = next.moreComing;
}

}  // namespace

Refresher::Refresher(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister)
    : volume_(std::move(volume)), lister_(std::move(lister)) {}

Refresher::State Refresher::stateOf(ItemId folder) {
  return volume_->look([folder](Tree& tree, Nodes&) {
    State state;
    const Item* item = tree.find(folder);
    if (item == nullptr || !item->isFolder || !item->there) return state;
    const FolderRow& listing = item->part()->listing;
    // What is in a folder that moved is asked when the folder itself is known again.
    if (!item->isRoot() && !tree.isSure(*item)) return state;
    state.isListed = listing.isEnumerated || listing.hasStaleIdentifiers;
    state.isAnew = listing.hasStaleIdentifiers;
    state.identifier = item->there->identifier;
    state.anchor = listing.anchor;
    state.asOf = tree.moment();
    return state;
  });
}

std::vector<ItemId> Refresher::staleFoldersIn(ItemId folder) {
  return volume_->look([folder](Tree& tree, Nodes&) {
    std::vector<ItemId> stale;
    tree.forEachChildThere(folder, [&](const Item& child) {
      if (child.isFolder && child.part()->listing.hasStaleIdentifiers) stale.push_back(child.id);
    });
    return stale;
  });
}

// Whether the tree may be looked through now; else it will be.
bool Refresher::mayWalk() {
  MutexLock lock(mutex_);
  const Clock at = now();
  if (stopped_ || walkTimer_ != 0) return false;
  if (at >= walkNotBefore_) return true;
  walkTimer_ = volume_->services().timers->after(walkNotBefore_ - at, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    {
      MutexLock relock(self->mutex_);
      self->walkTimer_ = 0;
    }
    self->signal();
  });
  return false;
}

void Refresher::signal() {
  if (!mayWalk()) return;
  const Clock began = now();
  auto folders = volume_->look([](Tree& tree, Nodes&) {
    std::vector<ItemId> listed = {kRootItem};
    tree.forEach([&](const Item& item) {
      if (item.isFolder && item.there && item.part()->listing.isEnumerated)
        listed.push_back(item.id);
    });
    return listed;
  });
  std::vector<ItemId> recent;
  {
    MutexLock lock(mutex_);
    walkNotBefore_ = now() + kRests * (now() - began);
    recent = recent_;
  }
  std::stable_partition(folders.begin() + 1, folders.end(), [&](ItemId folder) {
    return std::find(recent.begin(), recent.end(), folder) != recent.end();
  });
  for (std::size_t i = 0; i < folders.size(); ++i)
    enqueue(folders[i], false, i < kRecent ? When::now : When::later);
  // What is listed at this moment may show what was before.
  for (const ItemId folder : lister_->running()) enqueue(folder, false);
  pump();
}

void Refresher::visited(ItemId folder) {
  bool waits = false;
  {
    MutexLock lock(mutex_);
    const auto known = std::find(recent_.begin(), recent_.end(), folder);
    if (known != recent_.end()) {
      std::rotate(recent_.begin(), known, known + 1);
    } else {
      recent_.insert(recent_.begin(), folder);
      if (recent_.size() > kRecent) recent_.pop_back();
    }
    const auto found = folders_.find(folder);
    waits = found != folders_.end() && found->second.phase == Phase::later;
  }
  if (waits) ask(folder);
}

void Refresher::ask(ItemId folder) {
  enqueue(folder, false);
  pump();
}

void Refresher::enumerateAnew(ItemId folder) {
  enqueue(folder, true);
  pump();
}

void Refresher::enqueue(ItemId folder, bool anew, When when) {
  Timers::Token timer = 0;
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    const auto [entry, isNew] = folders_.try_emplace(folder);
    Folder& state = entry->second;
    state.anew = state.anew || anew;
    if (isNew) {
      place(folder, state, when);
    } else if (state.phase == Phase::asking || state.phase == Phase::resting) {
      state.again = true;
      state.againNow = state.againNow || when == When::now;
    } else if (state.phase == Phase::waiting ||
               (state.phase == Phase::later && when == When::now)) {
      timer = std::exchange(state.timer, 0);
      place(folder, state, when);
    }
  }
  if (timer != 0) volume_->services().timers->cancel(timer);
}

void Refresher::place(ItemId folder, Folder& state, When when) {
  const bool isLater = when == When::later;
  state.phase = isLater ? Phase::later : Phase::queued;
  (isLater ? later_ : queue_).push_back(folder);
}

// What is asked next; nothing if enough is being asked.
std::optional<ItemId> Refresher::next() {
  if (stopped_ || asking_ >= kAtOnce) return std::nullopt;
  if (!queue_.empty()) {
    const ItemId folder = queue_.front();
    queue_.pop_front();
    return folder;
  }
  while (slow_ < kLaterAtOnce && !later_.empty()) {
    const ItemId folder = later_.front();
    later_.pop_front();
    const auto found = folders_.find(folder);
    if (found == folders_.end() || found->second.phase != Phase::later) continue;
    found->second.isSlow = true;
    ++slow_;
    return folder;
  }
  return std::nullopt;
}

void Refresher::pump() {
  for (;;) {
    std::optional<ItemId> folder;
    bool anew = false;
    {
      MutexLock lock(mutex_);
      folder = next();
      if (!folder) return;
      ++asking_;
      Folder& state = folders_.at(*folder);
      state.phase = Phase::asking;
      state.began = now();
      anew = std::exchange(state.anew, false);
    }
    begin(*folder, anew);
  }
}

void Refresher::begin(ItemId folder, bool anew) {
  State state = stateOf(folder);
  if (!state.isListed) {
    // Asked when the listing that runs is there; without one there is nothing to keep up to date.
    auto listed = [self = shared_from_this(), folder](const Answer<Done>& answer) {
      if (answer.ok()) self->enqueue(folder, false);
      self->ended(folder, false);
    };
    if (!lister_->join(folder, std::move(listed))) ended(folder, false);
    return;
  }
  if (anew || state.isAnew || !state.anchor) {
    list(folder);
    return;
  }
  const Question question{folder, std::move(state.identifier), *state.anchor, false, state.asOf};
  auto answered = [self = shared_from_this(),
                   question](const Answer<std::optional<NSFileProviderSyncAnchor>>& current) {
    if (!current.ok()) {
      self->report(question.folder, *current.error());
      self->ended(question.folder, true);
    } else if (current.value() == question.anchor) {
      self->ended(question.folder, false);
    } else {
      Question behind = question;
      behind.isBehind = current.value().has_value();
      self->askChanges(behind);
    }
  };
  askSyncAnchor(volume_->services().extension, question.identifier, std::move(answered));
}

void Refresher::askChanges(const Question& question) {
  if (fetchRunsBelow(question.folder)) {
    MutexLock lock(mutex_);
    askedDuringFetch_.insert(question.folder);
  }
  auto answered = [self = shared_from_this(), question](const Answer<ChangeSet>& answer) {
    self->changed(question, answer);
  };
  enumerateFolderChanges(volume_->services().extension, question.identifier, question.anchor,
                         std::move(answered));
}

void Refresher::changed(const Question& question, const Answer<ChangeSet>& answer) {
  const ItemId folder = question.folder;
  if (!answer.ok()) {
    if (isExpiredAnchor(*answer.error())) {
      list(folder);
      return;
    }
    report(folder, *answer.error());
    ended(folder, true);
    return;
  }
  if (reached_) reached_(nullptr);
  const bool moved = answer.value().anchor != question.anchor;
  // What a piece tells may be long past, and taken back by one that follows: only all of them together say what is so.
  const auto pieces = question.pieces ? question.pieces : std::make_shared<ChangeSet>();
  join(*pieces, answer.value());
  ChangeSet& changes = *pieces;
  if (changes.moreComing && moved) {
    Question next = question;
    next.anchor = changes.anchor;
    next.pieces = pieces;
    askChanges(next);
    return;
  }
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(folder);
    if (item == nullptr || !item->isFolder || !item->there) return;
    tree.applyChanges(*item, changes.changes, changes.anchor, question.asOf);
  });
  if (described_) described_(std::move(changes.described));
  const bool failed = !moved && (question.isBehind || changes.moreComing);
  if (failed) {
    volume_->services().log->failure("refresh", "bring '" + volume_->path(folder) + "' up to date",
                                     "its changes could not be enumerated");
  }
  ended(folder, failed);
}

void Refresher::list(ItemId folder) {
  lister_->list(folder, [self = shared_from_this(), folder](const Answer<Done>& answer) {
    if (answer.ok()) {
      for (const ItemId stale : self->staleFoldersIn(folder)) self->enqueue(stale, true);
    } else {
      MutexLock lock(self->mutex_);
      if (auto found = self->folders_.find(folder); found != self->folders_.end())
        found->second.anew = true;
    }
    self->ended(folder, !answer.ok());
  });
}

Refresher::Clock Refresher::restAfter(Clock took) const {
  const Clock rest = std::min<Clock>(kRests * took, kLongestRest);
  return fetches_.empty() ? rest : std::max<Clock>(rest, kLongestRest - took);
}

void Refresher::ended(ItemId folder, bool failed) {
  {
    MutexLock lock(mutex_);
    --asking_;
    Folder& state = folders_.at(folder);
    if (!failed) state.delay = std::chrono::seconds(0);
    const bool retries = failed && !state.again;
    if (retries) state.delay = std::clamp(state.delay * 2, kFirstDelay, kLongestDelay);
    const Clock rest = retries ? Clock(state.delay) : restAfter(now() - state.began);
    state.phase = retries ? Phase::waiting : Phase::resting;
    if (retries) leavePlace(state);
    if (stopped_ || rest <= Clock(0)) {
      goOn(folder);
    } else {
      auto over = [weak = weak_from_this(), folder, retries] {
        const auto self = weak.lock();
        if (self && retries) self->ask(folder);
        if (self && !retries) self->rested(folder);
      };
      state.timer = volume_->services().timers->after(rest, std::move(over));
    }
  }
  pump();
}

void Refresher::rested(ItemId folder) {
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    folders_.at(folder).timer = 0;
    goOn(folder);
  }
  pump();
}

// Its rest is over.
void Refresher::goOn(ItemId folder) {
  Folder& state = folders_.at(folder);
  leavePlace(state);
  const bool isAgain = std::exchange(state.again, false) || state.anew;
  const bool isNow = std::exchange(state.againNow, false) || state.anew;
  if (isAgain && !stopped_) {
    place(folder, state, isNow ? When::now : When::later);
  } else {
    folders_.erase(folder);
  }
}

void Refresher::leavePlace(Folder& state) {
  if (std::exchange(state.isSlow, false)) --slow_;
}

void Refresher::report(ItemId folder, const NSError& error) {
  volume_->services().log->failure("refresh", "bring '" + volume_->path(folder) + "' up to date",
                                   error.localizedDescription());
}

bool Refresher::fetchRunsBelow(ItemId folder) {
  std::vector<ItemId> files;
  {
    MutexLock lock(mutex_);
    for (const auto& [file, count] : fetches_) files.push_back(file);
  }
  return std::any_of(files.begin(), files.end(),
                     [&](ItemId file) { return volume_->isWithin(file, folder); });
}

bool Refresher::isFetching(ItemId file) {
  MutexLock lock(mutex_);
  return fetches_.contains(file);
}

bool Refresher::isAsking() {
  MutexLock lock(mutex_);
  return std::any_of(folders_.begin(), folders_.end(), [](const auto& folder) {
    const Phase phase = folder.second.phase;
    return phase != Phase::resting && phase != Phase::waiting;
  });
}

void Refresher::fetching(ItemId file, int step) {
  if (step > 0) {
    fetchBegins(file);
  } else {
    fetchEnds(file);
  }
}

void Refresher::fetchBegins(ItemId file) {
  std::vector<ItemId> asking;
  {
    MutexLock lock(mutex_);
    ++fetches_[file];
    for (const auto& [id, folder] : folders_) {
      if (folder.phase == Phase::asking) asking.push_back(id);
    }
  }
  for (const ItemId folder : asking) {
    if (!volume_->isWithin(file, folder)) continue;
    MutexLock lock(mutex_);
    askedDuringFetch_.insert(folder);
  }
}

void Refresher::fetchEnds(ItemId file) {
  std::vector<ItemId> candidates;
  {
    MutexLock lock(mutex_);
    if (--fetches_[file] > 0) return;
    fetches_.erase(file);
    candidates.assign(askedDuringFetch_.begin(), askedDuringFetch_.end());
  }
  for (const ItemId folder : candidates) {
    if (fetchRunsBelow(folder)) continue;
    {
      MutexLock lock(mutex_);
      if (askedDuringFetch_.erase(folder) == 0) continue;
    }
    enqueue(folder, true);
  }
  pump();
}

void Refresher::stop() {
  std::vector<Timers::Token> timers;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    queue_.clear();
    later_.clear();
    if (walkTimer_ != 0) timers.push_back(walkTimer_);
    for (const auto& [id, folder] : folders_) {
      if (folder.timer != 0) timers.push_back(folder.timer);
    }
  }
  for (const Timers::Token timer : timers) volume_->services().timers->cancel(timer);
}

}  // namespace kestrune::host
