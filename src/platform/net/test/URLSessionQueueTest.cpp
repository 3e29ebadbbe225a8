// Requests beyond what may run to one host at a time: none is forgotten, however quickly the others end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "platform/net/URLSession.h"
#include "platform/net/test/SessionTesting.h"
#include "tests/support/DetachedTasks.h"
#include "tests/support/HttpFixture.h"
#include "tests/support/RunTask.h"
#include "tests/support/Waiting.h"

namespace kestrune::platform {
namespace {

using namespace std::chrono_literals;
using support::Answer;
using support::HttpFixture;
using support::startTask;
using ::testing::ElementsAre;

URLSessionConfiguration atMost(int connections) {
  URLSessionConfiguration configuration;
  configuration.httpMaximumConnectionsPerHost = connections;
  return configuration;
}

Task<void> countAnswer(URLSession* session, URLRequest request, std::atomic<int>* answers) {
  const URLReply reply = co_await session->data(std::move(request));
  if (reply.data == "x") ++*answers;
}

TEST(URLSessionQueue, AllOfManyShortRequestsEnd) {
  constexpr int kRounds = 200;
  constexpr int kRequests = 30;
  HttpFixture fixture;
  fixture.on("GET", "/", Answer(200, "x"));
  for (int round = 0; round < kRounds; ++round) {
    URLSession session(atMost(6));
    std::atomic<int> answers = 0;
    // All begin at once, so that most of them wait before the first connection is there.
    const support::DetachedTasks tasks([&] {
      for (int i = 0; i < kRequests; ++i)
        spawnDetached("request", countAnswer(&session, requestTo(fixture.url("/")), &answers));
    });
    ASSERT_TRUE(tasks.waitUntilEnded(10s)) << round << ": " << answers;
    EXPECT_EQ(answers, kRequests);
  }
  EXPECT_LE(fixture.maxConcurrentRequests(), 6U);
}

TEST(URLSessionQueue, WhoCameFirstGoesFirst) {
  HttpFixture fixture;
  fixture.hold("GET", "/first");
  fixture.otherwise([](const auto&) { return Answer(200, "x"); });
  URLSession session(atMost(1));
  std::vector<support::RunningTask<URLReply>> running;
  running.push_back(startTask(session.data(requestTo(fixture.url("/first")))));
  const auto held = fixture.nextHeld();
  for (const char* target : {"/a", "/b", "/c"}) {
    auto task = std::make_shared<support::RunningTask<URLReply>>(
        startTask(session.data(requestTo(fixture.url(target)))));
    // Each is in the queue before the next one comes.
    EXPECT_TRUE(support::staysTrue([&] { return !task->isDone(); }, 20ms));
    running.push_back(std::move(*task));
  }
  held.answer(Answer(200));
  for (auto& request : running) request.value();
  std::vector<std::string> targets;
  for (const auto& request : fixture.requests()) targets.push_back(request.target);
  EXPECT_THAT(targets, ElementsAre("/first", "/a", "/b", "/c"));
}

TEST(URLSessionQueue, OneThatFailsMakesRoomForTheNext) {
  HttpFixture fixture;
  fixture.on("GET", "/broken", Answer(200).closingInHead(3));
  fixture.on("GET", "/good", Answer(200, "x"));
  URLSession session(atMost(1));
  std::vector<support::RunningTask<URLReply>> running;
  for (const char* target : {"/broken", "/good", "/broken", "/good"})
    running.push_back(startTask(session.data(requestTo(fixture.url(target)))));
  int failed = 0;
  for (auto& request : running) failed += request.failure() ? 1 : 0;
  EXPECT_EQ(failed, 2);
}

TEST(URLSessionQueue, WaitingCountsTowardsTheWholeTransfersBound) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::never());
  URLSessionConfiguration configuration = atMost(1);
  configuration.timeoutIntervalForResource = 100ms;
  URLSession session(configuration);
  auto running = startTask(session.data(requestTo(fixture.url("/"))));
  auto waiting = startTask(session.data(requestTo(fixture.url("/"))));
  for (auto* request : {&running, &waiting}) {
    const NSErrorPtr error = request->failure();
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), URLError::timedOut);
  }
}

TEST(URLSessionQueue, InvalidationEndsThoseThatWaitAndStartsNone) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::never());
  URLSession session(atMost(2));
  std::vector<support::RunningTask<URLReply>> running;
  for (int i = 0; i < 8; ++i)
    running.push_back(startTask(session.data(requestTo(fixture.url("/")))));
  ASSERT_TRUE(fixture.waitForRequests(2));
  session.invalidateAndCancel();
  for (auto& request : running) EXPECT_EQ(request.failure()->code(), URLError::cancelled);
  EXPECT_EQ(fixture.requestCount(), 2U);
}

}  // namespace
}  // namespace kestrune::platform
