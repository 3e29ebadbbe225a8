#include "tests/support/HttpFixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "tests/support/FixtureConnection.h"
#include "tests/support/FixtureSocket.h"
#include "tests/support/FixtureState.h"
#include "tests/support/Waiting.h"

namespace kestrune::support {

namespace {

constexpr int kLookEveryMilliseconds = 10;

void require(bool condition, const char* what) {
  if (!condition) throw std::system_error(errno, std::generic_category(), what);
}

SSL_CTX* makeTLS(const HttpFixtureOptions::TLS& options) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE);
  if (SSL_CTX_use_certificate_chain_file(context, options.certificateFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, options.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    SSL_CTX_free(context);
    throw std::runtime_error("the fixture cannot use '" + options.certificateFile.string() + "'");
  }
  return context;
}

void setBuffer(int descriptor, int option, const std::optional<int>& bytes) {
  if (bytes) ::setsockopt(descriptor, SOL_SOCKET, option, &*bytes, sizeof *bytes);
}

int listenOnLoopback(const HttpFixtureOptions& options) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(descriptor >= 0, "socket");
  // Set here, they are in force before a connection's window is agreed on.
  setBuffer(descriptor, SO_SNDBUF, options.sendBufferBytes);
  setBuffer(descriptor, SO_RCVBUF, options.receiveBufferBytes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "bind");
  require(::listen(descriptor, 1024) == 0, "listen");
  return descriptor;
}

std::uint16_t portOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  require(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "getsockname");
  return ntohs(address.sin_port);
}

// A client that closes early must not end the process: neither send() nor TLS may raise the signal.
void blockBrokenPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

class HttpFixture::Server {
 public:
  explicit Server(HttpFixtureOptions options)
      : options_(std::move(options)),
        tls_(options_.tls ? makeTLS(*options_.tls) : nullptr),
        listener_(listenOnLoopback(options_)),
        port_(portOf(listener_)),
        acceptor_([this] { accept(); }) {}

  ~Server() {
    state.stopping = true;
    acceptor_.join();
    for (std::thread& connection : connections_) connection.join();
    ::close(listener_);
    if (tls_ != nullptr) SSL_CTX_free(tls_);
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t port() const { return port_; }
  bool isSecure() const { return tls_ != nullptr; }

  FixtureState state;

 private:
  void accept() {
    blockBrokenPipeSignal();
    pollfd entry{listener_, POLLIN, 0};
    while (!state.stopping) {
      if (::poll(&entry, 1, kLookEveryMilliseconds) <= 0) continue;
      const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) continue;
      const std::size_t number = state.connectionsAccepted++;
      ++state.openConnections;
      connections_.emplace_back([this, descriptor, number] { serve(descriptor, number); });
    }
  }

  void serve(int descriptor, std::size_t number) {
    const int immediately = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &immediately, sizeof immediately);
    {
      FixtureSocket socket(descriptor, tls_, state.stopping);
      if (socket.handshake()) {
        FixtureConnection(socket, state, number, options_.keptBodyBytes).serve();
      } else {
        ++state.failedHandshakes;
      }
    }
    --state.openConnections;
  }

  const HttpFixtureOptions options_;
  SSL_CTX* const tls_;
  const int listener_;
  const std::uint16_t port_;
  // Of the acceptor's thread, and of the destructor once that has ended.
  std::vector<std::thread> connections_;
  std::thread acceptor_;
};

HttpFixture::HttpFixture(HttpFixtureOptions options)
    : server_(std::make_unique<Server>(std::move(options))) {}

HttpFixture::~HttpFixture() = default;

std::uint16_t HttpFixture::port() const { return server_->port(); }

std::string HttpFixture::origin() const {
  return (server_->isSecure() ? "https://127.0.0.1:" : "http://127.0.0.1:") +
         std::to_string(port());
}

void HttpFixture::on(std::string method, std::string path, Answer answer) {
  server_->state.on(std::move(method), std::move(path), std::vector<Answer>{std::move(answer)});
}

void HttpFixture::on(std::string method, std::string path, Handler handler) {
  server_->state.on(std::move(method), std::move(path), std::move(handler));
}

void HttpFixture::on(std::string method, std::string path, std::vector<Answer> answers) {
  server_->state.on(std::move(method), std::move(path), std::move(answers));
}

void HttpFixture::next(std::string method, std::string path, Answer answer) {
  server_->state.next(std::move(method), std::move(path), std::move(answer));
}

void HttpFixture::hold(std::string method, std::string path) {
  server_->state.hold(std::move(method), std::move(path));
}

void HttpFixture::otherwise(Handler handler) { server_->state.otherwise(std::move(handler)); }

HeldRequest HttpFixture::nextHeld(std::chrono::milliseconds deadline) {
  std::shared_ptr<HeldRequest::State> held;
  const bool arrived = waitUntil(
      [&] {
        held = server_->state.takeHeld();
        return held != nullptr;
      },
      deadline);
  if (!arrived) throw std::runtime_error("no held request arrived before the deadline");
  return HeldRequest(std::move(held));
}

std::vector<ReceivedRequest> HttpFixture::requests() const { return server_->state.requests(); }

std::size_t HttpFixture::requestCount() const { return server_->state.requestCount(); }

std::size_t HttpFixture::requestCount(std::string_view method, std::string_view path) const {
  return server_->state.requestCount(method, path);
}

bool HttpFixture::waitForRequests(std::size_t count, std::chrono::milliseconds deadline) const {
  return waitUntil([&] { return requestCount() >= count; }, deadline);
}

ReceivedRequest HttpFixture::request(std::size_t sequence) const {
  auto found = server_->state.request(sequence);
  if (!found) throw std::runtime_error("there is no request number " + std::to_string(sequence));
  return std::move(*found);
}

ReceivedRequest HttpFixture::onlyRequest() const {
  if (requestCount() != 1)
    throw std::runtime_error("not one request but " + std::to_string(requestCount()));
  return request(0);
}

AnswerOutcome HttpFixture::waitForOutcome(std::size_t sequence,
                                          std::chrono::milliseconds deadline) const {
  auto outcome = AnswerOutcome::underway;
  (void)waitUntil(
      [&] {
        outcome = server_->state.outcome(sequence).value_or(AnswerOutcome::underway);
        return outcome != AnswerOutcome::underway;
      },
      deadline);
  return outcome;
}

std::size_t HttpFixture::connectionsAccepted() const { return server_->state.connectionsAccepted; }

std::size_t HttpFixture::openConnections() const { return server_->state.openConnections; }

std::size_t HttpFixture::idleConnections() const { return server_->state.idleConnections; }

std::size_t HttpFixture::failedHandshakes() const { return server_->state.failedHandshakes; }

std::size_t HttpFixture::maxConcurrentRequests() const {
  return server_->state.maxConcurrentRequests();
}

void HttpFixture::closeIdleConnections() { server_->state.raiseIdleFlag(); }

}  // namespace kestrune::support
