// The endpoints below "/files": listings, changes of the tree, and the hand-out of pre-signed URLs.
// The bearer token has been checked.
//
// Threads: callable from many connections at once. Fails: ServiceError.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <string>

#include "service/Exchange.h"
#include "service/Parts.h"
#include "service/Router.h"

namespace kestrune::service {

class FilesEndpoints {
 public:
  /// `parts` outlives this object.
  explicit FilesEndpoints(Parts& parts) : parts_(parts) {}

  /// REQUIRES: `endpoint` is one below "/files".
  boost::asio::awaitable<void> handle(Endpoint endpoint, std::shared_ptr<Exchange> exchange);

 private:
  boost::asio::awaitable<void> list(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> presignDownload(std::shared_ptr<Exchange> exchange);

  std::string signedURL(const Exchange& exchange, const StorageGrant& grant) const;

  Parts& parts_;
};

}  // namespace kestrune::service
