#include "host/volume/Keeper.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/basics/OnceReply.h"
#include "host/content/DiskThreads.h"
#include "host/volume/Manager.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSFileProviderContentPolicy;
using platform::NSFileProviderItemPtr;

constexpr auto kKept = NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;

bool lacksContents(const Item& item) {
  return !item.isFolder && item.isLinked() && item.there && item.there->policy == kKept &&
         !item.isWhole() && (item.sizeBytes > 0 || item.there->sizeBytes > 0);
}

}  // namespace

void Keeper::begin() {
  std::vector<ItemId> missing;
  volume_->look([&](Tree& tree, Nodes&) {
    tree.forEach([&](Item& item) {
      if (lacksContents(item)) missing.push_back(item.id);
    });
  });
  want(missing);
}

void Keeper::described(std::vector<NSFileProviderItemPtr> items) {
  if (items.empty()) return;
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    described_.insert(described_.end(), std::make_move_iterator(items.begin()),
                      std::make_move_iterator(items.end()));
    if (std::exchange(walking_, true)) return;
  }
  boost::asio::post(diskExecutor(), [self = shared_from_this()] { self->walk(); });
}

// One batch, then whoever waits for the thread, then the next.
void Keeper::walk() {
  std::vector<NSFileProviderItemPtr> batch;
  {
    MutexLock lock(mutex_);
    const std::size_t count = std::min(kBatch, described_.size());
    for (std::size_t i = 0; i < count && !stopped_; ++i) {
      batch.push_back(std::move(described_.front()));
      described_.pop_front();
    }
    if (batch.empty()) {
      described_.clear();
      walking_ = false;
      return;
    }
  }
  learn(batch);
  boost::asio::post(diskExecutor(), [self = shared_from_this()] { self->walk(); });
}

void Keeper::learn(const std::vector<NSFileProviderItemPtr>& items) {
  struct Told {
    platform::NSFileProviderItemIdentifier identifier;
    NSFileProviderContentPolicy policy;
  };
  std::vector<Told> told;
  told.reserve(items.size());
  for (const auto& item : items) {
    try {
      told.push_back({item->itemIdentifier(), item->contentPolicy()});
    } catch (const platform::NSError& error) {
      // What was known of it holds on.
      volume_->services().log->failure("policy", "ask how items are to be kept",
                                       error.localizedDescription());
    }
  }
  std::vector<ItemId> missing;
  bool anyDiffers = false;
  volume_->look([&](Tree& tree, Nodes&) {
    for (const Told& one : told) {
      const Item* item = tree.byIdentifier(one.identifier);
      anyDiffers = anyDiffers || (item != nullptr && item->there->policy != one.policy);
    }
  });
  if (anyDiffers) {
    volume_->change([&](Tree& tree, Nodes&) {
      for (const Told& one : told) {
        if (Item* item = tree.byIdentifier(one.identifier)) tree.setPolicy(*item, one.policy);
      }
    });
  }
  volume_->look([&](Tree& tree, Nodes&) {
    for (const Told& one : told) {
      const Item* item = one.policy == kKept ? tree.byIdentifier(one.identifier) : nullptr;
      if (item != nullptr && lacksContents(*item)) missing.push_back(item->id);
    }
  });
  want(missing);
}

void Keeper::askPolicy(ItemId item, Reply<Done> reply) {
  const auto identifier = volume_->look([item](Tree& tree, Nodes&) -> std::optional<std::string> {
    const Item* found = tree.find(item);
    if (found == nullptr || !found->there) return std::nullopt;
    return found->there->identifier;
  });
  if (!identifier) {
    reply(platform::NSPOSIXError(ENOENT, "ask for what is not at the store").share());
    return;
  }
  auto answered = [self = shared_from_this(), once = OnceReply<Done>(std::move(reply))](
                      const NSFileProviderItemPtr& item, const platform::NSErrorPtr& error) {
    if (item && !error) {
      self->learn({item});
      once.answer(Done());
    } else {
      once.answer(error ? error
                        : platform::NSPOSIXError(EIO, "the extension described no item").share());
    }
  };
  volume_->services().extension->item(*identifier, {.isSystemRequest = true}, answered);
}

void Keeper::want(const std::vector<ItemId>& files) {
  if (files.empty()) return;
  {
    MutexLock lock(mutex_);
    for (const ItemId file : files) {
      if (!pauses_.contains(file) && !filling_.contains(file)) wanted_.insert(file);
    }
  }
  pump();
}

bool Keeper::isMissing(ItemId file) {
  return volume_->look([file](Tree& tree, Nodes&) {
    const Item* item = tree.find(file);
    return item != nullptr && lacksContents(*item);
  });
}

void Keeper::pump() {
  for (;;) {
    ItemId file = 0;
    {
      MutexLock lock(mutex_);
      if (stopped_ || wanted_.empty() || filling_.size() >= kAtOnce) return;
      file = wanted_.extract(wanted_.begin()).value();
      filling_.insert(file);
    }
    // Not from here: a fill that answers at once would make the stack grow.
    boost::asio::post(diskExecutor(), [self = shared_from_this(), file] {
      if (!self->isMissing(file)) return self->ended(file, Done());
      fillContents(self->volume_, *self->contents_, file,
                   [self, file](const Answer<Done>& answer) { self->ended(file, answer); });
    });
  }
}

void Keeper::wantAgain(ItemId file) {
  {
    MutexLock lock(mutex_);
    wanted_.insert(file);
  }
  pump();
}

// A fill that succeeded is looked at again: the store may have got another version meanwhile, or the item another policy.
void Keeper::ended(ItemId file, const Answer<Done>& answer) {
  const bool missing = isMissing(file);
  const bool failed = missing && !answer.ok();
  {
    MutexLock lock(mutex_);
    filling_.erase(file);
    if (!missing || stopped_) {
      pauses_.erase(file);
    } else {
      Pause& pause = pauses_[file];
      pause.unreachable = failed && isUnreachable(*answer.error());
      pause.length = std::clamp(pause.length * 2, kFirstPause, kLongestPause);
      pause.timer =
          volume_->services().timers->after(pause.length, [weak = weak_from_this(), file] {
            if (const auto self = weak.lock()) self->wantAgain(file);
          });
    }
  }
  if (failed)
    volume_->services().log->failure("keep", "keep '" + volume_->path(file) + "' here",
                                     answer.error()->localizedDescription());
  pump();
}

void Keeper::reached(const platform::NSErrorPtr& error) {
  if (error && isUnreachable(*error)) return;
  std::vector<Timers::Token> timers;
  {
    MutexLock lock(mutex_);
    for (auto& [file, pause] : pauses_) {
      if (!std::exchange(pause.unreachable, false) || filling_.contains(file)) continue;
      timers.push_back(std::exchange(pause.timer, 0));
      wanted_.insert(file);
    }
  }
  for (const Timers::Token timer : timers) volume_->services().timers->cancel(timer);
  if (!timers.empty()) pump();
}

void Keeper::stop() {
  std::vector<Timers::Token> timers;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    wanted_.clear();
    described_.clear();
    for (const auto& [file, pause] : pauses_) timers.push_back(pause.timer);
    pauses_.clear();
  }
  for (const Timers::Token timer : timers) volume_->services().timers->cancel(timer);
}

}  // namespace kestrune::host
