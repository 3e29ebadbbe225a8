// Messages over one end of a pair of sockets, for Cap'n Proto's connection.
//
// Reads what there is in one system call, and writes in the thread that has something to say, as long as the other side takes it.
//
// Threads: in the loop, its end too. Fails: as Cap'n Proto wants it, by kj::Exception, DISCONNECTED where the other side is gone.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "boundary/Loop.h"
#include "boundary/Wire.h"

namespace kestrune::boundary {

class SocketStream final : public capnp::MessageStream {
 public:
  /// Of one that is not trusted, descriptors that come with messages are not taken: the kernel closes them. And nothing is read while it does
  /// not take what it was sent: its answers would gather without end. So it is on one side of a connection only, lest both wait.
  enum class OtherSide { trusted, untrusted };

  /// REQUIRES: it is the loop's only one.
  SocketStream(std::shared_ptr<Loop> loop, kj::AutoCloseFd socket, OtherSide otherSide);
  ~SocketStream() noexcept;
  KJ_DISALLOW_COPY(SocketStream);

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(
      kj::ArrayPtr<kj::AutoCloseFd> descriptors, capnp::ReaderOptions options,
      kj::ArrayPtr<capnp::word> scratch) override;
  kj::Promise<void> writeMessage(
      kj::ArrayPtr<const int> descriptors,
      kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override;
  kj::Promise<void> writeMessages(
      kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override;
  kj::Maybe<int> getSendBufferSize() override;
  kj::Promise<void> end() override;

 private:
  using Read = kj::Maybe<capnp::MessageReaderAndFds>;
  struct Reading {
    kj::ArrayPtr<kj::AutoCloseFd> descriptors;
    capnp::ReaderOptions options;
    kj::Own<kj::PromiseFulfiller<Read>> fulfiller;
  };
  class Pieces;
  struct Outgoing;
  // A descriptor, and how much had come in all when it did: it belongs to the message that began last before that.
  struct Passed {
    std::uint64_t position;
    kj::AutoCloseFd descriptor;
  };

  void readOn();
  void writeOn();
  void wantMore() const;
  bool isHeldBack() const { return otherSide_ == OtherSide::untrusted && !outgoing_.empty(); }
  void sendUnhurried();
  bool keepForLater(kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments);
  kj::Promise<void> write(Pieces& pieces, kj::ArrayPtr<const int> descriptors);
  void send(Pieces& pieces, kj::ArrayPtr<const int>& descriptors) const;
  std::optional<Read> next(Reading& reading);
  kj::Own<capnp::MessageReader> takeOut(std::size_t first, std::size_t words,
                                        capnp::ReaderOptions options);
  bool receive();
  void take(const msghdr& header);
  std::size_t buffered() const { return end_ - begin_; }
  void makeRoom(std::size_t bytes);

  const std::shared_ptr<Loop> loop_;
  const kj::AutoCloseFd socket_;
  const OtherSide otherSide_;

  std::optional<Reading> reading_;
  kj::Array<capnp::word> buffer_;
  std::size_t begin_ = 0;  // of what was not read yet, in bytes: where a message begins
  std::size_t end_ = 0;
  std::uint64_t received_ = 0;  // in all
  bool isAtEnd_ = false;
  bool isDry_ = false;  // there was no more when it was read last
  std::deque<Passed> passed_;

  std::deque<Outgoing> outgoing_;
  std::vector<char>
      unhurried_;  // messages that go with the next one; before what is in outgoing_, which then is empty
};

}  // namespace kestrune::boundary
