#include "host/Refresher.h"

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

Refresher::Refresher(ExtensionPtr extension, std::shared_ptr<LiveTree> tree,
                     std::shared_ptr<Timers> timers, std::shared_ptr<HostLog> log)
    : extension_(std::move(extension)),
      tree_(std::move(tree)),
      timers_(std::move(timers)),
      log_(std::move(log)) {}

void Refresher::signal() {
  for (const NodeId folder : tree_->listedFolders()) enqueue(folder, false);
  pump();
}

void Refresher::ask(NodeId folder) {
  enqueue(folder, false);
  pump();
}

void Refresher::enumerateAnew(NodeId folder) {
  enqueue(folder, true);
  pump();
}

void Refresher::enqueue(NodeId folder, bool anew) {
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
  if (timer != 0) timers_->cancel(timer);
}

void Refresher::pump() {
  for (;;) {
    NodeId folder = 0;
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

void Refresher::begin(NodeId folder, bool anew) {
  auto state = tree_->listedFolder(folder);
  if (!state) {
    ended(folder, false);
    return;
  }
  if (anew || !state->anchor) {
    list(folder);
    return;
  }
  const Question question{folder, state->identifier, *state->anchor};
  auto answered = [self = shared_from_this(),
                   question](const Answer<std::optional<NSFileProviderSyncAnchor>>& current) {
    if (!current.ok()) {
      self->report(question.folder, *current.error());
      self->ended(question.folder, true);
    } else if (current.value() == question.anchor) {
      self->ended(question.folder, false);
    } else {
      self->askChanges(
          {question.folder, question.identifier, question.anchor, current.value().has_value()});
    }
  };
  askSyncAnchor(extension_, question.identifier, std::move(answered));
}

void Refresher::askChanges(const Question& question) {
  if (fetchRunsBelow(question.folder)) {
    MutexLock lock(mutex_);
    askedDuringFetch_.insert(question.folder);
  }
  auto answered = [self = shared_from_this(), question](const Answer<ChangeSet>& answer) {
    self->changed(question, answer);
  };
  enumerateFolderChanges(extension_, question.identifier, question.anchor, std::move(answered));
}

void Refresher::changed(const Question& question, const Answer<ChangeSet>& answer) {
  const NodeId folder = question.folder;
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
  tree_->applyChanges(folder, changes);
  const bool moved = changes.anchor != question.anchor;
  if (changes.moreComing && moved) {
    askChanges({folder, question.identifier, changes.anchor, question.isBehind});
    return;
  }
  const bool failed = !moved && (question.isBehind || changes.moreComing);
  if (failed) {
    log_->failure("refresh", "bring '" + tree_->path(folder) + "' up to date",
                  "its changes could not be enumerated");
  }
  ended(folder, failed);
}

void Refresher::list(NodeId folder) {
  const auto state = tree_->listedFolder(folder);
  if (!state) {
    ended(folder, false);
    return;
  }
  auto answered = [self = shared_from_this(), folder](Answer<Listing> listing) {
    if (listing.ok()) {
      self->tree_->applyListing(folder, listing.value());
    } else {
      self->report(folder, *listing.error());
      MutexLock lock(self->mutex_);
      if (auto found = self->folders_.find(folder); found != self->folders_.end())
        found->second.anew = true;
    }
    self->ended(folder, !listing.ok());
  };
  enumerateFolder(extension_, state->identifier, std::move(answered));
}

void Refresher::ended(NodeId folder, bool failed) {
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
      state.timer = timers_->after(state.delay, std::move(retry));
    }
  }
  pump();
}

void Refresher::report(NodeId folder, const NSError& error) {
  log_->failure("refresh", "bring '" + tree_->path(folder) + "' up to date",
                error.localizedDescription());
}

bool Refresher::fetchRunsBelow(NodeId folder) {
  std::vector<NodeId> files;
  {
    MutexLock lock(mutex_);
    for (const auto& [file, count] : fetches_) files.push_back(file);
  }
  return std::any_of(files.begin(), files.end(),
                     [&](NodeId file) { return tree_->isWithin(file, folder); });
}

void Refresher::fetching(NodeId file, int step) {
  if (step > 0) {
    fetchBegins(file);
  } else {
    fetchEnds(file);
  }
}

void Refresher::fetchBegins(NodeId file) {
  std::vector<NodeId> asking;
  {
    MutexLock lock(mutex_);
    ++fetches_[file];
    for (const auto& [id, folder] : folders_) {
      if (folder.phase == Phase::asking) asking.push_back(id);
    }
  }
  for (const NodeId folder : asking) {
    if (!tree_->isWithin(file, folder)) continue;
    MutexLock lock(mutex_);
    askedDuringFetch_.insert(folder);
  }
}

void Refresher::fetchEnds(NodeId file) {
  std::vector<NodeId> candidates;
  {
    MutexLock lock(mutex_);
    if (--fetches_[file] > 0) return;
    fetches_.erase(file);
    candidates.assign(askedDuringFetch_.begin(), askedDuringFetch_.end());
  }
  for (const NodeId folder : candidates) {
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
  for (const Timers::Token timer : timers) timers_->cancel(timer);
}

}  // namespace kestrune::host
