// The extension's end of a stream: has its bytes gathered in the shared memory, or puts them there, and tells the host where they
// stand.
//
// The memory is divided into slots of one piece each. A slot is free while nobody gathers in it and the host has answered for all
// that it was told of there. Which are free nobody but this side has to know.
//
// Threads: `write` and `lend` on any thread, one call at a time. `write` blocks while the host's disk is slower than the network, as
// the host's own taking would; `lend` never does.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "boundary/Loop.h"
#include "boundary/SharedMemory.h"
#include "boundary/Wire.h"
#include "platform/values/ByteBuffer.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary {

class StreamWriter : public std::enable_shared_from_this<StreamWriter> {
 public:
  StreamWriter(std::shared_ptr<Loop> loop, std::shared_ptr<wire::Taker::Client> taker,
               std::shared_ptr<SharedMemory> memory);

  /// False when the host wants no more, or is gone. What is left over is not written then. Bytes in lent memory stay where they are.
  bool write(std::int64_t offset, std::string_view bytes);
  /// A free slot; empty where there is none, or only one that is not in the extension's hands.
  platform::ByteBuffer lend();

 private:
  class Sent;
  struct Slot {
    bool isHeld = false;  // somebody may still put bytes there
    int sent = 0;         // pieces that the host has not answered for
  };

  std::optional<std::size_t> takeFreeLocked() REQUIRES_LOCK(mutex_);
  /// A free one, waited for; none: no more is wanted.
  std::optional<std::size_t> awaitFree();
  std::span<char> memoryOf(std::size_t slot) const;
  /// REQUIRES: the slot is held.
  void send(std::int64_t offset, std::size_t slot, std::string_view bytes);
  void letGo(std::size_t slot);
  void answered(std::size_t slot, bool wanted);

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<wire::Taker::Client> taker_;
  const std::shared_ptr<SharedMemory> memory_;

  platform::Mutex mutex_;
  std::condition_variable changed_;
  std::vector<Slot> slots_ GUARDED_BY(mutex_);  // as many at all times
  bool isWanted_ GUARDED_BY(mutex_) = true;
};

}  // namespace kestrune::boundary
