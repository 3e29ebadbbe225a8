#include "host/volume/SpaceMaker.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <filesystem>
#include <vector>

#include "host/content/DiskThreads.h"
#include "host/volume/Manager.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;

// As far as it is known without asking the disk.
std::uint64_t bytesHere(const Item& item) {
  return item.content() ? static_cast<std::uint64_t>(item.content()->state.present.byteCount()) : 0;
}

bool mayGo(const Item& item) {
  return item.content() && item.there && !item.isEdited() && !Tree::differs(item) &&
         !(item.object() && item.object()->isOpen()) &&
         item.there->policy !=
             platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
}

}  // namespace

void SpaceMaker::begin() {
  boost::asio::post(diskExecutor(), [self = shared_from_this()] { self->makeRoom(); });
}

void SpaceMaker::changed() {
  {
    MutexLock lock(mutex_);
    if (stopped_ || waiting_) return;
    waiting_ = true;
  }
  volume_->services().timers->after(kInterval, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    boost::asio::post(diskExecutor(), [self] {
      {
        MutexLock lock(self->mutex_);
        self->waiting_ = false;
        if (self->stopped_) return;
      }
      self->makeRoom();
    });
  });
}

// How many bytes must go.
std::uint64_t SpaceMaker::excess() {
  std::uint64_t excess = 0;
  if (limits_.cacheBytes) {
    std::uint64_t used = 0;
    volume_->look(
        [&](Tree& tree, Nodes&) { tree.forEach([&](Item& item) { used += bytesHere(item); }); });
    if (used > *limits_.cacheBytes) excess = used - *limits_.cacheBytes;
  }
  std::error_code error;
  const auto disk = std::filesystem::space(volume_->services().directory->path(), error);
  if (error) {
    volume_->services().log->failure("space", "look how full the disk is", error.message());
    return excess;
  }
  const std::uint64_t keepFree =
      limits_.keepFreeBytes.value_or(std::min<std::uint64_t>(disk.capacity / 20, kMostKeptFree));
  if (disk.available < keepFree) excess = std::max(excess, keepFree - disk.available);
  return excess;
}

void SpaceMaker::makeRoom() {
  std::uint64_t left = excess();
  if (left == 0) return;
  struct Candidate {
    std::int64_t usedSeconds;
    ItemId item;
    std::uint64_t bytes;
  };
  std::vector<Candidate> candidates;
  volume_->look([&](Tree& tree, Nodes&) {
    tree.forEach([&](Item& item) {
      if (mayGo(item) && bytesHere(item) > 0)
        candidates.push_back({item.content()->usedSeconds, item.id, bytesHere(item)});
    });
  });
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    return a.usedSeconds != b.usedSeconds ? a.usedSeconds < b.usedSeconds : a.item < b.item;
  });
  for (const Candidate& candidate : candidates) {
    if (left == 0) return;
    // It may have got to be kept meanwhile; all else is looked at again by the eviction.
    const bool stillMay = volume_->look([&](Tree& tree, Nodes&) {
      const Item* item = tree.find(candidate.item);
      return item != nullptr && mayGo(*item);
    });
    if (!stillMay || evictContents(*volume_, *contents_, candidate.item)) continue;
    left -= std::min(left, candidate.bytes);
  }
}

void SpaceMaker::stop() {
  MutexLock lock(mutex_);
  stopped_ = true;
}

}  // namespace kestrune::host
