// Time: the idle time-out, what restarts it, what makes it stand still, and the bound of the whole.
//
// Time-outs here are short, pauses much shorter: a test fails for a wrong clock, not for a busy
// machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/net/test/SessionTesting.h"
#include "tests/support/DeadEnds.h"

namespace kestrune::platform {
namespace {

using std::chrono::steady_clock;
using support::Answer;
using support::Gate;
using support::HttpFixture;
using support::runTask;
using support::startTask;
using namespace std::chrono_literals;

constexpr auto kIdle = 250ms;

TEST(URLSessionTime, ASilentServerTimesOut) {
  const std::pair<const char*, Answer> cases[] = {
      {"before the answer", Answer::never()},
      {"in the status line", Answer(200).stallingInHead(5)},
      {"in the headers", Answer(200).with("X-One", "1").stallingInHead(30)},
      {"after an informational answer", Answer::never().afterInformational(1).held(Gate())},
      {"before the body", Answer(200, "body").stallingAt(0)},
      {"in the body", Answer(200, "body").stallingAt(2)},
      {"between chunks", Answer(200, "body").chunked().stallingAt(4)},
      {"in a body without length", Answer(200, "body").withoutLength().stallingAt(4)},
  };
  for (const auto& [where, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    URLSession session(withIdleTimeout(kIdle));
    const auto begin = steady_clock::now();
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))), URLError::timedOut) << where;
    EXPECT_GE(steady_clock::now() - begin, kIdle - 20ms) << where;
    EXPECT_EQ(fixture.waitForOutcome(0), support::AnswerOutcome::abandoned) << where;
  }
}

TEST(URLSessionTime, AHostThatDropsPacketsTimesOut) {
  const support::BlackHole hole;
  URLSession session(withIdleTimeout(kIdle));
  EXPECT_EQ(codeOf(session.data(secretRequest(hole.origin() + "/"))), URLError::timedOut);
}

TEST(URLSessionTime, WhatArrivesRestartsTheClock) {
  constexpr auto kPause = 50ms;
  constexpr std::size_t kPieces = 16;  // together more than three time-outs
  const std::string body(kPieces, 'x');
  const std::pair<const char*, Answer> cases[] = {
      {"body", Answer(200, body).pieces(1, kPause)},
      {"chunks", Answer(200, body).chunked().pieces(1, kPause)},
      {"lines of the head", Answer(200, body).withManyHeaders(12).headPieces(8, kPause)},
  };
  for (const auto& [what, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    URLSession session(withIdleTimeout(kIdle));
    const auto begin = steady_clock::now();
    EXPECT_EQ(runTask(session.data(requestTo(fixture.url("/")))).data, body) << what;
    EXPECT_GT(steady_clock::now() - begin, kIdle * 2) << what;
  }
}

// The kernel takes megabytes at once and needs its time to pass them on: what it passes on counts.
TEST(URLSessionTime, WhatIsSentRestartsTheClock) {
  HttpFixture fixture({.tls = {}, .sendBufferBytes = {}, .receiveBufferBytes = 128 << 10});
  fixture.on("PUT", "/", Answer(200).readingRequestBy(256U << 10U, 40ms));
  URLSession session(withIdleTimeout(kIdle));
  const auto body = std::make_shared<const std::string>(support::patternBytes(0, 6U << 20U));
  const auto begin = steady_clock::now();
  auto upload = session.uploadFromData(requestTo(fixture.url("/"), "PUT"), body);
  EXPECT_EQ(runTask(std::move(upload)).response.statusCode, 200);
  EXPECT_GT(steady_clock::now() - begin, kIdle * 3);
}

TEST(URLSessionTime, AServerThatStopsReadingTimesOut) {
  HttpFixture fixture({.tls = {}, .sendBufferBytes = {}, .receiveBufferBytes = 64 << 10});
  fixture.on("PUT", "/", Answer::never().afterRequestBytes(1000));
  URLSession session(withIdleTimeout(kIdle));
  const auto body = std::make_shared<const std::string>(32U << 20U, 'x');
  EXPECT_EQ(codeOf(session.uploadFromData(secretRequest(fixture.url("/"), "PUT"), body)),
            URLError::timedOut);
  EXPECT_FALSE(fixture.onlyRequest().bodyIsComplete);
}

TEST(URLSessionTime, ARequestsOwnTimeoutCountsInsteadOfTheSessions) {
  HttpFixture fixture;
  fixture.on("GET", "/slow", Answer(200, "x").headAfter(400ms));
  fixture.on("GET", "/never", Answer::never());
  URLSession impatient(withIdleTimeout(100ms));
  URLRequest patientRequest = requestTo(fixture.url("/slow"));
  patientRequest.timeoutInterval = 20s;
  EXPECT_EQ(runTask(impatient.data(patientRequest)).data, "x");
  URLSession patient({});
  URLRequest impatientRequest = requestTo(fixture.url("/never"));
  impatientRequest.timeoutInterval = 100ms;
  EXPECT_EQ(codeOf(patient.data(impatientRequest)), URLError::timedOut);
}

TEST(URLSessionTime, WaitingForAConnectionCostsNoTime) {
  HttpFixture fixture;
  fixture.hold("GET", "/first");
  fixture.on("GET", "/queued", Answer(200, "x"));
  URLSessionConfiguration configuration;
  configuration.httpMaximumConnectionsPerHost = 1;
  URLSession session(configuration);
  auto first = startTask(session.data(requestTo(fixture.url("/first"))));
  const auto held = fixture.nextHeld();
  URLRequest request = requestTo(fixture.url("/queued"));
  request.timeoutInterval = kIdle;
  auto queued = startTask(session.data(request));
  EXPECT_TRUE(support::staysTrue([&] { return !queued.isDone() && fixture.requestCount() == 1; },
                                 kIdle * 3));
  held.answer(Answer(200));
  EXPECT_EQ(queued.value().data, "x");
  first.value();
}

TEST(URLSessionTime, AQueuedRequestTimesOutOnceItHasItsConnection) {
  HttpFixture fixture;
  fixture.hold("GET", "/first");
  fixture.on("GET", "/queued", Answer::never());
  URLSessionConfiguration configuration;
  configuration.httpMaximumConnectionsPerHost = 1;
  URLSession session(configuration);
  auto first = startTask(session.data(requestTo(fixture.url("/first"))));
  const auto held = fixture.nextHeld();
  URLRequest request = requestTo(fixture.url("/queued"));
  request.timeoutInterval = kIdle;
  auto queued = startTask(session.data(request));
  held.answer(Answer(200));
  first.value();
  EXPECT_EQ(codeOf(queued), URLError::timedOut);
  EXPECT_EQ(fixture.requestCount("GET", "/queued"), 1U);
}

TEST(URLSessionTime, AReaderThatHoldsTheNetworkBackCostsNoTime) {
  constexpr std::uint64_t kSize = 8U << 20U;
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(kSize));
  URLSession session(withIdleTimeout(kIdle));
  const auto stream = openStream(session, requestTo(fixture.url("/")));
  // Nothing moves for three time-outs, for want of a reader.
  EXPECT_TRUE(support::staysTrue([&] { return fixture.openConnections() == 1; }, kIdle * 3));
  EXPECT_TRUE(runTask(readAll(stream)) == support::patternBytes(0, kSize));
}

TEST(URLSessionTime, TheClockRunsAgainOnceTheReaderReads) {
  constexpr std::uint64_t kSize = 8U << 20U;
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(kSize).stallingAt(kSize - 1));
  URLSession session(withIdleTimeout(kIdle));
  const auto stream = openStream(session, secretRequest(fixture.url("/")));
  EXPECT_TRUE(support::staysTrue([&] { return fixture.openConnections() == 1; }, kIdle * 2));
  EXPECT_EQ(codeOf(readAll(stream)), URLError::timedOut);
}

TEST(URLSessionTime, TheResourceTimeoutBoundsTheWhole) {
  constexpr auto kResource = 400ms;
  const std::pair<const char*, Answer> cases[] = {
      {"a body that never ends", Answer::endless().pieces(1, 20ms)},
      {"silence", Answer::never()},
  };
  for (const auto& [what, answer] : cases) {
    HttpFixture fixture;
    fixture.on("GET", "/", answer);
    URLSessionConfiguration configuration;
    configuration.timeoutIntervalForResource = kResource;
    URLSession session(configuration);
    const auto begin = steady_clock::now();
    EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))), URLError::timedOut) << what;
    EXPECT_GE(steady_clock::now() - begin, kResource - 20ms) << what;
  }
}

TEST(URLSessionTime, TheResourceTimeoutCountsTheReadersPausesToo) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::endless());
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForResource = 300ms;
  URLSession session(configuration);
  const auto stream = openStream(session, secretRequest(fixture.url("/")));
  // The reader holds everything back, and still the transfer ends.
  EXPECT_TRUE(support::waitUntil([&] { return fixture.openConnections() == 0; }));
  EXPECT_EQ(codeOf(readAll(stream)), URLError::timedOut);
}

}  // namespace
}  // namespace kestrune::platform
