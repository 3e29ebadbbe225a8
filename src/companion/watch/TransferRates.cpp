#include "companion/watch/TransferRates.h"

#include <cmath>
#include <utility>

namespace kestrune {

namespace {

/// After this time an earlier rate counts for a third.
constexpr double kMemorySeconds = 4;
constexpr double kLeastRate = 1;

}  // namespace

void TransferRates::saw(const std::vector<SyncTransfer>& transfers, Clock::time_point now) {
  std::map<std::string, Meter> next;
  for (const SyncTransfer& transfer : transfers) {
    Meter meter{now, transfer.bytesTransferred};
    const auto before = meters_.find(transfer.id);
    if (before != meters_.end()) {
      const double seconds = std::chrono::duration<double>(now - before->second.at).count();
      const auto moved = static_cast<double>(transfer.bytesTransferred - before->second.bytes);
      if (seconds <= 0) {
        meter = before->second;
      } else if (const auto earlier = before->second.rate) {
        const double kept = std::exp(-seconds / kMemorySeconds);
        meter.rate = *earlier * kept + moved / seconds * (1 - kept);
      } else if (moved > 0) {
        meter.rate = moved / seconds;
      }
    }
    next.emplace(transfer.id, meter);
  }
  meters_ = std::move(next);
}

std::optional<double> TransferRates::rateOf(const std::string& id) const {
  const auto found = meters_.find(id);
  if (found == meters_.end()) return std::nullopt;
  return found->second.rate;
}

std::optional<std::uint64_t> TransferRates::secondsLeft(const SyncTransfer& transfer) const {
  const auto rate = rateOf(transfer.id);
  if (!rate || *rate < kLeastRate || transfer.totalBytes <= 0) return std::nullopt;
  const auto left = transfer.totalBytes - transfer.bytesTransferred;
  return left <= 0 ? 0 : static_cast<std::uint64_t>(std::ceil(static_cast<double>(left) / *rate));
}

}  // namespace kestrune
