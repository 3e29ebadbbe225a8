// The extension's end of a stream: puts bytes into the shared memory and tells the host where they stand.
//
// Threads: `write` on any thread, one call at a time; it blocks while the memory is full, which is while the host's disk is slower
// than the network, as the host's own taking would.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string_view>

#include "boundary/Loop.h"
#include "boundary/SharedMemory.h"
#include "boundary/Wire.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary {

class StreamWriter : public std::enable_shared_from_this<StreamWriter> {
 public:
  StreamWriter(std::shared_ptr<Loop> loop, std::shared_ptr<wire::Taker::Client> taker,
               std::shared_ptr<SharedMemory> memory)
      : loop_(std::move(loop)), taker_(std::move(taker)), memory_(std::move(memory)) {}

  /// False when the host wants no more, or is gone. What is left over is not written then.
  bool write(std::int64_t offset, std::string_view bytes);

 private:
  class Sent;
  /// The room at the present position without wrapping around, waited for; 0: no more is wanted.
  std::size_t awaitRoom();
  void send(std::int64_t offset, std::uint64_t position, std::size_t length);
  void taken(std::size_t length, bool wanted);

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<wire::Taker::Client> taker_;
  const std::shared_ptr<SharedMemory> memory_;

  platform::Mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t written_ GUARDED_BY(mutex_) = 0;
  std::uint64_t taken_ GUARDED_BY(mutex_) = 0;
  bool isWanted_ GUARDED_BY(mutex_) = true;
};

}  // namespace kestrune::boundary
