// The storage behind pre-signed URLs: downloads from the tree and uploads.
//
// Threads: callable from many connections at once.
// Fails: ServiceError.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <string>
#include <utility>

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
  boost::asio::awaitable<void> uploadFile(std::shared_ptr<Exchange> exchange, RemotePath path);
  boost::asio::awaitable<void> uploadObject(std::shared_ptr<Exchange> exchange, std::string key);
  boost::asio::awaitable<void> uploadPart(std::shared_ptr<Exchange> exchange, std::string key);

  Parts& parts_;
};

/// The key of a part's URL, and back: the upload's id and the number. Throws ServiceError 404 for
/// another text.
std::string partKey(const std::string& uploadId, std::int64_t number);
std::pair<std::string, int> parsePartKey(const std::string& key);

}  // namespace kestrune::service
