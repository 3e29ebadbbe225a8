#include "status/SyncStatus.h"

#include "platform/values/Json.h"

namespace kestrune {

namespace {

const char* directionText(SyncTransfer::Direction direction) {
  return direction == SyncTransfer::Direction::upload ? "upload" : "download";
}

}  // namespace

std::string SyncStatus::encode() const {
  platform::Json records = platform::Json::array();
  for (const SyncTransfer& transfer : transfers) {
    records.push_back({{"id", transfer.id},
                       {"path", transfer.path},
                       {"bytesTransferred", transfer.bytesTransferred},
                       {"totalBytes", transfer.totalBytes},
                       {"direction", directionText(transfer.direction)},
                       {"startedAt", platform::formatISO8601(transfer.startedAt)}});
  }
  return platform::encodeJson({{"transfers", std::move(records)},
                               {"updatedAt", platform::formatISO8601(updatedAt)},
                               {"activeEnumerations", activeEnumerations}});
}

}  // namespace kestrune
