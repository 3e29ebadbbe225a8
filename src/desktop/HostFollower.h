// Follows a host for those who show it: what changed, gathered for kTogether, and how it is doing, looked at when something has changed
// and at most every kOverview.
//
// Threads: all of it on the thread that empties the mailbox; the host's calls and answers come through that.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "host/basics/Mailbox.h"
#include "host/control/HostControl.h"

namespace kestrune::desktop {

/// Work for the thread of the buses.
using Mailbox = host::Mailbox<std::function<void()>>;

class HostFollower : public std::enable_shared_from_this<HostFollower> {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kTogether{300};
  /// That looks at all that waits to be sent.
  static constexpr std::chrono::seconds kOverview{2};
  /// While somebody waits for the end of it.
  static constexpr std::chrono::milliseconds kHurriedOverview{200};
  /// Of the pending changes, the oldest so many are told.
  static constexpr std::size_t kMostPending = 100;

  struct Told {
    std::function<void(const host::HostChanges& changes)> changes;
    std::function<void(const host::HostCondition& condition, const host::PendingChanges& pending)>
        overview;
  };
  /// `control` outlives the object and is watched by nobody else.
  HostFollower(host::HostControl& control, std::shared_ptr<Mailbox> mailbox, Told told);
  ~HostFollower();
  HostFollower(const HostFollower&) = delete;
  HostFollower& operator=(const HostFollower&) = delete;

  /// Begins to watch the host. REQUIRES: called once, first.
  void begin();
  /// An overview is wanted at once: somebody has seen none, or asks.
  void look();
  /// Whether overviews follow each other fast.
  void setHurried(bool isHurried);
  /// Does what is due. When to call again; nothing: not before the mailbox has something.
  std::optional<Clock::time_point> tick(Clock::time_point now);

 private:
  void askCondition();
  void askPending(const host::HostCondition& condition);
  Clock::duration pause() const;

  host::HostControl& control_;
  const std::shared_ptr<Mailbox> mailbox_;
  const Told told_;
  /// Something changed that was not told.
  bool isChanged_ = false;
  Clock::time_point nextChanges_{};
  bool isOverviewWanted_ = true;
  bool isOverviewAsked_ = false;
  bool isHurried_ = false;
  Clock::time_point lastOverview_{};
};

}  // namespace kestrune::desktop
