// The storage behind pre-signed URLs: downloads from the tree and uploads.
//
// Threads: callable from many connections at once. Fails: ServiceError.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "service/Exchange.h"
#include "service/Parts.h"

namespace kestrune::service {

class StorageEndpoint {
 public:
  /// `parts` outlives this object.
  explicit StorageEndpoint(Parts& parts) : parts_(parts) {}

  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange);

 private:
  boost::asio::awaitable<void> download(std::shared_ptr<Exchange> exchange, RemotePath path);

  Parts& parts_;
};

/// The entity tag of a file's present contents, in quotes: it changes with inode, size or time of
/// modification.
std::string entityTagOf(const ItemAttributes& attributes);

}  // namespace kestrune::service
