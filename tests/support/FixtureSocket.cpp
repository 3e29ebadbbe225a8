#include "tests/support/FixtureSocket.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace kestrune::support {

namespace {
// How soon a thread that waits on a socket notices that the fixture stops.
constexpr int kLookEveryMilliseconds = 10;

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }
}  // namespace

FixtureSocket::FixtureSocket(int descriptor, SSL_CTX* tls, const std::atomic<bool>& stopping)
    : descriptor_(descriptor), stopping_(stopping) {
  ::fcntl(descriptor_, F_SETFL, ::fcntl(descriptor_, F_GETFL) | O_NONBLOCK);
  if (tls != nullptr) {
    tls_ = SSL_new(tls);
    SSL_set_fd(tls_, descriptor_);
  }
}

FixtureSocket::~FixtureSocket() {
  if (tls_ != nullptr) SSL_free(tls_);
  if (descriptor_ >= 0) ::close(descriptor_);
}

bool FixtureSocket::await(Wish wish, const std::atomic<bool>* interrupted) {
  pollfd entry{descriptor_, static_cast<short>(wish == Wish::read ? POLLIN : POLLOUT), 0};
  while (!stopping_ && (interrupted == nullptr || !*interrupted)) {
    const int ready = ::poll(&entry, 1, kLookEveryMilliseconds);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
  return false;
}

bool FixtureSocket::awaitAfterTLS(int result, const std::atomic<bool>* interrupted) {
  const int reason = SSL_get_error(tls_, result);
  ERR_clear_error();
  if (reason == SSL_ERROR_WANT_READ) return await(Wish::read, interrupted);
  if (reason == SSL_ERROR_WANT_WRITE) return await(Wish::write, interrupted);
  return false;
}

bool FixtureSocket::handshake() {
  if (tls_ == nullptr) return true;
  for (;;) {
    const int result = SSL_accept(tls_);
    if (result == 1) return true;
    if (!awaitAfterTLS(result, nullptr)) return false;
  }
}

std::size_t FixtureSocket::read(char* buffer, std::size_t size,
                                const std::atomic<bool>* interrupted) {
  for (;;) {
    if (tls_ != nullptr) {
      const int count = SSL_read(tls_, buffer, static_cast<int>(size));
      if (count > 0) return static_cast<std::size_t>(count);
      if (!awaitAfterTLS(count, interrupted)) return 0;
    } else {
      const ssize_t count = ::recv(descriptor_, buffer, size, 0);
      if (count > 0) return static_cast<std::size_t>(count);
      if (count == 0 || !wouldBlock(errno) || !await(Wish::read, interrupted)) return 0;
    }
  }
}

std::size_t FixtureSocket::writeSome(std::string_view bytes) {
  for (;;) {
    if (stopping_ || descriptor_ < 0) return 0;
    if (tls_ != nullptr) {
      const int count = SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()));
      if (count > 0) return static_cast<std::size_t>(count);
      if (!awaitAfterTLS(count, nullptr)) return 0;
    } else {
      const ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(), 0);
      if (count > 0) return static_cast<std::size_t>(count);
      if (count == 0 || !wouldBlock(errno) || !await(Wish::write, nullptr)) return 0;
    }
  }
}

bool FixtureSocket::peerHasGone() {
  char byte = 0;
  if (tls_ != nullptr) {
    const int count = SSL_peek(tls_, &byte, 1);
    if (count > 0) return false;
    const int reason = SSL_get_error(tls_, count);
    ERR_clear_error();
    return reason != SSL_ERROR_WANT_READ && reason != SSL_ERROR_WANT_WRITE;
  }
  const ssize_t count = ::recv(descriptor_, &byte, 1, MSG_PEEK);
  return count == 0 || (count < 0 && !wouldBlock(errno));
}

void FixtureSocket::reset() {
  const linger now{1, 0};
  ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  ::close(descriptor_);
  descriptor_ = -1;
}

void FixtureSocket::finish() {
  if (descriptor_ < 0) return;
  if (tls_ != nullptr) SSL_shutdown(tls_);
  ::shutdown(descriptor_, SHUT_WR);
  std::array<char, 65536> dropped;
  for (;;) {
    const ssize_t count = ::recv(descriptor_, dropped.data(), dropped.size(), 0);
    if (count > 0) continue;
    if (count == 0 || !wouldBlock(errno) || !await(Wish::read, nullptr)) return;
  }
}

}  // namespace kestrune::support
