#include "companion/events/EventListener.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/CapturingLogSink.h"
#include "tests/support/DeadEnds.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using support::Answer;
using support::Gate;
using support::staysTrue;
using support::waitUntil;

const std::string kHello = ": hello\n\n";
const std::string kChange = "event: change\ndata: {}\n\n";
const std::string kHeartbeat = ": keep-alive\n\n";

Answer stream(const std::string& text) {
  return Answer(200, text).with("Content-Type", "text/event-stream").chunked();
}

class EventListenerTest : public testing::Test {
 protected:
  EventListenerTest() {
    options.refresh = 1h;
    options.leastTokenInterval = 1ms;
    options.firstPause = 20ms;
    options.longestPause = 100ms;
    options.askAgain = 1h;
  }
  void listen() {
    listener = std::make_unique<EventListener>(options, [this] { ++tokens; });
  }
  std::size_t asked() const { return service.http().requestCount("GET", "/events"); }

  support::CapturingLogSink log;
  mutable support::ServiceFixture service;
  EventListenerOptions options;
  std::atomic<int> tokens = 0;
  std::unique_ptr<EventListener> listener;  // last: its threads end before what they use goes
};

TEST_F(EventListenerTest, AsksWithTheTokenOfTheConfiguration) {
  service.http().on("GET", "/events", stream(kHello).steppedBy(Gate()));
  listen();
  ASSERT_TRUE(service.http().waitForRequests(1));
  EXPECT_EQ(service.http().request(0).header("Authorization"),
            std::string("Bearer ") + support::ServiceFixture::kToken);
}

TEST_F(EventListenerTest, AnEventWritesAToken) {
  const Gate gate;
  service.http().on("GET", "/events",
                    stream(kHello + kChange + kHeartbeat + kChange).steppedBy(gate));
  listen();
  gate.release(kHello.size());
  ASSERT_TRUE(waitUntil([&] { return tokens == 1; }));  // what was before is not known
  gate.release(kChange.size() - 1);
  EXPECT_TRUE(staysTrue([&] { return tokens == 1; }, 100ms));
  gate.release(1);
  ASSERT_TRUE(waitUntil([&] { return tokens == 2; }, 1s));
  gate.release(kHeartbeat.size());
  EXPECT_TRUE(staysTrue([&] { return tokens == 2; }, 100ms));
  gate.release(kChange.size());
  ASSERT_TRUE(waitUntil([&] { return tokens == 3; }, 1s));
}

TEST_F(EventListenerTest, ALostConnectionIsMadeAgainAndWritesAToken) {
  const Gate gate;
  service.http().next("GET", "/events", stream(kHello).resettingAt(kHello.size()));
  service.http().next("GET", "/events", stream(kHello));  // an end in order
  service.http().on("GET", "/events", stream(kHello + kChange).steppedBy(gate));
  listen();
  ASSERT_TRUE(waitUntil([&] { return asked() == 3; }));
  const int before = tokens;
  gate.release(kHello.size());
  ASSERT_TRUE(waitUntil([&] { return tokens > before; }));
  const int connected = tokens;
  gate.release(kChange.size());
  ASSERT_TRUE(waitUntil([&] { return tokens > connected; }, 1s));
}

TEST_F(EventListenerTest, AConnectionThatIsClosedAtOnceIsNotMadeAgainEverFaster) {
  options.firstPause = 100ms;
  options.longestPause = 10s;
  service.http().on("GET", "/events", stream(kHello));
  listen();
  ASSERT_TRUE(waitUntil([&] { return asked() == 3; }));  // after 100 and 200 ms
  EXPECT_TRUE(staysTrue([&] { return asked() == 3; }, 250ms));
}

TEST_F(EventListenerTest, WhoCannotBeReachedIsAskedAgain) {
  options.longestPause = 20ms;
  const support::RefusingPort nobody;
  service.configure(nobody.origin());
  listen();
  EXPECT_TRUE(log.waitForRecords(1));
  service.http().on("GET", "/events", stream(kHello).steppedBy(Gate()));
  service.configure(service.http().origin());
  EXPECT_TRUE(waitUntil([&] { return asked() == 1; }));
  EXPECT_EQ(log.records().size(), 1U);
  EXPECT_EQ(tokens, 0);
}

TEST_F(EventListenerTest, SilenceIsALostConnectionAndHeartbeatsAreNone) {
  options.silence = 400ms;
  service.http().next("GET", "/events", stream(kHello).bodyAfter(0ms).stallingAt(kHello.size()));
  std::string heartbeats = kHello;
  for (int i = 0; i < 1000; ++i) heartbeats += ":\n\n";
  service.http().on("GET", "/events", stream(heartbeats).pieces(3, 100ms));
  listen();
  ASSERT_TRUE(waitUntil([&] { return asked() == 2; }));
  EXPECT_TRUE(staysTrue([&] { return asked() == 2; }, 1s));
}

class WithoutEvents : public EventListenerTest, public testing::WithParamInterface<int> {};

TEST_P(WithoutEvents, TokensAreWrittenEverySoOften) {
  options.refresh = 50ms;
  service.http().on("GET", "/events", Answer(GetParam(), "data: x\n\n"));
  listen();
  EXPECT_TRUE(waitUntil([&] { return tokens >= 3; }));
  EXPECT_EQ(asked(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Statuses, WithoutEvents,
                         testing::Values(200, 204, 400, 401, 403, 404, 405, 500, 501, 503));

TEST_F(EventListenerTest, EventsAreAskedForAgainAndEndTheRepeatedTokens) {
  options.refresh = 30ms;
  options.askAgain = 200ms;
  service.http().next("GET", "/events", Answer(404));
  service.http().on("GET", "/events", stream(kHello).stallingAt(kHello.size()));
  listen();
  ASSERT_TRUE(waitUntil([&] { return asked() == 2; }));
  EXPECT_GE(tokens, 2);
  std::this_thread::sleep_for(100ms);  // the answer, and a token that was on its way
  const int before = tokens;
  EXPECT_TRUE(staysTrue([&] { return tokens == before; }, 200ms));
}

TEST_F(EventListenerTest, ARefusedTokenIsSaidOnce) {
  options.askAgain = 20ms;
  service.http().on("GET", "/events", Answer(401));
  listen();
  ASSERT_TRUE(waitUntil([&] { return asked() >= 4; }));
  EXPECT_EQ(log.records().size(), 1U);
  EXPECT_TRUE(log.contains("does not accept the token"));
  EXPECT_FALSE(log.contains(support::ServiceFixture::kToken));
}

TEST_F(EventListenerTest, WithoutAConfigurationTokensAreWritten) {
  options.refresh = 20ms;
  service.writeConfiguration("{}");
  listen();
  EXPECT_TRUE(waitUntil([&] { return tokens >= 2; }));
}

TEST_F(EventListenerTest, EndsAtOnceWhateverItWaitsFor) {
  const support::BlackHole nowhere;
  const auto expectEnd = [this] {
    listen();
    std::this_thread::sleep_for(50ms);
    const auto begun = std::chrono::steady_clock::now();
    listener.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, 2s);
  };
  expectEnd();  // 404: the long pause
  service.http().on("GET", "/events", Answer::never());
  expectEnd();
  service.http().on("GET", "/events", stream(kHello).stallingAt(kHello.size()));
  expectEnd();
  service.configure(nowhere.origin());
  expectEnd();
  for (int i = 0; i < 20; ++i) {
    listen();
    listener.reset();
  }
}

}  // namespace
}  // namespace kestrune
