#include "transfer/PartReader.h"

#include <utility>

#include "platform/tasks/Continuation.h"
#include "platform/values/NSError.h"
#include "transfer/MPError.h"

namespace kestrune {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::Task;

PartReader::PartReader(platform::FileHandle file)
    : file_(std::move(file)), queue_("kestrune.part-reader") {}

Task<PartReader::Bytes> PartReader::read(FilePart part) {
  // An error crosses from the reader's thread to the task's as a value; thrown, it would be one
  // exception object on two threads.
  struct Outcome {
    Bytes bytes;
    NSErrorPtr error;
  };
  auto begin = [this, part](platform::Continuation<Outcome> continuation) {
    queue_.async([this, part, continuation] {
      Outcome outcome;
      try {
        outcome.bytes = readOnQueue(part);
      } catch (...) {
        outcome.error = platform::currentError();
      }
      continuation.resume(std::move(outcome));
    });
  };
  Outcome outcome = co_await platform::suspendUntilResumed<Outcome>(begin);
  if (outcome.error) outcome.error->raise();
  co_return std::move(outcome.bytes);
}

PartReader::Bytes PartReader::readOnQueue(FilePart part) {
  file_.seek(part.offset);
  auto bytes = takeBuffer(pool_, static_cast<std::size_t>(part.length));
  const std::size_t got = file_.read(*bytes);
  if (got != bytes->size()) {
    throw MPError::readFailed("part " + std::to_string(part.number) + " short read " +
                              std::to_string(got) + "/" + std::to_string(part.length));
  }
  return bytes;
}

std::shared_ptr<std::string> PartReader::takeBuffer(const std::shared_ptr<Pool>& pool,
                                                    std::size_t length) {
  std::unique_ptr<std::string> buffer;
  {
    MutexLock lock(pool->mutex);
    if (!pool->idle.empty()) {
      buffer = std::move(pool->idle.back());
      pool->idle.pop_back();
    }
  }
  if (!buffer) buffer = std::make_unique<std::string>();
  buffer->resize(length);
  // Whoever holds the bytes last gives the buffer back; the pool lives as long as one is out.
  return {buffer.release(), [pool](std::string* used) {
            std::unique_ptr<std::string> returned(used);
            MutexLock lock(pool->mutex);
            pool->idle.push_back(std::move(returned));
          }};
}

}  // namespace kestrune
