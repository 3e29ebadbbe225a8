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

}  // namespace

Refresher::Refresher(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister)
    : volume_(std::move(volume)), lister_(std::move(lister)) {}

Refresher::State Refresher::stateOf(ItemId folder) {
  return volume_->look([folder](Tree& tree, Nodes&) {
    State state;
    const Item* item = tree.find(folder);
    if (item == nullptr || !item->isFolder || !item->there) return state;
    const FolderRow& listing = item->part->listing;
    // What is in a folder that moved is asked when the folder itself is known again.
    if (!item->isRoot() && !tree.isSure(*item)) return state;
    state.isListed = listing.isEnumerated || listing.hasStaleIdentifiers;
    state.isAnew = listing.hasStaleIdentifiers || !listing.anchor;
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
      if (child.isFolder && child.part->listing.hasStaleIdentifiers) stale.push_back(child.id);
    });
    return stale;
  });
}

void Refresher::signal() {
  auto folders = volume_->look([](Tree& tree, Nodes&) {
    std::vector<ItemId> listed = {kRootItem};
    tree.forEach([&](const Item& item) {
      if (item.isFolder && item.there && item.part->listing.isEnumerated) listed.push_back(item.id);
    });
    return listed;
  });
  // What is listed at this moment may show what was before.
  for (const ItemId folder : lister_->running()) folders.push_back(folder);
  for (const ItemId folder : folders) enqueue(folder, false);
  pump();
}

void Refresher::ask(ItemId folder) {
  enqueue(folder, false);
  pump();
}

void Refresher::enumerateAnew(ItemId folder) {
  enqueue(folder, true);
  pump();
}

void Refresher::enqueue(ItemId folder, bool anew) {
  Timers::Token timer = 0;
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    const auto [entry, isNew] = folders_.try_emplace(folder);
    Folder& state = entry->second;
    state.anew = state.anew || anew;
    if (!isNew && state.phase != Phase::waiting) {
      state.again = state.again || state.phase == Phase::asking;
      return;
    }
    timer = std::exchange(state.timer, 0);
    state.phase = Phase::queued;
    queue_.push_back(folder);
  }
  if (timer != 0) volume_->services().timers->cancel(timer);
}

void Refresher::pump() {
  for (;;) {
    ItemId folder = 0;
    bool anew = false;
    {
      MutexLock lock(mutex_);
      if (stopped_ || queue_.empty() || asking_ >= kAtOnce) return;
      folder = queue_.front();
      queue_.pop_front();
      ++asking_;
      Folder& state = folders_.at(folder);
      state.phase = Phase::asking;
      anew = std::exchange(state.anew, false);
    }
    begin(folder, anew);
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
  if (anew || state.isAnew) {
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
  const ChangeSet& changes = answer.value();
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(folder);
    if (item == nullptr || !item->isFolder || !item->there) return;
    tree.applyChanges(*item, changes.changes, changes.anchor, question.asOf);
  });
  if (described_) described_(changes.described);
  if (reached_) reached_(nullptr);
  const bool moved = changes.anchor != question.anchor;
  if (changes.moreComing && moved) {
    const State state = stateOf(folder);
    askChanges({folder, question.identifier, changes.anchor, question.isBehind, state.asOf});
    return;
  }
  const bool failed = !moved && (question.isBehind || changes.moreComing);
  if (failed) {
    volume_->services().log->failure("refresh", "bring '" + volume_->path(folder) + "' up to date",
                                     "its changes could not be enumerated");
  }
  ended(folder, failed);
}

void Refresher::list(ItemId folder) {
  lister_->list(folder, [self = shared_from_this(), folder](const Answer<Done>& answer) {
    if (self->reached_) self->reached_(answer.ok() ? nullptr : answer.error());
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

void Refresher::ended(ItemId folder, bool failed) {
  {
    MutexLock lock(mutex_);
    --asking_;
    const auto found = folders_.find(folder);
    Folder& state = found->second;
    const bool again = std::exchange(state.again, false) || (state.anew && !failed);
    if (stopped_ || (!failed && !again)) {
      folders_.erase(found);
    } else if (again) {
      if (!failed) state.delay = std::chrono::seconds(0);
      state.phase = Phase::queued;
      queue_.push_back(folder);
    } else {
      state.delay = std::clamp(state.delay * 2, kFirstDelay, kLongestDelay);
      state.phase = Phase::waiting;
      auto retry = [weak = weak_from_this(), folder] {
        if (auto self = weak.lock()) self->ask(folder);
      };
      state.timer = volume_->services().timers->after(state.delay, std::move(retry));
    }
  }
  pump();
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
    for (const auto& [id, folder] : folders_) {
      if (folder.timer != 0) timers.push_back(folder.timer);
    }
  }
  for (const Timers::Token timer : timers) volume_->services().timers->cancel(timer);
}

}  // namespace kestrune::host
