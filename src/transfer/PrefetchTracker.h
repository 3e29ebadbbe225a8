// Recognises sequential reads of a file and says how much to fetch for each: requests that start
// near the end of the one before make a streak, and the longer the streak the more is fetched
// ahead, from 16 MiB to 128 MiB. A jump ends it.
//
// The first request of a file is compared with offset 0, so one that starts near the beginning
// counts as a streak of 1.
//
// Threads: may be called from any thread; each call is one critical section.
// Fails: offsets whose distance does not fit 64 bits end the process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/values/Date.h"
#include "platform/values/Mutex.h"

namespace kestrune {

class PrefetchTracker {
 public:
  /// `clock` decides when a record is stale.
  explicit PrefetchTracker(std::shared_ptr<const platform::Clock> clock);

  /// Records a request for the bytes [requestedStart, requestedEnd) of the item and returns how
  /// many bytes to fetch.
  std::int64_t recordAndAdvise(const std::string& itemId, std::int64_t requestedStart,
                               std::int64_t requestedEnd);

  /// How many items have a record. Records unused for more than 300 seconds go at the next
  /// recordAndAdvise.
  std::size_t recordCount() const;

 private:
  struct State {
    std::int64_t lastEnd = 0;
    std::int64_t streak = 0;  // 0 to 8
    platform::Date lastAccess = platform::kDistantPast;
  };

  void evictIfStale_locked(platform::Date now) REQUIRES_LOCK(lock_);

  const std::shared_ptr<const platform::Clock> clock_;
  mutable platform::Mutex lock_;
  std::unordered_map<std::string, State> states_ GUARDED_BY(lock_);
};

}  // namespace kestrune
