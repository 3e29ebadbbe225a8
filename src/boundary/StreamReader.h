// The host's end of a stream: hands on what the program has put into the shared memory, piece after piece.
//
// Threads: made on any thread; a capability of the loop. `bytes` is called on `where`, which runs one thing at a time; not after
// its owner has let it go there.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <memory>

#include "boundary/Loop.h"
#include "boundary/SharedMemory.h"
#include "boundary/Wire.h"
#include "platform/file_provider/ContentStreaming.h"

namespace kestrune::boundary {

/// Shared memory as a capability that carries its descriptor.
class MemoryServer final : public wire::Memory::Server {
 public:
  explicit MemoryServer(std::shared_ptr<SharedMemory> memory) : memory_(std::move(memory)) {}
  kj::Maybe<int> getFd() override { return memory_->descriptor(); }

 private:
  const std::shared_ptr<SharedMemory> memory_;
};

class StreamReader final : public wire::Taker::Server {
 public:
  StreamReader(std::shared_ptr<Loop> loop, boost::asio::any_io_executor where,
               std::shared_ptr<SharedMemory> memory,
               std::weak_ptr<const platform::ContentStreaming::BytesHandler> bytes)
      : loop_(std::move(loop)),
        where_(std::move(where)),
        memory_(std::move(memory)),
        bytes_(std::move(bytes)) {}

 protected:
  kj::Promise<void> take(TakeContext context) override;

 private:
  const std::shared_ptr<Loop> loop_;
  const boost::asio::any_io_executor where_;
  const std::shared_ptr<SharedMemory> memory_;
  const std::weak_ptr<const platform::ContentStreaming::BytesHandler> bytes_;
};

}  // namespace kestrune::boundary
