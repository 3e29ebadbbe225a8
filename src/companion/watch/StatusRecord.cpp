#include "companion/watch/StatusRecord.h"

#include <cstdint>

#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

constexpr std::uint64_t kMostBytes = std::uint64_t{16} << 20U;

}  // namespace

std::vector<SyncTransfer> presentTransfers() {
  try {
    return SyncStatus::decode(platform::readFile(storage::syncStatusFile(), kMostBytes)).transfers;
  } catch (const platform::NSError&) {
    return {};
  }
}

}  // namespace kestrune
