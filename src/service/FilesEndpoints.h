// The endpoints below "/files" that list, change and hand out URLs for what lies in the tree.
// The bearer token has been checked.
//
// Threads: callable from many connections at once.
// Fails: ServiceError.
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

  /// REQUIRES: `endpoint` is one of these.
  boost::asio::awaitable<void> handle(Endpoint endpoint, std::shared_ptr<Exchange> exchange);

 private:
  boost::asio::awaitable<void> list(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> remove(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> makeFolder(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> move(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> notify(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> presignDownload(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> presignUpload(std::shared_ptr<Exchange> exchange);
  boost::asio::awaitable<void> replyPresigned(std::shared_ptr<Exchange> exchange, RemotePath path,
                                              std::string method);

  Parts& parts_;
};

/// The absolute URL that grants `grant` from now on, for the client of `exchange`.
std::string signedURL(const Parts& parts, const Exchange& exchange, const StorageGrant& grant);

}  // namespace kestrune::service
