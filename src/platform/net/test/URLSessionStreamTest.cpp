// Answers that are read as they arrive.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/net/test/SessionTesting.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::AnswerOutcome;
using support::Gate;
using support::HttpFixture;
using support::runTask;
using support::startTask;
using namespace std::chrono_literals;

TEST(URLSessionStream, GivesTheAnswerAndThenItsBytes) {
  constexpr std::size_t kSize = 10'000'001;
  const Answer plain = Answer::pattern(kSize).with("Content-Range", "bytes 0-1/2");
  for (const Answer& answer : {plain, plain.chunked(), plain.withoutLength()}) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    URLSession session({});
    const auto stream = openStream(session, requestTo(fixture.url("/")));
    EXPECT_EQ(stream->response().statusCode, 200);
    EXPECT_EQ(stream->response().valueForHTTPHeaderField("content-range"), "bytes 0-1/2");
    EXPECT_TRUE(runTask(readAll(stream)) == support::patternBytes(0, kSize));
    EXPECT_EQ(runTask(stream->next()), std::nullopt);
  }
}

TEST(URLSessionStream, PiecesAreNeverEmpty) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer(200, "0123456789").chunked().pieces(1, 1ms));
  URLSession session({});
  const auto stream = openStream(session, requestTo(fixture.url("/")));
  std::string all;
  while (auto piece = runTask(stream->next())) {
    EXPECT_NE(*piece, "");
    all += *piece;
  }
  EXPECT_EQ(all, "0123456789");
}

TEST(URLSessionStream, PiecesLieInTheMemoryThatWasGiven) {
  constexpr std::uint64_t kSize = 5'000'000;
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(kSize));
  URLSession session({});
  const auto stream = openStream(session, requestTo(fixture.url("/")));
  std::vector<char> memory(3 * URLByteStream::kRoomBytes);
  std::string all;
  for (std::size_t i = 0;; ++i) {
    // One is being filled, one is given, one is read.
    const auto place =
        std::span(memory).subspan(i % 3 * URLByteStream::kRoomBytes, URLByteStream::kRoomBytes);
    const auto piece = runTask(stream->next({place, [] {}}));
    if (!piece) break;
    const bool isInPlace = memory.data() <= piece->bytes().data() &&
                           piece->bytes().data() < memory.data() + memory.size();
    // What came before the first call, and while the first piece was read, had no memory yet.
    EXPECT_TRUE(isInPlace || i <= 1) << i;
    all += *piece;
  }
  EXPECT_TRUE(all == support::patternBytes(0, kSize));
}

TEST(URLSessionStream, BytesAreGivenOutAsSoonAsTheyAreThere) {
  HttpFixture fixture;
  const Gate gate;
  fixture.on("GET", "/", Answer(200, "abc").steppedBy(gate));
  URLSession session({});
  auto opening = startTask(session.bytes(requestTo(fixture.url("/"))));
  gate.release();
  const auto stream = std::make_shared<URLByteStream>(opening.value());
  EXPECT_EQ(runTask(stream->next()), "a");
  auto reading = startTask(stream->next());
  EXPECT_TRUE(support::staysTrue([&] { return !reading.isDone(); }, 30ms));
  gate.release();
  EXPECT_EQ(reading.value(), "b");
  gate.open();
  EXPECT_EQ(runTask(readAll(stream)), "c");
}

TEST(URLSessionStream, AnEmptyBodyEndsAtOnce) {
  for (const Answer& answer :
       {Answer(200), Answer(204), Answer(416).chunked(), Answer(200).withoutLength()}) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    URLSession session({});
    const auto stream = openStream(session, requestTo(fixture.url("/")));
    EXPECT_EQ(stream->response().statusCode, answer.plan().status);
    EXPECT_EQ(runTask(stream->next()), std::nullopt);
  }
}

TEST(URLSessionStream, AllBytesBeforeAFailureAreReadFirst) {
  constexpr std::size_t kBefore = 700'000;
  const Answer answer = Answer::pattern(2'000'000);
  const std::pair<Answer, URLError::Code> cases[] = {
      {answer.closingAt(kBefore), URLError::networkConnectionLost},
      {answer.chunked().closingAt(kBefore), URLError::networkConnectionLost},
      {answer.stallingAt(kBefore), URLError::timedOut}};
  for (const auto& [faulty, code] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", faulty);
    URLSession session(withIdleTimeout(300ms));
    const auto stream = openStream(session, secretRequest(fixture.url("/")));
    // The failure is there before the first byte is read.
    ASSERT_NE(fixture.waitForOutcome(0), AnswerOutcome::underway);
    std::string received;
    while (received.size() < kBefore) {
      const auto piece = runTask(stream->next());
      ASSERT_TRUE(piece.has_value());
      received += *piece;
    }
    EXPECT_TRUE(received == support::patternBytes(0, kBefore));
    EXPECT_EQ(codeOf(stream->next()), code);
    EXPECT_EQ(codeOf(stream->next()), code);
  }
}

// What lies in the kernel between the two ends of `port`'s connections: sent and not acknowledged,
// received and not read.
std::uint64_t bytesInKernel(std::uint16_t port) {
  std::ifstream table("/proc/net/tcp");
  std::string line;
  std::getline(table, line);
  std::uint64_t total = 0;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string number, local, remote, state, queues;
    fields >> number >> local >> remote >> state >> queues;
    const auto portOf = [](const std::string& address) {
      return std::stoul(address.substr(address.find(':') + 1), nullptr, 16);
    };
    constexpr const char* kListening = "0A";
    if (state == kListening || (portOf(local) != port && portOf(remote) != port)) continue;
    total += std::stoull(queues.substr(0, 8), nullptr, 16) +
             std::stoull(queues.substr(9, 8), nullptr, 16);
  }
  return total;
}

TEST(URLSessionStream, ASlowReaderStopsTheNetwork) {
  constexpr std::uint64_t kSize = 256U << 20U;
  constexpr std::uint64_t kBuffered = 1U << 20U;
  HttpFixture fixture({.tls = {}, .sendBufferBytes = 256 << 10, .receiveBufferBytes = {}});
  fixture.on("GET", "/", Answer::pattern(kSize));
  URLSession session({});
  const auto stream = openStream(session, requestTo(fixture.url("/")));
  const auto sent = [&] { return fixture.request(0).answerBytesSent; };
  const auto standsStill = [&] {
    const std::uint64_t before = sent();
    return before > 0 && support::staysTrue([&] { return sent() == before; }, 150ms);
  };
  ASSERT_TRUE(support::waitUntil(standsStill));
  EXPECT_LT(sent(), kSize / 2);
  // What the server has sent and the kernel no longer holds is in this process: the stream's buffer,
  // which may pass its mark by the piece that reached it, and libcurl's receive buffer.
  constexpr std::uint64_t kPiece = 16U << 10U;
  constexpr std::uint64_t kReceiveBuffer = 512U << 10U;
  EXPECT_LE(sent() - bytesInKernel(fixture.port()), kBuffered + kPiece + kReceiveBuffer);
  EXPECT_GT(sent() - bytesInKernel(fixture.port()), kBuffered / 4);

  // Reading lets as much more through, and no more.
  const std::uint64_t before = sent();
  std::uint64_t taken = 0;
  while (taken < 64U << 20U) taken += runTask(stream->next())->size();
  ASSERT_TRUE(support::waitUntil(standsStill));
  EXPECT_GT(sent(), before);
  EXPECT_LE(sent() - bytesInKernel(fixture.port()) - taken, kBuffered + kPiece + kReceiveBuffer);
}

TEST(URLSessionStream, AReaderThatWaitsDoesNotHoldUpOthers) {
  HttpFixture fixture;
  fixture.on("GET", "/endless", Answer::endless());
  fixture.on("GET", "/", Answer(200, "x"));
  URLSession session({});
  const auto first = openStream(session, requestTo(fixture.url("/endless")));
  const auto second = openStream(session, requestTo(fixture.url("/endless")));
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(runTask(session.data(requestTo(fixture.url("/")))).data, "x");
  std::string bytes;
  while (bytes.size() < 3U << 20U) bytes += *runTask(second->next());
  EXPECT_TRUE(bytes == support::patternBytes(0, bytes.size()));
}

TEST(URLSessionStream, DroppingItClosesTheConnection) {
  HttpFixture fixture;
  fixture.on("GET", "/endless", Answer::endless());
  fixture.on("GET", "/stalled", Answer::pattern(1000).stallingAt(1));
  URLSession session({});
  for (const char* target : {"/endless", "/stalled"}) {
    auto stream = openStream(session, requestTo(fixture.url(target)));
    EXPECT_EQ(fixture.openConnections(), 1U);
    stream.reset();
    EXPECT_TRUE(support::waitUntil([&] { return fixture.openConnections() == 0; })) << target;
  }
  EXPECT_EQ(fixture.waitForOutcome(0), AnswerOutcome::abandoned);
}

TEST(URLSessionStream, TheConnectionOfAStreamReadToItsEndIsReused) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(100'000));
  URLSession session({});
  for (int i = 0; i < 3; ++i) runTask(readAll(openStream(session, requestTo(fixture.url("/")))));
  EXPECT_EQ(fixture.connectionsAccepted(), 1U);
}

TEST(URLSessionStream, CanBeMoved) {
  HttpFixture fixture;
  fixture.on("GET", "/a", Answer(200, "aaa"));
  fixture.on("GET", "/b", Answer::endless());
  URLSession session({});
  URLByteStream first = runTask(session.bytes(requestTo(fixture.url("/a"))));
  URLByteStream target = runTask(session.bytes(requestTo(fixture.url("/b"))));
  target = std::move(first);
  // What it was before is dropped, what it is now goes on.
  EXPECT_TRUE(
      support::waitUntil([&] { return fixture.request(1).outcome == AnswerOutcome::abandoned; }));
  EXPECT_EQ(runTask(readAll(std::make_shared<URLByteStream>(std::move(target)))), "aaa");
}

TEST(URLSessionStream, ACancelledReaderEndsTheTransfer) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(1000).stallingAt(1));
  URLSession session({});
  const auto stream = openStream(session, secretRequest(fixture.url("/")));
  EXPECT_EQ(runTask(stream->next())->size(), 1U);
  auto reading = startTask(stream->next());
  EXPECT_TRUE(support::staysTrue([&] { return !reading.isDone(); }, 20ms));
  reading.cancel();
  EXPECT_EQ(codeOf(reading), URLError::cancelled);
  EXPECT_TRUE(support::waitUntil([&] { return fixture.openConnections() == 0; }));
}

}  // namespace
}  // namespace kestrune::platform
