// The listening sockets, the network threads, and an orderly end.
//
//     Server(...)  start  (stop)?  ~Server
//
// Stopping: no connection is accepted any more, waiting ones are closed, running requests get
// Timeouts::drain to finish, then the rest is reset. What a request has given to a file thread
// (a long sync, say) cannot be interrupted; the destructor waits for it, `stop` does not.
//
// Threads: start and stop from one thread at a time.
// Owns: its threads; the destructor stops and joins them.
// Fails: `start` throws std::runtime_error that names the address.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/values/Mutex.h"
#include "service/Connection.h"
#include "service/Options.h"

namespace kestrune::service {

class Server {
 public:
  /// `handler` outlives this object. Of `options` the address, the threads and the time-outs are
  /// used.
  Server(const Options& options, RequestHandler& handler);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Listens and serves from then on.
  void start();
  /// The port that it listens on.
  /// REQUIRES: started.
  std::uint16_t port() const { return port_; }
  enum class End {
    /// Every request was answered.
    inOrder,
    /// Some connections had to be reset.
    cutOff,
    /// The same, and file work for some of them still runs.
    stillBusy,
  };
  /// Stops within Timeouts::drain and a little. Does nothing the second time.
  End stop();

 private:
  using Acceptor = boost::asio::ip::tcp::acceptor;

  void listen(const boost::asio::ip::address& address);
  boost::asio::awaitable<void> accept(Acceptor* acceptor);
  boost::asio::awaitable<void> serve(std::shared_ptr<Connection> connection);
  std::vector<std::shared_ptr<Connection>> present();
  bool waitUntilEmpty(std::chrono::milliseconds limit);
  End drain();

  const std::string host_;
  const std::uint16_t wantedPort_;
  const unsigned threadCount_;
  const Timeouts timeouts_;
  RequestHandler& handler_;

  boost::asio::io_context context_;
  std::vector<std::unique_ptr<Acceptor>> acceptors_;
  std::uint16_t port_ = 0;
  std::vector<std::thread> threads_;

  platform::Mutex mutex_;
  std::condition_variable emptied_;
  std::unordered_set<std::shared_ptr<Connection>> connections_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
  End end_ = End::inOrder;
};

}  // namespace kestrune::service
