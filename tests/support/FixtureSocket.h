// One accepted connection of the fixture, plain or TLS. Every call gives up as soon as the fixture
// stops, so that its threads can always be joined.
//
// Threads: belongs to its connection's thread alone; nobody else touches the descriptor.
#pragma once

#include <atomic>
#include <cstddef>
#include <string_view>

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;

namespace kestrune::support {

class FixtureSocket {
 public:
  /// Takes over `descriptor`. `tls` is null for plain connections; it and `stopping` outlive the
  /// socket.
  FixtureSocket(int descriptor, SSL_CTX* tls, const std::atomic<bool>& stopping);
  /// Closes in order.
  ~FixtureSocket();
  FixtureSocket(const FixtureSocket&) = delete;
  FixtureSocket& operator=(const FixtureSocket&) = delete;

  /// True for plain connections; for TLS whether the client accepted the certificate.
  bool handshake();
  /// Reads at least one byte; 0 when the client has closed, the connection is broken, or the
  /// fixture stops, and also when `interrupted` becomes true first (null: never).
  std::size_t read(char* buffer, std::size_t size, const std::atomic<bool>* interrupted = nullptr);
  /// Writes some of `bytes` and returns how many the socket took; 0 when it will take none any
  /// more.
  std::size_t writeSome(std::string_view bytes);
  /// Whether the client has closed its side or the connection is broken. REQUIRES: no bytes of a
  /// request are awaited.
  bool peerHasGone();

  /// Ends the connection with a reset (RST), dropping what the client has not yet read.
  void reset();
  /// Says that nothing more comes, and reads what the client still sends until it closes too: a
  /// close with unread bytes would be a reset that destroys the answer on its way.
  void finish();

 private:
  enum class Wish { read, write };
  bool await(Wish wish, const std::atomic<bool>* interrupted);
  bool awaitAfterTLS(int result, const std::atomic<bool>* interrupted);

  int descriptor_;
  SSL* tls_ = nullptr;
  const std::atomic<bool>& stopping_;
};

}  // namespace kestrune::support
