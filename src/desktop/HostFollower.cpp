#include "desktop/HostFollower.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace kestrune::desktop {

using host::Answer;

HostFollower::HostFollower(host::HostControl& control, std::shared_ptr<Mailbox> mailbox, Told told)
    : control_(control), mailbox_(std::move(mailbox)), told_(std::move(told)) {}

HostFollower::~HostFollower() { control_.watch(nullptr); }

void HostFollower::begin() {
  // The host calls this with its locks held, perhaps thousands of times a second.
  auto isPosted = std::make_shared<std::atomic<bool>>(false);
  control_.watch([mailbox = mailbox_, weak = weak_from_this(), isPosted] {
    if (isPosted->exchange(true)) return;
    mailbox->put([weak, isPosted] {
      *isPosted = false;
      if (const auto self = weak.lock()) self->isChanged_ = true;
    });
  });
}

void HostFollower::look() {
  isOverviewWanted_ = true;
  lastOverview_ = {};
}

void HostFollower::setHurried(bool isHurried) { isHurried_ = isHurried; }

HostFollower::Clock::duration HostFollower::pause() const {
  return isHurried_ ? Clock::duration(kHurriedOverview) : Clock::duration(kOverview);
}

std::optional<HostFollower::Clock::time_point> HostFollower::tick(Clock::time_point now) {
  if (isChanged_ && now >= nextChanges_) {
    isChanged_ = false;
    nextChanges_ = now + kTogether;
    isOverviewWanted_ = true;
    told_.changes(control_.takeChanges());
  }
  if (isOverviewWanted_ && !isOverviewAsked_ && now >= lastOverview_ + pause()) {
    isOverviewWanted_ = false;
    lastOverview_ = now;
    askCondition();
  }
  std::optional<Clock::time_point> next;
  if (isChanged_) next = nextChanges_;
  if (isOverviewWanted_ && !isOverviewAsked_)
    next = next ? std::min(*next, lastOverview_ + pause()) : lastOverview_ + pause();
  return next;
}

void HostFollower::askCondition() {
  isOverviewAsked_ = true;
  control_.condition(
      [mailbox = mailbox_, weak = weak_from_this()](Answer<host::HostCondition> condition) {
        mailbox->put([weak, condition = std::move(condition)] {
          const auto self = weak.lock();
          if (!self) return;
          if (condition.ok()) return self->askPending(condition.value());
          self->isOverviewAsked_ = false;
        });
      });
}

void HostFollower::askPending(const host::HostCondition& condition) {
  control_.pending("/", kMostPending,
                   [condition, mailbox = mailbox_,
                    weak = weak_from_this()](Answer<host::PendingChanges> pending) {
                     mailbox->put([weak, condition, pending = std::move(pending)] {
                       const auto self = weak.lock();
                       if (!self) return;
                       self->isOverviewAsked_ = false;
                       if (pending.ok()) self->told_.overview(condition, pending.value());
                     });
                   });
}

}  // namespace kestrune::desktop
