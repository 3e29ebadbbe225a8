// The record of running transfers as other programs read it. Plain values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Date.h"

namespace kestrune {

struct SyncTransfer {
  enum class Direction { upload, download };

  std::string id;
  /// The item's remote path.
  std::string path;
  std::int64_t bytesTransferred = 0;
  /// Of this transfer: for a byte range its length, not the file's.
  std::int64_t totalBytes = 0;
  Direction direction = Direction::download;
  platform::Date startedAt;
  bool operator==(const SyncTransfer&) const = default;
};

struct SyncStatus {
  std::vector<SyncTransfer> transfers;
  platform::Date updatedAt;
  std::int64_t activeEnumerations = 0;

  /// The file's contents: one compact JSON object, its keys in the order of the fields above, dates
  /// in whole seconds. Throws NSCocoaError if a text is not valid UTF-8.
  std::string encode() const;
  /// Reads such contents; unknown keys are ignored. Throws NSCocoaError if `text` is no such record.
  static SyncStatus decode(std::string_view text);
};

}  // namespace kestrune
