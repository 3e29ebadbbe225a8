// One client's connection as bytes, with a limit to everything that waits.
//
// Each operation takes the time that it may wait. When that passes, the pending operation ends with
// TimedOut, and the stream can still be written to: the client is told before the connection is
// closed.
//
// Threads: only on the executor of the socket, which runs one handler at a time.
// Owns: the socket.
// Fails: boost::system::system_error when the connection is lost, TimedOut.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

#include "service/FileThreads.h"

namespace kestrune::service {

class TimedOut : public std::exception {
 public:
  const char* what() const noexcept override { return "the peer was too slow"; }
};

class Stream : public std::enable_shared_from_this<Stream> {
 public:
  using Socket = boost::asio::ip::tcp::socket;

  explicit Stream(Socket socket);

  Socket& socket() { return socket_; }

  /// While it lives, the operations on the socket are cancelled when `limit` has passed. For
  /// operations that are not this class's own; `check` their error code before the scope ends.
  /// Limits do not nest.
  class Limit {
   public:
    Limit(Stream& stream, std::chrono::milliseconds limit) : stream_(stream) {
      stream_.begin(limit);
    }
    ~Limit() { stream_.end(); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

   private:
    Stream& stream_;
  };

  /// Whether the last limit has passed.
  bool expired() const { return expired_; }

  /// Throws what `error` means now: TimedOut or the loss of the connection; nothing if there is no
  /// error.
  void check(const boost::system::error_code& error) const;

  /// Reads at least one byte; 0 at the end of the stream.
  boost::asio::awaitable<std::size_t> readSome(boost::asio::mutable_buffer buffer,
                                               std::chrono::milliseconds idle);

  /// Writes all of the buffers.
  boost::asio::awaitable<void> write(std::vector<boost::asio::const_buffer> buffers,
                                     std::chrono::milliseconds idle);

  /// Sends `length` bytes of the regular file `file` from `offset`, without copying them through
  /// this process. Parts that are not in the page cache are fetched on a file thread first. A file
  /// that turns out shorter than announced fails with boost::asio::error::eof.
  /// REQUIRES: `file` stays open until it ends; the thread has SIGPIPE blocked.
  boost::asio::awaitable<void> sendFile(int file, std::uint64_t offset, std::uint64_t length,
                                        std::chrono::milliseconds idle, FileThreads* fileThreads);

  /// What takes received bytes; called on a file thread, one call at a time.
  using Sink = std::function<void(const char* data, std::size_t length)>;

  /// Gives the next `length` bytes that the client sends to `sink`, as they come. A fast client's
  /// bytes are read and stored by one file thread in turns of 16 MiB: handing each piece from
  /// thread to thread would cost more than storing it. Holds 256 KiB. Throws what `sink` throws;
  /// boost::asio::error::eof if the client ends early.
  boost::asio::awaitable<void> receive(std::uint64_t length, Sink sink,
                                       std::chrono::milliseconds idle, FileThreads* fileThreads);

  /// Says that nothing more is sent, then reads and drops what the client is still sending, for a
  /// short time and up to a bound: closing with unread data would reset the connection and could
  /// destroy the answer on its way. Then closes. Never throws.
  boost::asio::awaitable<void> closeGently();

  /// Ends every pending operation and closes.
  void close();
  /// The same with a reset, so that no client can take a truncated answer for a whole one.
  void abort();

 private:
  /// While it lives, a file thread uses the socket's descriptor, which therefore stays open:
  /// closing only shuts the connection down, and the descriptor is closed when the loan ends.
  class Loan {
   public:
    explicit Loan(Stream& stream) : stream_(stream) { stream_.lent_ = true; }
    ~Loan() { stream_.endLoan(); }
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

   private:
    Stream& stream_;
  };

  boost::asio::awaitable<void> waitFor(Socket::wait_type what, std::chrono::milliseconds idle);
  void endLoan();
  void begin(std::chrono::milliseconds limit);
  void end();
  void arm();
  void onTimer();

  Socket socket_;
  /// Wakes at the deadline or before it: a later deadline leaves the timer alone, so that the usual
  /// operation costs no timer call.
  boost::asio::steady_timer timer_;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::steady_clock::time_point wakeUp_;
  bool armed_ = false;
  bool expired_ = false;
  bool lent_ = false;
  bool closeAfterLoan_ = false;
};

}  // namespace kestrune::service
