// The JSON bodies of requests, read strictly: an object of at most 1 MiB whose named members have
// exactly the stated types. Other members are ignored.
//
// Threads: values; const operations.
// Fails: ServiceError 400 that names the member.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/values/Json.h"
#include "service/Exchange.h"
#include "service/RemotePath.h"

namespace kestrune::service {

class RequestBody {
 public:
  /// ServiceError 413 for a longer body.
  static boost::asio::awaitable<RequestBody> read(std::shared_ptr<Exchange> exchange);
  /// The same for a text that is there already.
  static RequestBody parse(const std::string& text);

  /// The same for a value inside another body.
  static RequestBody of(const platform::Json& value);

  std::string text(const char* member) const;
  RemotePath path(const char* member) const;
  std::int64_t integer(const char* member) const;
  /// A text of decimal digits, and nothing else, that fits 63 bits.
  std::uint64_t decimal(const char* member) const;
  const platform::Json& array(const char* member) const;

 private:
  explicit RequestBody(platform::Json value) : value_(std::move(value)) {}
  platform::Json value_;
};

}  // namespace kestrune::service
