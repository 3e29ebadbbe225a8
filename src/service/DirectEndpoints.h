// The endpoints of direct uploads, in one request or in parts: where a client may put contents, and
// their import into the tree. The bearer token has been checked.
//
// A direct upload is an object with a key until it is imported; the path that is named at its
// beginning is only checked for its form, because the tree may look different by the time of the
// import.
//
// Threads: callable from many connections at once.
// Fails: ServiceError.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "service/Exchange.h"
#include "service/Parts.h"
#include "service/Router.h"

namespace kestrune::service {

class DirectEndpoints {
 public:
  static bool answers(Endpoint endpoint);

  /// `parts` outlives this object.
  explicit DirectEndpoints(Parts& parts) : parts_(parts) {}

  /// REQUIRES: answers(endpoint).
  boost::asio::awaitable<void> handle(Endpoint endpoint, std::shared_ptr<Exchange> exchange);

 private:
  boost::asio::awaitable<void> presign(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> init(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> partURL(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> complete(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> abort(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> import(std::shared_ptr<Exchange> exchange);

  Parts& parts_;
};

}  // namespace kestrune::service
