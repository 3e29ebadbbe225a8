#include "transfer/PrefetchTracker.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "platform/values/Checked.h"

namespace kestrune {

namespace {

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kNearnessBytes = 4 * kMiB;
constexpr std::int64_t kStreakCeiling = 8;
constexpr std::chrono::seconds kStalenessAge(300);
constexpr std::array<std::int64_t, 4> kFetchSizes = {16 * kMiB, 32 * kMiB, 64 * kMiB, 128 * kMiB};

std::int64_t fetchSize(std::int64_t streak) {
  const auto longest = static_cast<std::int64_t>(kFetchSizes.size()) - 1;
  return kFetchSizes[static_cast<std::size_t>(std::min(streak, longest))];
}

}  // namespace

PrefetchTracker::PrefetchTracker(std::shared_ptr<const platform::Clock> clock)
    : clock_(std::move(clock)) {}

std::int64_t PrefetchTracker::recordAndAdvise(const std::string& itemId,
                                              std::int64_t requestedStart,
                                              std::int64_t requestedEnd) {
  platform::MutexLock lock(lock_);
  const platform::Date now = clock_->now();
  State& state = states_[itemId];
  const std::int64_t step = platform::subtractOrDie(requestedStart, state.lastEnd,
                                                    "the distance between two requested ranges");
  const std::int64_t distance =
      platform::absoluteOrDie(step, "the distance between two requested ranges");
  const std::int64_t streak =
      distance < kNearnessBytes ? std::min(state.streak + 1, kStreakCeiling) : 0;
  state = {requestedEnd, streak, now};
  evictIfStale_locked(now);
  return fetchSize(streak);
}

std::size_t PrefetchTracker::recordCount() const {
  platform::MutexLock lock(lock_);
  return states_.size();
}

void PrefetchTracker::evictIfStale_locked(platform::Date now) {
  const platform::Date cutoff = now - kStalenessAge;
  std::erase_if(states_, [cutoff](const auto& entry) { return entry.second.lastAccess < cutoff; });
}

}  // namespace kestrune
