// "GET /events": server-sent events that say that something has changed, and nothing else.
//
//     : hello
//     event: change
//     data: {}
//     : keep-alive
//
// Threads: callable from many connections at once.
// Fails: ServiceError 503 when too many listen.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "service/Exchange.h"
#include "service/Parts.h"

namespace kestrune::service {

class EventsEndpoint {
 public:
  /// `parts` outlives this object.
  explicit EventsEndpoint(Parts& parts) : parts_(parts) {}

  /// Ends when the client goes or the service stops.
  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange);

 private:
  Parts& parts_;
};

}  // namespace kestrune::service
