#include "transfer/ContentAddresses.h"

#include <utility>

namespace kestrune {

using platform::MutexLock;

std::optional<ContentAddresses::Address> ContentAddresses::find(const std::string& path,
                                                                const std::string& version) const {
  const platform::Date cutoff = clock_->now() - kStalenessAge;
  MutexLock lock(lock_);
  const auto found = known_.find(path);
  if (found == known_.end()) return std::nullopt;
  const Known& known = found->second;
  if (known.version != version || known.since < cutoff) return std::nullopt;
  return known.address;
}

void ContentAddresses::remember(const std::string& path, const std::string& version,
                                Address address) {
  const platform::Date now = clock_->now();
  const platform::Date cutoff = now - kStalenessAge;
  MutexLock lock(lock_);
  std::erase_if(known_, [cutoff](const auto& entry) { return entry.second.since < cutoff; });
  if (address.entityTag.empty() || address.entityTag.starts_with("W/")) {
    known_.erase(path);
  } else {
    known_.insert_or_assign(path, Known{version, std::move(address), now});
  }
}

void ContentAddresses::forget(const std::string& path) {
  MutexLock lock(lock_);
  known_.erase(path);
}

}  // namespace kestrune
