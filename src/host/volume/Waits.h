// The changes that wait to be sent: since when, until when, and why. There may be as many as a folder tree has files, and they are
// gone through whenever something may begin; so their order is kept, not made.
//
// Threads: none of its own; the owner's lock guards it.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/out/Planner.h"
#include "host/tree/Item.h"

namespace kestrune::host {

class Waits {
 public:
  using Clock = std::chrono::nanoseconds;
  struct Wait {
    Clock notBefore{0};
    int attempts = 0;
    /// How often the extension died of it, or with it, since it last went through.
    int interruptions = 0;
    bool unreachable = false;
    bool forbidden = false;
    std::string reason;
    /// What was to be done when it failed last.
    std::optional<OutgoingItem> failed;

    Clock since() const { return since_; }

   private:
    friend class Waits;
    Clock since_{0};
  };

  /// That of `id`; a new one begins at `at`.
  Wait& of(ItemId id, Clock at);
  /// Null if it does not wait.
  Wait* find(ItemId id);
  const Wait* find(ItemId id) const;
  /// It waits anew from `at` on. REQUIRES: it waits.
  void renew(ItemId id, Clock at);
  /// From now on those wait that are in `differing` and no others; new ones begin at `at`, and may go at once.
  void agree(const std::set<ItemId>& differing, Clock at);
  /// All of them: first those that may go at `at`, those that have waited longest first.
  std::vector<NodeId> byAge(Clock at) const;

  std::map<ItemId, Wait>& all() { return waits_; }
  const std::map<ItemId, Wait>& all() const { return waits_; }

 private:
  std::map<ItemId, Wait>::iterator forget(std::map<ItemId, Wait>::iterator at);

  std::map<ItemId, Wait> waits_;
  /// Points into the former.
  std::map<std::pair<Clock, ItemId>, const Wait*> order_;
};

}  // namespace kestrune::host
