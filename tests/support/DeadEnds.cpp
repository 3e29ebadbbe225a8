#include "tests/support/DeadEnds.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace kestrune::support {

namespace {

void require(bool condition, const char* what) {
  if (!condition) throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

int bindLoopback() {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(descriptor >= 0, "socket");
  const sockaddr_in address = loopback(0);
  require(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "bind");
  return descriptor;
}

std::uint16_t portOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  require(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "getsockname");
  return ntohs(address.sin_port);
}

std::string originOf(std::uint16_t port) { return "http://127.0.0.1:" + std::to_string(port); }

}  // namespace

RefusingPort::RefusingPort() : descriptor_(bindLoopback()), port_(portOf(descriptor_)) {}

RefusingPort::~RefusingPort() { ::close(descriptor_); }

std::string RefusingPort::origin() const { return originOf(port_); }

BlackHole::BlackHole() : listener_(bindLoopback()), port_(portOf(listener_)) {
  constexpr int kMostFillers = 16;
  constexpr int kSettledMilliseconds = 50;
  require(::listen(listener_, 0) == 0, "listen");
  const sockaddr_in address = loopback(port_);
  // Connections that nobody accepts fill the queue; the first that does not get in proves that it
  // is full.
  for (int i = 0; i < kMostFillers; ++i) {
    const int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    require(filler >= 0, "socket");
    fillers_.push_back(filler);
    (void)::connect(filler, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    pollfd entry{filler, POLLOUT, 0};
    if (::poll(&entry, 1, kSettledMilliseconds) == 0) return;
  }
  throw std::runtime_error("the queue of connections does not fill");
}

BlackHole::~BlackHole() {
  for (const int filler : fillers_) ::close(filler);
  ::close(listener_);
}

std::string BlackHole::origin() const { return originOf(port_); }

}  // namespace kestrune::support
