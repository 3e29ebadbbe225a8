#include "tests/support/HttpFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <string>

#include "tests/support/Digest.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestCertificates.h"
#include "tests/support/Waiting.h"

namespace kestrune::support {
namespace {

using boost::asio::ip::tcp;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

// A client that does exactly what it is told, so that the fixture is not judged by another client's
// habits.
class PlainClient {
 public:
  explicit PlainClient(const HttpFixture& fixture) : socket_(context_) {
    socket_.connect({boost::asio::ip::address_v4::loopback(), fixture.port()});
  }

  void send(const std::string& text) { boost::asio::write(socket_, boost::asio::buffer(text)); }
  void get(const std::string& target) { send("GET " + target + " HTTP/1.1\r\nHost: x\r\n\r\n"); }

  /// Everything up to the connection's end; `error` says how that came.
  std::string readToEnd(boost::system::error_code& error) {
    std::string text;
    boost::asio::read(socket_, boost::asio::dynamic_buffer(text), error);
    return text;
  }
  std::string readToEnd() {
    boost::system::error_code error;
    return readToEnd(error);
  }
  /// Reads until `end` has come, and returns everything up to and with it.
  std::string readUntil(const std::string& end) {
    const std::size_t size =
        boost::asio::read_until(socket_, boost::asio::dynamic_buffer(received_), end);
    std::string text = received_.substr(0, size);
    received_.erase(0, size);
    return text;
  }
  void close() { socket_.close(); }

 private:
  boost::asio::io_context context_;
  tcp::socket socket_;
  std::string received_;
};

TEST(HttpFixture, RecordsTheRequestByteForByte) {
  HttpFixture fixture;
  fixture.on("PUT", "/a/../b", Answer(201, "made"));
  PlainClient client(fixture);
  client.send(
      "PUT /a/../b?q=%20&x=;+ HTTP/1.1\r\nHoSt:   h  \r\nX-Two: 1\r\nX-TWO: 2\r\nContent-Length: "
      "4\r\n\r\nbody");
  EXPECT_EQ(client.readUntil("made"), "HTTP/1.1 201 Scripted\r\nContent-Length: 4\r\n\r\nmade");
  const ReceivedRequest request = fixture.onlyRequest();
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.target, "/a/../b?q=%20&x=;+");
  EXPECT_EQ(request.headers,
            (RawHeaders{{"HoSt", "h"}, {"X-Two", "1"}, {"X-TWO", "2"}, {"Content-Length", "4"}}));
  EXPECT_EQ(request.headerCount("x-two"), 2U);
  EXPECT_EQ(request.body, "body");
  EXPECT_EQ(request.bodySha256, sha256Hex("body"));
  EXPECT_EQ(fixture.waitForOutcome(0), AnswerOutcome::finished);
}

TEST(HttpFixture, ReadsChunkedBodiesAndKeepsOnlyTheirBeginning) {
  HttpFixture fixture(HttpFixtureOptions{
      .tls = {}, .keptBodyBytes = 3, .sendBufferBytes = {}, .receiveBufferBytes = {}});
  fixture.on("POST", "/", Answer(200).closingConnection());
  PlainClient client(fixture);
  client.send(
      "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n");
  client.readToEnd();
  EXPECT_EQ(fixture.onlyRequest().body, "abc");
  EXPECT_EQ(fixture.onlyRequest().bodyBytes, 5U);
  EXPECT_EQ(fixture.onlyRequest().bodySha256, sha256Hex("abcde"));
}

TEST(HttpFixture, QueuedAnswersComeBeforeHeldOnesAndTheRestIsNotFound) {
  HttpFixture fixture;
  fixture.on("GET", "/x", {Answer(200, "1st"), Answer(200, "2nd")});
  fixture.next("GET", "/x", Answer(503, "once"));
  PlainClient client(fixture);
  for (const char* expected : {"once", "1st", "2nd", "2nd"}) {
    client.get("/x?query");
    EXPECT_THAT(client.readUntil(expected), EndsWith(expected));
  }
  client.get("/y");
  EXPECT_THAT(client.readUntil("fixture"), StartsWith("HTTP/1.1 404 "));
  EXPECT_EQ(fixture.connectionsAccepted(), 1U);
}

TEST(HttpFixture, HeldRequestsWaitForTheTest) {
  HttpFixture fixture;
  fixture.hold("GET", "/held");
  PlainClient first(fixture);
  PlainClient second(fixture);
  first.get("/held?1");
  const HeldRequest one = fixture.nextHeld();
  second.get("/held?2");
  const HeldRequest two = fixture.nextHeld();
  EXPECT_EQ(fixture.maxConcurrentRequests(), 2U);
  EXPECT_EQ(two.request().target, "/held?2");
  two.answer(Answer(200, "two"));
  EXPECT_THAT(second.readUntil("two"), EndsWith("two"));
  EXPECT_EQ(fixture.request(0).outcome, AnswerOutcome::underway);
  one.answer(Answer(200, "one"));
  EXPECT_THAT(first.readUntil("one"), EndsWith("one"));
  EXPECT_THROW(fixture.nextHeld(1ms), std::runtime_error);
}

TEST(HttpFixture, FaultsHappenAtTheirByte) {
  const struct {
    Answer answer;
    std::string end;
    bool isReset;
  } cases[] = {
      {Answer(200, "0123456789").resettingAt(4), "\r\n\r\n0123", true},
      {Answer(200, "0123456789").closingAt(4), "\r\n\r\n0123", false},
      {Answer(200).resettingInHead(5), "HTTP/", true},
      {Answer(200).closingInHead(0), "", false},
      {Answer(200, "0123").announcing(10), "Content-Length: 10\r\n\r\n0123", false},
      {Answer(200, "0123").chunked().closingAt(4), "\r\n\r\n4\r\n0123\r\n", false},
      {Answer(200, "0123").withoutLength(), "HTTP/1.1 200 Scripted\r\n\r\n0123", false},
      {Answer::raw("HTTP/1.0 200\r\n\r\n", "x").hangingUp(), "HTTP/1.0 200\r\n\r\nx", false},
      {Answer(200).afterInformational(1).closingInHead(0), "style.css>\r\n\r\n", false},
  };
  for (const auto& [answer, end, isReset] : cases) {
    HttpFixture fixture;

    fixture.on("GET", "/", answer);
    PlainClient client(fixture);
    client.get("/");
    boost::system::error_code error;
    const std::string text = client.readToEnd(error);
    if (isReset) {
      EXPECT_EQ(error, boost::asio::error::connection_reset) << end;
    } else {
      EXPECT_EQ(error, boost::asio::error::eof) << end;
      EXPECT_THAT(text, EndsWith(end));
    }
    const bool isFault = answer.plan().bodyFault || answer.plan().headFault;
    EXPECT_EQ(fixture.waitForOutcome(0), isFault ? AnswerOutcome::faulted : AnswerOutcome::finished)
        << end;
  }
}

TEST(HttpFixture, GatesLetBytesPassOneByOne) {
  HttpFixture fixture;
  const Gate head;
  const Gate bytes;
  fixture.on("GET", "/", Answer(200, "abcdef").held(head).steppedBy(bytes));
  PlainClient client(fixture);
  client.get("/");
  ASSERT_TRUE(fixture.waitForRequests(1));
  head.release();
  client.readUntil("\r\n\r\n");
  EXPECT_EQ(fixture.request(0).answerBytesSent, 0U);
  bytes.release(2);
  EXPECT_EQ(client.readUntil("ab"), "ab");
  EXPECT_TRUE(waitUntil([&] { return fixture.request(0).answerBytesSent == 2; }));
  bytes.open();
  EXPECT_EQ(client.readUntil("cdef"), "cdef");
}

TEST(HttpFixture, AnEarlyAnswerDoesNotWaitForTheBody) {
  HttpFixture fixture;
  fixture.on("PUT", "/", Answer(400, "no").early());
  PlainClient client(fixture);
  client.send("PUT / HTTP/1.1\r\nContent-Length: 3\r\n\r\n");
  EXPECT_THAT(client.readUntil("no"), StartsWith("HTTP/1.1 400"));
  EXPECT_FALSE(fixture.onlyRequest().bodyIsComplete);
  client.send("abc");
  client.get("/next");
  EXPECT_THAT(client.readUntil("fixture"), StartsWith("HTTP/1.1 404"));
  EXPECT_TRUE(fixture.request(0).bodyIsComplete);
}

TEST(HttpFixture, AClientThatLeavesIsNoticed) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::never());
  PlainClient client(fixture);
  client.get("/");
  ASSERT_TRUE(fixture.waitForRequests(1));
  EXPECT_EQ(fixture.openConnections(), 1U);
  client.close();
  EXPECT_EQ(fixture.waitForOutcome(0), AnswerOutcome::abandoned);
  EXPECT_TRUE(waitUntil([&] { return fixture.openConnections() == 0; }));
}

TEST(HttpFixture, IdleConnectionsAreClosedOnDemand) {
  HttpFixture fixture;
  fixture.hold("GET", "/held");
  PlainClient idle(fixture);
  PlainClient busy(fixture);
  idle.get("/");
  idle.readUntil("fixture");
  busy.get("/held");
  const HeldRequest held = fixture.nextHeld();
  ASSERT_TRUE(waitUntil([&] { return fixture.idleConnections() == 1; }));
  fixture.closeIdleConnections();
  EXPECT_EQ(idle.readToEnd(), "");
  held.answer(Answer(200, "there"));
  EXPECT_THAT(busy.readUntil("there"), EndsWith("there"));
}

TEST(HttpFixture, EndsWithEverythingHeld) {
  std::vector<std::unique_ptr<PlainClient>> clients;
  {
    HttpFixture fixture;
    fixture.hold("GET", "/held");
    fixture.on("GET", "/never", Answer::never());
    fixture.on("GET", "/stalled", Answer(200, "abc").stallingAt(1));
    fixture.on("GET", "/endless", Answer::endless());
    for (const char* target : {"/held", "/never", "/stalled", "/endless"}) {
      clients.push_back(std::make_unique<PlainClient>(fixture));
      clients.back()->get(target);
    }
    ASSERT_TRUE(fixture.waitForRequests(4));
  }
}

TEST(HttpFixture, ThePatternIsTheSameInPiecesAndAtOnce) {
  const std::string whole = patternBytes(0, 1000);
  for (const std::size_t size : {1U, 3U, 4U, 7U, 999U}) {
    std::string pieces;
    for (std::size_t offset = 0; offset < whole.size(); offset += size) {
      pieces += patternBytes(offset, std::min(size, whole.size() - offset));
    }
    EXPECT_EQ(pieces, whole) << size;
  }
  EXPECT_EQ(patternSha256(1000), sha256Hex(whole));
  EXPECT_NE(patternBytes(0, 64), patternBytes(64, 64));
}

TEST(HttpFixture, AnAuthorityIssuesMoreThanOneCertificate) {
  const TemporaryDirectory directory;
  TestAuthority authority(directory.path());
  const HttpFixture first(HttpFixtureOptions{
      .tls = authority.issue(), .sendBufferBytes = {}, .receiveBufferBytes = {}});
  const HttpFixture second(HttpFixtureOptions{
      .tls = authority.issue(), .sendBufferBytes = {}, .receiveBufferBytes = {}});
  EXPECT_THAT(first.origin(), StartsWith("https://127.0.0.1:"));
  EXPECT_THAT(contentsOf(authority.certificateFile()), HasSubstr("BEGIN CERTIFICATE"));
}

}  // namespace
}  // namespace kestrune::support
