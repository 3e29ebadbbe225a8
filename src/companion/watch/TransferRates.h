// How fast transfers go, from their counts seen now and then.
//
// Threads: one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "status/SyncStatus.h"

namespace kestrune {

class TransferRates {
 public:
  using Clock = std::chrono::steady_clock;

  /// What runs at `now`; what does not is forgotten.
  void saw(const std::vector<SyncTransfer>& transfers, Clock::time_point now);

  /// Bytes a second, smoothed over some seconds; none before it has been seen to move.
  std::optional<double> rateOf(const std::string& id) const;
  /// None where the size or the rate is not known.
  std::optional<std::uint64_t> secondsLeft(const SyncTransfer& transfer) const;

 private:
  struct Meter {
    Clock::time_point at;
    std::int64_t bytes = 0;
    std::optional<double> rate = std::nullopt;
  };
  std::map<std::string, Meter> meters_;
};

}  // namespace kestrune
