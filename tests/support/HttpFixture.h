// A scripted HTTP/1.1 server inside the test process, on 127.0.0.1 and a free port: it records what
// arrives, byte for byte, and answers what the test says, faults included (Answer.h).
//
//     HttpFixture fixture;
//     fixture.on("GET", "/files", Answer(200, "[]"));
//     fixture.next("GET", "/files", Answer(503));            // once, before the standing answer
//     fixture.hold("PUT", "/part");                          // pending until answered by hand
//     …
//     ASSERT_TRUE(fixture.waitForRequests(2));
//     EXPECT_EQ(fixture.request(0).target, "/files?limit=5");
//
// Routes are looked up by method and by the target up to its query, both compared byte by byte. In
// this order: an answer queued with `next`; `hold`; what `on` set; what `otherwise` set; else 404.
//
// Threads: every operation may be called from any thread. Each connection is served by a thread of
// its own; handlers run there, so they may block.
// Owns: all its threads; the destructor ends them, whatever they wait for, and closes all
// connections.
// Fails: the constructor throws std::system_error if it cannot listen. A test that asks for a
// request which is not there gets std::runtime_error.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Answer.h"
#include "tests/support/ReceivedRequest.h"

namespace kestrune::support {

struct HttpFixtureOptions {
  /// Serve TLS with this certificate chain and key (PEM files).
  struct TLS {
    std::filesystem::path certificateFile;
    std::filesystem::path keyFile;
  };
  std::optional<TLS> tls;
  /// How much of a request's body is kept for looking at; the rest is counted and hashed.
  std::size_t keptBodyBytes = 1U << 20U;
  /// Sizes of the sockets' buffers; none leaves them to the kernel, which lets them grow to many
  /// megabytes.
  std::optional<int> sendBufferBytes;
  std::optional<int> receiveBufferBytes;
};

/// A request that waits for the test's answer. Copies are the same request.
class HeldRequest {
 public:
  struct State;
  explicit HeldRequest(std::shared_ptr<State> state) : state_(std::move(state)) {}

  const ReceivedRequest& request() const;
  /// REQUIRES: called once.
  void answer(Answer answer) const;

 private:
  std::shared_ptr<State> state_;
};

class HttpFixture {
 public:
  using Handler = std::function<Answer(const ReceivedRequest&)>;
  static constexpr std::chrono::seconds kDeadline{10};

  explicit HttpFixture(HttpFixtureOptions options = {});
  ~HttpFixture();
  HttpFixture(const HttpFixture&) = delete;
  HttpFixture& operator=(const HttpFixture&) = delete;

  std::uint16_t port() const;
  /// "http://127.0.0.1:port", or https.
  std::string origin() const;
  /// The origin with `target` behind it, as it is.
  std::string url(std::string_view target) const { return origin().append(target); }

  // What is answered
  void on(std::string method, std::string path, Answer answer);
  /// The handler gets the whole request.
  void on(std::string method, std::string path, Handler handler);
  /// One after the other, the last one for ever.
  void on(std::string method, std::string path, std::vector<Answer> answers);
  /// Once, in the order of the calls, before what `on` and `hold` say.
  void next(std::string method, std::string path, Answer answer);
  void hold(std::string method, std::string path);
  /// For every request without a route.
  void otherwise(Handler handler);

  /// The held request that arrived first and has not been given out. Throws std::runtime_error
  /// after `deadline`.
  HeldRequest nextHeld(std::chrono::milliseconds deadline = kDeadline);

  // What has happened
  std::vector<ReceivedRequest> requests() const;
  /// How many requests' heads have arrived, on all routes or on one.
  std::size_t requestCount() const;
  std::size_t requestCount(std::string_view method, std::string_view path) const;
  /// Waits until that many heads have arrived; false when `deadline` passed first.
  [[nodiscard]] bool waitForRequests(std::size_t count,
                                     std::chrono::milliseconds deadline = kDeadline) const;
  /// A copy of the request with this sequence number, as it is now.
  ReceivedRequest request(std::size_t sequence) const;
  /// The one request there is: a test that expects one says so.
  ReceivedRequest onlyRequest() const;
  /// Waits until the answer to a request is no longer underway, and returns how it ended;
  /// `underway` after `deadline`.
  [[nodiscard]] AnswerOutcome waitForOutcome(std::size_t sequence,
                                             std::chrono::milliseconds deadline = kDeadline) const;

  std::size_t connectionsAccepted() const;
  /// Accepted and not yet closed by both sides.
  std::size_t openConnections() const;
  /// Those that wait for a request.
  std::size_t idleConnections() const;
  /// TLS connections whose client turned away before its first request.
  std::size_t failedHandshakes() const;
  /// The most requests that were underway at one time.
  std::size_t maxConcurrentRequests() const;

  // What else happens to connections
  /// Closes every connection that waits for its next request, as servers do with idle ones.
  void closeIdleConnections();

 private:
  class Server;
  std::unique_ptr<Server> server_;
};

}  // namespace kestrune::support
