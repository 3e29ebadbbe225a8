// Connections, limits and the orderly end.
#include "service/Server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

#include "service/test/RunningService.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

const std::string kList = std::string("GET /files?path=%2F HTTP/1.1\r\nAuthorization: Bearer ") +
                          RunningService::kToken + "\r\n\r\n";

TEST(Server, OneConnectionServesManyRequestsAlsoWhenSentAtOnce) {
  const RunningService service;
  Client client(service.port());
  client.send(kList + kList + "GET /x HTTP/1.1\r\n\r\n" + kList);
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_EQ(client.readAnswer().status, 404U);
  EXPECT_EQ(client.readAnswer().status, 200U);
}

TEST(Server, ARequestMayComeByteByByte) {
  const RunningService service;
  Client client(service.port());
  for (const char c : kList) client.send(std::string_view(&c, 1));
  EXPECT_EQ(client.readAnswer().status, 200U);
}

TEST(Server, ClosesWhenAsked) {
  const RunningService service;
  Client client(service.port());
  const Answer answer = client.call("GET", "/x", {{"Connection", "close"}});
  EXPECT_FALSE(answer.keepAlive);
  EXPECT_TRUE(client.closedByPeer());
}

TEST(Server, MalformedRequestsAreToldSo) {
  const RunningService service;
  for (const char* text :
       {"nonsense\r\n\r\n", "GET / HTTP/9.9\r\n\r\n", "GET / HTTP/1.1\r\nno colon\r\n\r\n",
        "PUT / HTTP/1.1\r\nContent-Length: x\r\n\r\n",
        "PUT / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
        "PUT / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n"}) {
    Client client(service.port());
    client.send(text);
    EXPECT_EQ(client.readAnswer().status, 400U) << text;
    EXPECT_TRUE(client.closedByPeer());
  }
}

TEST(Server, HeadersHaveABound) {
  const RunningService service;
  Client large(service.port());
  large.send("GET / HTTP/1.1\r\nX: " + std::string(100'000, 'x') + "\r\n\r\n");
  EXPECT_EQ(large.readAnswer().status, 431U);
  Client many(service.port());
  std::string fields;
  for (int i = 0; i < 10'000; ++i) fields += "X: y\r\n";
  many.send("GET / HTTP/1.1\r\n" + fields + "\r\n");
  EXPECT_EQ(many.readAnswer().status, 431U);
}

TEST(Server, TheLongestPathFitsTheHeader) {
  const RunningService service;
  std::string path;
  while (path.size() < 3 * 4000) path += "%2F%C3%A4";
  EXPECT_EQ(service.list(path).status, 404U);
}

TEST(Server, ASlowHeaderIsCutOffAndToldSo) {
  const RunningService service(
      [](Options& options) { options.timeouts.header = milliseconds(200); });
  Client client(service.port());
  client.send("GET / HTTP/1.1\r\nX: ");
  // Bytes that keep coming do not help: the limit is for the header as a whole.
  std::atomic<bool> done = false;
  std::thread drip([&] {
    while (!done) {
      client.sendWhatFits("x");
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  const Answer answer = client.readAnswer();
  done = true;
  drip.join();
  EXPECT_EQ(answer.status, 408U);
}

TEST(Server, AnIdleConnectionIsClosed) {
  const RunningService service(
      [](Options& options) { options.timeouts.keepAlive = milliseconds(100); });
  Client client(service.port());
  client.send(kList);
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_TRUE(client.closedByPeer());
}

TEST(Server, AClientThatTakesNothingIsCutOff) {
  const RunningService service([](Options& options) { options.timeouts.body = milliseconds(200); });
  service.write("large.bin", std::string(64U << 20U, 'x'));
  Client client(service.port());
  client.send("GET " + service.presigned("presign-download", {{"path", "/large.bin"}}) +
              " HTTP/1.1\r\n\r\n");
  // The end of the connection shows in a read, after what was in the buffers.
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_THROW(client.readUntil("never"), ConnectionEnded);
}

TEST(Server, StoppingClosesWhatWaitsAndRefusesWhatComes) {
  RunningService service;
  Client waiting(service.port());
  waiting.send(kList);
  EXPECT_EQ(waiting.readAnswer().status, 200U);
  EXPECT_EQ(service.server().stop(), Server::End::inOrder);
  EXPECT_TRUE(waiting.closedByPeer());
  EXPECT_THROW(Client(service.port()), std::runtime_error);
}

TEST(Server, StoppingLetsARunningRequestFinish) {
  RunningService service;
  const std::string target = service.presigned("presign-upload", {{"path", "/up.bin"}});
  Client client(service.port());
  client.send("PUT " + target + " HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" +
              std::string(2'000'000, 'x'));
  ASSERT_TRUE(support::waitUntil([&] { return service.stagedCount() == 1; }));
  auto stopped = std::async(std::launch::async, [&] { return service.server().stop(); });
  EXPECT_EQ(stopped.wait_for(milliseconds(100)), std::future_status::timeout);
  client.send(std::string(1'000'000, 'x'));
  const Answer answer = client.readAnswer();
  EXPECT_EQ(answer.status, 200U);
  EXPECT_FALSE(answer.keepAlive);
  EXPECT_EQ(stopped.get(), Server::End::inOrder);
  EXPECT_EQ(service.contents("up.bin").size(), 3'000'000U);
}

TEST(Server, StoppingDoesNotWaitForeverForASlowRequest) {
  RunningService service([](Options& options) { options.timeouts.drain = milliseconds(200); });
  const std::string target = service.presigned("presign-upload", {{"path", "/up.bin"}});
  Client client(service.port());
  client.send("PUT " + target + " HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" +
              std::string(2'000'000, 'x'));
  ASSERT_TRUE(support::waitUntil([&] { return service.stagedCount() == 1; }));
  EXPECT_EQ(service.server().stop(), Server::End::cutOff);
  EXPECT_EQ(service.stagedCount(), 0U);
  EXPECT_FALSE(std::filesystem::exists(service.inTree("up.bin")));
}

TEST(Server, StoppingTwiceIsFine) {
  RunningService service;
  EXPECT_EQ(service.server().stop(), Server::End::inOrder);
  EXPECT_EQ(service.server().stop(), Server::End::inOrder);
}

TEST(Server, APortInUseIsNamed) {
  const RunningService service;
  try {
    const RunningService second([&](Options& options) { options.listenPort = service.port(); });
    FAIL() << "the port was given twice";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("port " + std::to_string(service.port())));
  }
}

TEST(Server, ListensOnLocalhostAndIPv6) {
  const RunningService both([](Options& options) { options.listenHost = "localhost"; });
  EXPECT_EQ(both.list("%2F").status, 200U);
  EXPECT_THROW(RunningService([](Options& options) { options.listenHost = "example.org"; }),
               std::runtime_error);
}

TEST(Server, NeitherTokenNorURLIsLogged) {
  const support::CapturingLogSink log;
  const RunningService service;
  service.write("a.txt", "hello");
  const std::string target = service.presigned("presign-download", {{"path", "/a.txt"}});
  const std::string signature = target.substr(target.find("signature=") + 10);
  service.storage("GET", target);
  service.storage("GET", target + "0");
  service.list("%2Fmissing");
  service.write("b\nd", "");
  service.list("%2F");
  ASSERT_TRUE(log.waitForRecords(1));
  EXPECT_FALSE(log.contains(RunningService::kToken));
  EXPECT_FALSE(log.contains(signature));
}

/// Works on a file thread until the test lets it end.
class BusyHandler : public RequestHandler {
 public:
  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange) override {
    co_await fileThreads.run([this] {
      begun.set_value();
      mayEnd.get_future().wait();
    });
    co_await exchange->reply({.status = 200, .contentType = "", .body = "", .fields = {}});
  }
  void settle() override { fileThreads.join(); }

  std::promise<void> begun;
  std::promise<void> mayEnd;
  FileThreads fileThreads{1};
};

TEST(BusyServer, StoppingDoesNotWaitForFileWorkButTheEndDoes) {
  BusyHandler handler;
  Options options;
  options.timeouts.drain = milliseconds(100);
  std::optional<Server> server;
  server.emplace(options, handler);
  server->start();
  Client client(server->port());
  client.send("GET / HTTP/1.1\r\n\r\n");
  handler.begun.get_future().wait();
  EXPECT_EQ(server->stop(), Server::End::stillBusy);
  auto ended = std::async(std::launch::async, [&] { server.reset(); });
  EXPECT_EQ(ended.wait_for(milliseconds(100)), std::future_status::timeout);
  handler.mayEnd.set_value();
  ended.get();
  EXPECT_THROW(client.readAnswer(), ConnectionEnded);
}

/// Answers with what the test wants to see handled.
class FailingHandler : public RequestHandler {
 public:
  boost::asio::awaitable<void> handle(std::shared_ptr<Exchange> exchange) override {
    if (exchange->target() == "/odd") throw std::logic_error("odd thing");
    if (exchange->target() == "/internal") throw ServiceError::internal(EIO, "read");
    co_await exchange->beginStream(
        {.status = 200, .contentType = "text/plain", .body = "", .fields = {}});
    co_await exchange->writePiece("some text");
    throw ServiceError(500, "too late");
  }
};

class FailingServer : public ::testing::Test {
 protected:
  FailingServer() { server.start(); }
  support::CapturingLogSink log;
  FailingHandler handler;
  Server server{Options{}, handler};
};

TEST_F(FailingServer, UnexpectedFailuresAreLoggedAndHiddenFromTheClient) {
  for (const char* target : {"/odd", "/internal"}) {
    Client client(server.port());
    const Answer answer = client.call("GET", target);
    EXPECT_EQ(answer.status, 500U);
    EXPECT_EQ(answer.body, "internal error");
  }
  EXPECT_TRUE(log.contains("odd thing"));
  EXPECT_TRUE(log.contains("read: "));
}

TEST_F(FailingServer, AnAnswerThatCannotBeFinishedIsCutOff) {
  Client client(server.port());
  client.send("GET /late HTTP/1.1\r\n\r\n");
  // Neither an end that looks right nor a second answer.
  EXPECT_THROW(client.readUntil("too late"), ConnectionEnded);
}

}  // namespace
}  // namespace kestrune::service
