// The running transfers and enumerations of this process, mirrored into "sync-status.json" after
// every change.
//
// Transfers report begin, any number of updates, and exactly one finish; enumerations a begin and
// an end. The file is rewritten whole and atomically after each change, at whatever rate changes
// come: a reader sees the old or the new record. A new process starts empty and does not read an
// earlier file.
//
// Threads: every operation may be called from any thread. Changes return at once; they are applied
// in order on the store's own serial queue, where the file is written too. The query and `drain`
// wait for that queue. Fails: never; a file that cannot be written is left as it was, and the next
// change tries again.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

#include "platform/files/AtomicFile.h"
#include "platform/tasks/Queue.h"
#include "status/SyncStatus.h"

namespace kestrune {

class SyncStatusStore {
 public:
  /// The store of this process, made on first use and kept until the process ends.
  static SyncStatusStore& shared();

  /// Registers a transfer; a record with the same id is replaced.
  void begin(std::string id, std::string path, std::int64_t totalBytes,
             SyncTransfer::Direction direction);
  /// Sets how many bytes have moved, as an absolute count. Ignored, without a write, if there is no
  /// such transfer.
  void update(std::string id, std::int64_t bytesTransferred);
  /// Removes a transfer; the file is rewritten even if there was none.
  void finish(std::string id);

  void beginEnumeration();
  /// Never counts below zero.
  void endEnumeration();

  /// Whether a transfer of something strictly below `parentPath` runs; any transfer at all for "/"
  /// and "". REQUIRES: not called on the store's own queue.
  bool hasActiveTransfersUnder(const std::string& parentPath);

  /// Waits until every change made so far has been written.
  void drain();

 private:
  SyncStatusStore();
  /// REQUIRES: called on the queue.
  void flushLocked();

  // Used on the queue alone.
  std::unordered_map<std::string, SyncTransfer> transfers_;
  std::int64_t activeEnumerations_ = 0;
  platform::FileReplacer file_;

  platform::SerialQueue queue_;  // last: its thread ends before the fields above go
};

}  // namespace kestrune
