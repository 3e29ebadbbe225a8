// One connection of a client that speaks HTTP by hand, so that tests can be slow, rude or cut off.
//
// Reading has a deadline of 20 seconds; what has not come by then fails the test with an exception.
//
// Threads: one.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/values/Json.h"
#include "service/FileDescriptor.h"

namespace kestrune::service {

/// The service has ended the connection, in order or with a reset.
class ConnectionEnded : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Answer {
  unsigned status = 0;
  /// By lower-case name.
  std::map<std::string, std::string> fields;
  std::string body;
  bool keepAlive = false;

  std::string field(const std::string& name) const;
  /// Throws if the body is no JSON.
  platform::Json json() const { return platform::Json::parse(body); }
};

class Client {
 public:
  using Fields = std::vector<std::pair<std::string, std::string>>;

  explicit Client(std::uint16_t port);

  /// Sends a request and reads its answer. A body is sent with its length.
  Answer call(const std::string& method, const std::string& target, const Fields& fields = {},
              std::optional<std::string_view> body = std::nullopt);

  void send(std::string_view bytes) const;
  /// Sends without waiting for room; returns how much the connection took.
  std::size_t sendWhatFits(std::string_view bytes) const;
  /// The next answer. Throws ConnectionEnded if the connection ends first, or within it.
  Answer readAnswer(bool bodyExpected = true);
  /// Reads up to and with `end`, and returns all of it.
  std::string readUntil(std::string_view end);
  /// Whether the service closes the connection without another byte.
  bool closedByPeer();
  /// Ends the connection in order, as one does who has sent all.
  void close();
  /// Resets the connection.
  void reset();

 private:
  /// False at the end of the stream.
  bool readMore();

  FileDescriptor socket_;
  std::string unread_;
};

}  // namespace kestrune::service
