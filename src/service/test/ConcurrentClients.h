// Clients of one service who send their requests in one moment.
//
// Threads: `send` and `statusOf` from any.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/values/Json.h"
#include "service/test/RunningService.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {

struct Request {
  std::string method;
  std::string target;
  std::string body;
};

inline Request post(const std::string& endpoint, const platform::Json& body) {
  return {"POST", "/files/" + endpoint, body.dump()};
}
inline Request move(const std::string& source, const std::string& destination) {
  return post("move", {{"src", source}, {"dst", destination}});
}
inline Request import(const std::string& key, const std::string& path) {
  return post("direct-import", {{"key", key}, {"path", path}});
}
inline Request makeFolder(const std::string& path) { return post("mkdir", {{"path", path}}); }
inline Request removal(const std::string& path) { return {"DELETE", "/files?path=" + path, ""}; }

class ConcurrentClients : public ::testing::Test {
 protected:
  Answer send(Client& client, const Request& request) const {
    return client.call(request.method, request.target,
                       {{"Authorization", std::string("Bearer ") + RunningService::kToken}},
                       request.body);
  }
  unsigned statusOf(const Request& request) const {
    Client client(service.port());
    return send(client, request).status;
  }

  /// Sends all of them in one moment, each on a connection of its own. The answers come in the
  /// order of the requests.
  std::vector<Answer> atOnce(const std::vector<Request>& requests) const {
    std::vector<Answer> answers(requests.size());
    std::latch start(static_cast<std::ptrdiff_t>(requests.size()));
    std::vector<std::thread> clients;
    for (std::size_t i = 0; i < requests.size(); ++i) {
      clients.emplace_back([&, i] {
        Client client(service.port());
        start.arrive_and_wait();
        answers[i] = send(client, requests[i]);
      });
    }
    for (std::thread& client : clients) client.join();
    return answers;
  }

  void expectNothingStaged() const {
    EXPECT_TRUE(support::waitUntil([&] { return service.stagedCount() == 0; }));
  }

  const RunningService service{[](Options& options) { options.threads = 4; }};
};

}  // namespace kestrune::service
