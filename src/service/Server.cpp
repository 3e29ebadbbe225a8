#include "service/Server.h"

#include <signal.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <stdexcept>
#include <utility>

#include "service/ServiceLog.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

/// More connections than this wait in the kernel's queue until others end. Each may hold two pieces
/// of an upload, 2 MiB.
constexpr std::size_t kMaxConnections = 1024;
constexpr auto kPauseWhenFull = std::chrono::milliseconds(20);

std::vector<asio::ip::address> addressesOf(const std::string& host) {
  if (host == "localhost")
    return {asio::ip::address_v4::loopback(), asio::ip::address_v6::loopback()};
  error_code error;
  const auto address = asio::ip::make_address(host, error);
  if (error) throw std::runtime_error("'" + host + "' is no numeric address and not localhost");
  return {address};
}

/// sendfile has no flag against the signal of a client that has gone; blocked, it is an error code
/// as everywhere else.
void blockPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

Server::Server(const Options& options, RequestHandler& handler)
    : host_(options.listenHost),
      wantedPort_(options.listenPort),
      threadCount_(options.threads != 0 ? options.threads
                                        : std::max(1U, std::thread::hardware_concurrency())),
      timeouts_(options.timeouts),
      handler_(handler),
      context_(static_cast<int>(threadCount_)) {}

Server::~Server() {
  stop();
  for (auto& thread : threads_) thread.join();
  handler_.settle();
}

void Server::listen(const asio::ip::address& address) {
  // Of "localhost", the second address takes the port that the first one got.
  const tcp::endpoint endpoint(address, port_ != 0 ? port_ : wantedPort_);
  auto acceptor = std::make_unique<Acceptor>(asio::make_strand(context_));
  acceptor->open(endpoint.protocol());
  acceptor->set_option(tcp::acceptor::reuse_address(true));
  acceptor->bind(endpoint);
  acceptor->listen();
  port_ = acceptor->local_endpoint().port();
  acceptors_.push_back(std::move(acceptor));
}

void Server::start() {
  for (const auto& address : addressesOf(host_)) {
    try {
      listen(address);
    } catch (const boost::system::system_error& error) {
      // A machine without IPv6 still has the other half of localhost.
      const bool optional =
          host_ == "localhost" && address.is_v6() && error.code() != asio::error::address_in_use;
      if (!optional) {
        throw std::runtime_error("cannot listen on " + host_ + " port " +
                                 std::to_string(wantedPort_) + ": " + error.code().message());
      }
    }
  }
  for (const auto& acceptor : acceptors_) {
    asio::co_spawn(acceptor->get_executor(), accept(acceptor.get()), asio::detached);
  }
  for (unsigned i = 0; i < threadCount_; ++i) {
    threads_.emplace_back([this] {
      blockPipeSignal();
      context_.run();
    });
  }
}

asio::awaitable<void> Server::accept(Acceptor* acceptor) {
  asio::steady_timer pause(acceptor->get_executor());
  for (;;) {
    error_code error;
    tcp::socket socket = co_await acceptor->async_accept(
        asio::make_strand(context_), asio::redirect_error(asio::use_awaitable, error));
    if (!acceptor->is_open()) co_return;
    bool full = false;
    if (!error) {
      const auto executor = socket.get_executor();
      auto connection = std::make_shared<Connection>(std::move(socket), handler_, timeouts_);
      {
        const platform::MutexLock lock(mutex_);
        if (stopping_) co_return;
        connections_.insert(connection);
        full = connections_.size() >= kMaxConnections;
      }
      asio::co_spawn(executor, serve(std::move(connection)), asio::detached);
    } else {
      serviceLog().write(platform::LogLevel::error, "accept: %{public}s", error.message());
      full = true;  // Most often no descriptor is left; others will be freed.
    }
    while (full) {
      pause.expires_after(kPauseWhenFull);
      co_await pause.async_wait(asio::use_awaitable);
      const platform::MutexLock lock(mutex_);
      if (stopping_) co_return;
      full = connections_.size() >= kMaxConnections;
    }
  }
}

asio::awaitable<void> Server::serve(std::shared_ptr<Connection> connection) {
  co_await Connection::run(connection);
  const platform::MutexLock lock(mutex_);
  connections_.erase(connection);
  if (connections_.empty()) emptied_.notify_all();
}

std::vector<std::shared_ptr<Connection>> Server::present() {
  const platform::MutexLock lock(mutex_);
  return {connections_.begin(), connections_.end()};
}

bool Server::waitUntilEmpty(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  platform::MutexLock lock(mutex_);
  while (!connections_.empty()) {
    if (!lock.waitUntil(emptied_, deadline) && !connections_.empty()) return false;
  }
  return true;
}

Server::End Server::drain() {
  // A reset shows to a request at its next read or write.
  constexpr auto kUntilResetsShow = std::chrono::seconds(1);
  if (waitUntilEmpty(timeouts_.drain)) return End::inOrder;
  for (const auto& connection : present()) connection->abort();
  return waitUntilEmpty(kUntilResetsShow) ? End::cutOff : End::stillBusy;
}

Server::End Server::stop() {
  {
    const platform::MutexLock lock(mutex_);
    if (std::exchange(stopping_, true)) return end_;
  }
  for (const auto& acceptor : acceptors_) {
    asio::post(acceptor->get_executor(), [raw = acceptor.get()] {
      error_code ignored;
      raw->close(ignored);
    });
  }
  handler_.endStreams();
  for (const auto& connection : present()) connection->finish();
  end_ = drain();
  return end_;
}

}  // namespace kestrune::service
