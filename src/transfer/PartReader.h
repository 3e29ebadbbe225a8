// Reads the parts of one file for tasks that send them side by side. The file is read on a thread
// of the reader's own, one part at a time: a slow disk holds up no executor thread. Buffers are
// used again once nobody holds them, because fresh memory of this size costs more than the reading.
//
// Threads: `read` may be awaited on any task. Owns: the file handle and the thread; both go with
// the reader. REQUIRES: no read is under way when the reader goes.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/files/FileHandle.h"
#include "platform/tasks/Queue.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"

namespace kestrune {

/// The bytes [offset, offset + length) of a file; `number` counts from 1.
struct FilePart {
  std::int64_t number = 1;
  std::int64_t offset = 0;
  std::int64_t length = 0;
};

class PartReader {
 public:
  using Bytes = std::shared_ptr<const std::string>;

  explicit PartReader(platform::FileHandle file);
  PartReader(const PartReader&) = delete;
  PartReader& operator=(const PartReader&) = delete;

  /// The bytes of one part. Throws the file's own error where it cannot be sought in or read, and
  /// MPError readFailed where it ends inside the part.
  platform::Task<Bytes> read(FilePart part);

 private:
  struct Pool {
    platform::Mutex mutex;
    std::vector<std::unique_ptr<std::string>> idle GUARDED_BY(mutex);
  };

  static std::shared_ptr<std::string> takeBuffer(const std::shared_ptr<Pool>& pool,
                                                 std::size_t length);
  /// REQUIRES: called on the queue.
  Bytes readOnQueue(FilePart part);

  platform::FileHandle file_;  // used on the queue alone
  const std::shared_ptr<Pool> pool_ = std::make_shared<Pool>();
  platform::SerialQueue queue_;  // last: its thread ends before what it uses goes
};

}  // namespace kestrune
