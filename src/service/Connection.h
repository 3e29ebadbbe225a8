// One client's connection: reads requests one after the other, lets the handler answer each, and
// keeps the connection as long as HTTP allows.
//
// States: waiting for a request -> reading its header -> in the handler -> waiting again, or
// closed. Asked to finish, it closes at once while it waits, else after the present answer, which
// then says "Connection: close".
//
// Threads: `run` is spawned on the socket's executor, `finish` and `abort` may be called from any
// thread.
#pragma once

#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <memory>

#include "service/Exchange.h"
#include "service/Options.h"
#include "service/ServiceError.h"
#include "service/Stream.h"

namespace kestrune::service {

/// What answers requests. `handle` is called from many connections at once.
class RequestHandler {
 public:
  virtual ~RequestHandler() = default;
  /// Answers the request. A ServiceError that it throws before it began its answer becomes the
  /// answer.
  virtual boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange) = 0;
  /// Ends the answers that have no end of their own; called when the server begins to stop.
  virtual void endStreams() {}
  /// Called when the last request has been answered: returns when no thread of the handler's own
  /// holds anything of a connection, down to its executor, which ends with the server.
  virtual void settle() {}
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  /// `handler` outlives the connection's `run`.
  Connection(Stream::Socket socket, RequestHandler& handler, const Timeouts& timeouts);

  /// Serves until the connection ends. Never throws.
  static boost::asio::awaitable<void> run(std::shared_ptr<Connection> self);

  /// No further request.
  void finish();
  /// Ends at once, whatever runs.
  void abort();

 private:
  boost::asio::awaitable<void> serve();
  boost::asio::awaitable<bool> serveOne();
  boost::asio::awaitable<bool> waitForRequest();
  boost::asio::awaitable<bool> answer(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> refuseHeader(ServiceError error);

  RequestHandler& handler_;
  const Timeouts timeouts_;
  boost::asio::any_io_executor executor_;
  std::shared_ptr<Stream> stream_;
  boost::beast::flat_buffer buffer_;
  bool waiting_ = false;
  /// The exchange that the handler works on; null between requests.
  std::shared_ptr<Exchange> present_;
  std::atomic<bool> finishing_ = false;
};

}  // namespace kestrune::service
