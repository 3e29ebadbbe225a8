#include "service/Stream.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/system_error.hpp>
#include <cerrno>

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

/// One call of sendfile; it returns earlier when the socket's buffer is full.
constexpr std::uint64_t kPieceBytes = 2U << 20U;
/// What is fetched from the disk before it is sent, and how far ahead the disk is asked to go on
/// meanwhile.
constexpr std::uint64_t kFetchBytes = 4U << 20U;
constexpr std::uint64_t kAheadBytes = 16U << 20U;

/// What one client gets before it is the turn of others on the thread, however fast it takes it.
constexpr std::uint64_t kTurnBytes = 16U << 20U;

/// Small enough to stay in a processor's cache between receiving and storing.
constexpr std::size_t kReceiveBytes = 256U << 10U;

bool isCachedAt(int file, std::uint64_t offset) {
  char byte = 0;
  const iovec target{&byte, 1};
  // Every other failure is left to sendfile, which meets it again; file systems without RWF_NOWAIT
  // are taken as they are.
  return ::preadv2(file, &target, 1, static_cast<off_t>(offset), RWF_NOWAIT) >= 0 ||
         errno != EAGAIN;
}

/// Whether the ends of the piece are in the page cache. A hole between them costs a short wait, no
/// wrong answer.
bool isCached(int file, std::uint64_t offset, std::uint64_t length) {
  return isCachedAt(file, offset) && isCachedAt(file, offset + length - 1);
}

/// Blocks until the ends of the piece are in the page cache.
void fetch(int file, std::uint64_t offset, std::uint64_t length) {
  ::posix_fadvise(file, static_cast<off_t>(offset), kAheadBytes, POSIX_FADV_WILLNEED);
  char byte = 0;
  // A read error shows again in sendfile, where it can be answered.
  for (const std::uint64_t at : {offset, offset + length - 1}) {
    if (::pread(file, &byte, 1, static_cast<off_t>(at)) < 0) return;
  }
}

/// Fills `buffer` with what has come, but not beyond `wanted` bytes. Zero if nothing has.
std::size_t fill(int socket, std::uint64_t wanted, std::vector<char>& buffer) {
  const std::size_t room = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, buffer.size()));
  std::size_t filled = 0;
  while (filled < room) {
    const ssize_t count = ::recv(socket, buffer.data() + filled, room - filled, MSG_DONTWAIT);
    if (count > 0) {
      filled += static_cast<std::size_t>(count);
    } else if (count == 0) {
      throw boost::system::system_error(asio::error::eof);
    } else if (errno == EAGAIN) {
      break;
    } else if (errno != EINTR) {
      throw boost::system::system_error(errno, boost::system::system_category());
    }
  }
  return filled;
}

/// Gives up to `wanted` bytes to `sink`, until none are there; returns how many.
std::uint64_t take(int socket, std::uint64_t wanted, std::vector<char>& buffer,
                   const Stream::Sink& sink) {
  std::uint64_t taken = 0;
  while (taken < wanted) {
    const std::size_t filled = fill(socket, wanted - taken, buffer);
    if (filled == 0) break;
    sink(buffer.data(), filled);
    taken += filled;
  }
  return taken;
}

}  // namespace

Stream::Stream(Socket socket) : socket_(std::move(socket)), timer_(socket_.get_executor()) {
  error_code ignored;  // A client that has already gone shows in the first read.
  socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
  socket_.native_non_blocking(true, ignored);
}

void Stream::begin(std::chrono::milliseconds limit) {
  expired_ = false;
  deadline_ = Clock::now() + limit;
  if (!armed_) {
    arm();
  } else if (deadline_ < wakeUp_) {
    timer_.cancel();
  }
}

void Stream::end() { deadline_ = Clock::time_point::max(); }

void Stream::arm() {
  armed_ = true;
  wakeUp_ = deadline_;
  timer_.expires_at(wakeUp_);
  timer_.async_wait([self = weak_from_this()](const error_code&) {
    if (const auto stream = self.lock()) stream->onTimer();
  });
}

void Stream::onTimer() {
  armed_ = false;
  if (!socket_.is_open() || deadline_ == Clock::time_point::max()) return;
  if (Clock::now() < deadline_) {
    arm();
    return;
  }
  expired_ = true;
  error_code ignored;
  socket_.cancel(ignored);
}

void Stream::check(const error_code& error) const {
  if (!error) return;
  if (expired_) throw TimedOut();
  throw boost::system::system_error(error);
}

asio::awaitable<std::size_t> Stream::readSome(asio::mutable_buffer buffer,
                                              std::chrono::milliseconds idle) {
  const Limit limit(*this, idle);
  error_code error;
  const std::size_t count =
      co_await socket_.async_read_some(buffer, asio::redirect_error(asio::use_awaitable, error));
  if (error == asio::error::eof) co_return 0;
  check(error);
  co_return count;
}

asio::awaitable<void> Stream::write(std::vector<asio::const_buffer> buffers,
                                    std::chrono::milliseconds idle) {
  const Limit limit(*this, idle);
  error_code error;
  co_await asio::async_write(socket_, buffers, asio::redirect_error(asio::use_awaitable, error));
  check(error);
}

asio::awaitable<void> Stream::waitFor(Socket::wait_type what, std::chrono::milliseconds idle) {
  const Limit limit(*this, idle);
  error_code error;
  co_await socket_.async_wait(what, asio::redirect_error(asio::use_awaitable, error));
  check(error);
}

asio::awaitable<void> Stream::sendFile(int file, std::uint64_t offset, std::uint64_t length,
                                       std::chrono::milliseconds idle, FileThreads* fileThreads) {
  const std::uint64_t end = offset + length;
  std::uint64_t fetchedUntil = offset;
  std::uint64_t pauseAt = offset + kTurnBytes;
  while (offset < end) {
    if (offset >= pauseAt) {
      pauseAt = offset + kTurnBytes;
      co_await asio::post(asio::use_awaitable);
    }
    const std::uint64_t piece = std::min(end - offset, kPieceBytes);
    if (offset + piece > fetchedUntil && !isCached(file, offset, piece)) {
      const std::uint64_t part = std::min(end - offset, kFetchBytes);
      co_await fileThreads->run([=] { fetch(file, offset, part); });
      fetchedUntil = offset + part;
    }
    auto position = static_cast<off_t>(offset);
    const ssize_t sent = ::sendfile(socket_.native_handle(), file, &position, piece);
    if (sent > 0) {
      offset += static_cast<std::uint64_t>(sent);
      continue;
    }
    if (sent == 0) throw boost::system::system_error(asio::error::eof);
    if (errno == EAGAIN) {
      co_await waitFor(Socket::wait_write, idle);
    } else if (errno != EINTR) {
      throw boost::system::system_error(errno, boost::system::system_category());
    }
  }
}

asio::awaitable<void> Stream::receive(std::uint64_t length, Sink sink,
                                      std::chrono::milliseconds idle, FileThreads* fileThreads) {
  std::vector<char> buffer(kReceiveBytes);
  while (length > 0) {
    co_await waitFor(Socket::wait_read, idle);
    const int descriptor = socket_.native_handle();
    const std::uint64_t turn = std::min(length, kTurnBytes);
    {
      const Loan loan(*this);
      length -= co_await fileThreads->run([&] { return take(descriptor, turn, buffer, sink); });
    }
    if (!socket_.is_open()) throw boost::system::system_error(asio::error::operation_aborted);
  }
}

asio::awaitable<void> Stream::closeGently() {
  constexpr auto kPatience = std::chrono::seconds(3);
  constexpr std::size_t kDropBytes = 64U << 20U;
  error_code error;
  socket_.shutdown(Socket::shutdown_send, error);
  std::vector<char> dropped(64U << 10U);
  const Limit limit(*this, kPatience);
  for (std::size_t total = 0; !error && !expired_ && total < kDropBytes;) {
    total += co_await socket_.async_read_some(asio::buffer(dropped),
                                              asio::redirect_error(asio::use_awaitable, error));
  }
  close();
}

void Stream::close() {
  timer_.cancel();
  error_code ignored;  // Whether the peer is still there does not matter any more.
  if (lent_) {
    closeAfterLoan_ = true;
    socket_.shutdown(Socket::shutdown_both, ignored);
  } else {
    socket_.close(ignored);
  }
}

void Stream::endLoan() {
  lent_ = false;
  if (closeAfterLoan_) close();
}

void Stream::abort() {
  error_code ignored;
  socket_.set_option(asio::socket_base::linger(true, 0), ignored);
  close();
}

}  // namespace kestrune::service
