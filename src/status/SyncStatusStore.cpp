#include "status/SyncStatusStore.h"

#include <chrono>
#include <utility>

#include "config/StorageLocations.h"
#include "platform/values/Checked.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

// Longer than the pauses between the reports of one transfer.
constexpr std::chrono::milliseconds kRest(200);

}  // namespace

SyncStatusStore::SyncStatusStore()
    : queue_("kestrune.sync-status", {kRest, [this]() { file_.rest(); }}) {}

SyncStatusStore& SyncStatusStore::shared() {
  static auto* const store = new SyncStatusStore;  // tasks report to it until the process ends
  return *store;
}

void SyncStatusStore::begin(std::string id, std::string path, std::int64_t totalBytes,
                            SyncTransfer::Direction direction) {
  queue_.async([this, id = std::move(id), path = std::move(path), totalBytes, direction]() {
    transfers_[id] = SyncTransfer{id, path, 0, totalBytes, direction, platform::dateNow()};
    flushLocked();
  });
}

void SyncStatusStore::update(std::string id, std::int64_t bytesTransferred) {
  queue_.async([this, id = std::move(id), bytesTransferred]() {
    const auto found = transfers_.find(id);
    if (found == transfers_.end()) return;
    found->second.bytesTransferred = bytesTransferred;
    flushLocked();
  });
}

void SyncStatusStore::finish(std::string id) {
  queue_.async([this, id = std::move(id)]() {
    transfers_.erase(id);
    flushLocked();
  });
}

void SyncStatusStore::beginEnumeration() {
  queue_.async([this]() {
    activeEnumerations_ = platform::addOrDie(activeEnumerations_, 1, "the count of enumerations");
    flushLocked();
  });
}

void SyncStatusStore::endEnumeration() {
  queue_.async([this]() {
    if (activeEnumerations_ >= 1) --activeEnumerations_;
    flushLocked();
  });
}

bool SyncStatusStore::hasActiveTransfersUnder(const std::string& parentPath) {
  bool active = false;
  queue_.sync([this, &parentPath, &active]() {
    if (transfers_.empty()) return;
    if (parentPath.empty() || parentPath == "/") {
      active = true;
      return;
    }
    const std::string prefix = parentPath.back() == '/' ? parentPath : parentPath + "/";
    for (const auto& entry : transfers_) active = active || entry.second.path.starts_with(prefix);
  });
  return active;
}

void SyncStatusStore::drain() {
  queue_.sync([this]() { file_.rest(); });
}

void SyncStatusStore::flushLocked() {
  SyncStatus status;
  status.transfers.reserve(transfers_.size());
  for (const auto& entry : transfers_) status.transfers.push_back(entry.second);
  status.updatedAt = platform::dateNow();
  status.activeEnumerations = activeEnumerations_;
  try {
    const std::string text = status.encode();
    file_.replace(storage::syncStatusFile(), text);
  } catch (const platform::NSError&) {
    // The record is an aid to whoever watches; a transfer must not suffer because it cannot be
    // written.
  }
}

}  // namespace kestrune
