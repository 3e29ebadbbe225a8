#include "host/volume/Auditor.h"

#include <tuple>
#include <utility>

namespace kestrune::host {

using platform::MutexLock;

void Auditor::begin() { waitForNext(); }

void Auditor::stop() {
  Timers::Token timer = 0;
  {
    MutexLock lock(mutex_);
    stopped_ = true;
    timer = std::exchange(timer_, 0);
  }
  if (timer != 0) volume_->services().timers->cancel(timer);
}

std::optional<AuditReport> Auditor::last() const {
  MutexLock lock(mutex_);
  return last_;
}

void Auditor::waitForNext() {
  MutexLock lock(mutex_);
  if (stopped_) return;
  timer_ = volume_->services().timers->after(kEvery, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->compareOne();
  });
}

// Of those that this mount has not listed, the first by number.
std::optional<ItemId> Auditor::next() {
  ItemId failed = 0;
  {
    MutexLock lock(mutex_);
    failed = std::exchange(failed_, 0);
  }
  return volume_->look([failed](Tree& tree, Nodes&) {
    std::optional<ItemId> next;
    std::tuple<std::uint64_t, ItemId> longestAgo;
    const auto offer = [&](const Item& item) {
      const bool isListed = item.isFolder && item.there && item.part()->listing.isEnumerated &&
                            !item.part()->listing.hasStaleIdentifiers;
      if (!isListed || item.id == failed || (!item.isRoot() && !tree.isSure(item))) return;
      const std::tuple listed{item.part()->listedAt, item.id};
      if (next && listed > longestAgo) return;
      next = item.id;
      longestAgo = listed;
    };
    offer(tree.root());
    tree.forEach(offer);
    return next;
  });
}

void Auditor::compareOne() {
  const auto folder = next();
  if (!folder) return waitForNext();
  lister_->compare(*folder, [self = shared_from_this(),
                             folder = *folder](const Answer<std::size_t>& differences) {
    self->compared(folder, differences);
  });
}

void Auditor::compared(ItemId folder, const Answer<std::size_t>& differences) {
  std::string path = volume_->path(folder);
  if (differences.ok() && differences.value() > 0) {
    volume_->services().log->note("audit", std::to_string(differences.value()) +
                                               " differences from the store were found in '" +
                                               path + "' and are mended");
  }
  {
    MutexLock lock(mutex_);
    if (differences.ok()) {
      last_ = AuditReport{volume_->services().clock->now(), std::move(path), differences.value(),
                          last_ ? last_->comparedInAll + 1 : 1,
                          (last_ ? last_->differencesInAll : 0) + differences.value()};
    } else {
      failed_ = folder;
    }
  }
  waitForNext();
}

}  // namespace kestrune::host
