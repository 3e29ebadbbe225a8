// The end of sessions and of tasks, with work in every state.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>
#include <vector>

#include "platform/net/test/SessionTesting.h"
#include "platform/tasks/TaskGroup.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::HttpFixture;
using support::runTask;
using support::startTask;
using namespace std::chrono_literals;

// One piece of work of each kind, each in the middle of its way, and more than there are
// connections.
class BusySession : public ::testing::Test {
 protected:
  void SetUp() override {
    fixture_.on("GET", "/stream", Answer::pattern(1000).stallingAt(500));
    fixture_.on("GET", "/download", Answer::pattern(1000).stallingAt(500));
    fixture_.on("GET", "/never", Answer::never());
    fixture_.on("PUT", "/never", Answer::never());
    URLSessionConfiguration configuration;
    configuration.httpMaximumConnectionsPerHost = 4;
    session_ = std::make_unique<URLSession>(configuration);

    stream_ = openStream(*session_, secretRequest(fixture_.url("/stream")));
    reading_.emplace(startTask(readAll(stream_)));
    download_ = session_->downloadTask(*URL::parse(fixture_.url("/download")),
                                       [this](auto location, auto, auto error) {
                                         downloadCalls_++;
                                         downloadHadFile_ = location.has_value();
                                         downloadEnded_.set_value(error);
                                       });
    download_->resume();
    ASSERT_TRUE(fixture_.waitForRequests(2));
    const auto body = std::make_shared<const std::string>(1U << 20U, 'x');
    pending_.push_back(
        startTask(session_->uploadFromData(secretRequest(fixture_.url("/never"), "PUT"), body)));
    for (int i = 0; i < 4; ++i)
      pending_.push_back(startTask(session_->data(secretRequest(fixture_.url("/never")))));
    ASSERT_TRUE(fixture_.waitForRequests(4));
  }

  void expectAllCancelled() {
    for (auto& request : pending_) EXPECT_EQ(codeOf(request), URLError::cancelled);
    EXPECT_EQ(codeOf(*reading_), URLError::cancelled);
    auto ended = downloadEnded_.get_future();
    ASSERT_EQ(ended.wait_for(support::kTaskDeadline), std::future_status::ready);
    EXPECT_EQ(codeOf(ended.get()), URLError::cancelled);
    EXPECT_FALSE(downloadHadFile_);
    EXPECT_EQ(downloadCalls_, 1);
    EXPECT_TRUE(support::waitUntil([&] { return fixture_.openConnections() == 0; }));
    EXPECT_EQ(fixture_.requestCount(), 4U);
  }

  HttpFixture fixture_;
  std::unique_ptr<URLSession> session_;
  std::shared_ptr<URLByteStream> stream_;
  std::optional<support::RunningTask<std::string>> reading_;
  std::shared_ptr<URLSessionDownloadTask> download_;
  std::promise<NSErrorPtr> downloadEnded_;
  std::atomic<int> downloadCalls_ = 0;
  std::atomic<bool> downloadHadFile_ = false;
  std::vector<support::RunningTask<URLReply>> pending_;
};

TEST_F(BusySession, InvalidatedFailsEverything) {
  session_->invalidateAndCancel();
  expectAllCancelled();
}

TEST_F(BusySession, InvalidatedTwiceFailsEverythingOnce) {
  session_->invalidateAndCancel();
  session_->invalidateAndCancel();
  expectAllCancelled();
  session_->invalidateAndCancel();
}

TEST_F(BusySession, DestroyedFailsEverything) {
  session_.reset();
  expectAllCancelled();
}

TEST_F(BusySession, InvalidatedAndDestroyedFailsEverythingOnce) {
  session_->invalidateAndCancel();
  session_.reset();
  expectAllCancelled();
}

TEST(URLSessionLifecycle, AnInvalidatedSessionRefusesEverything) {
  HttpFixture fixture;
  URLSession session({});
  session.invalidateAndCancel();
  EXPECT_EQ(codeOf(session.data(secretRequest(fixture.url("/")))), URLError::cancelled);
  EXPECT_EQ(codeOf(session.bytes(secretRequest(fixture.url("/")))), URLError::cancelled);
  const auto body = std::make_shared<const std::string>("x");
  EXPECT_EQ(codeOf(session.uploadFromData(secretRequest(fixture.url("/"), "PUT"), body)),
            URLError::cancelled);
  std::promise<NSErrorPtr> ended;
  session
      .downloadTask(*URL::parse(fixture.url("/")),
                    [&](auto, auto, auto error) { ended.set_value(error); })
      ->resume();
  EXPECT_EQ(codeOf(ended.get_future().get()), URLError::cancelled);
  EXPECT_EQ(fixture.connectionsAccepted(), 0U);
}

TEST(URLSessionLifecycle, OneSessionsEndLeavesOthersAlone) {
  HttpFixture fixture;
  fixture.hold("GET", "/");
  URLSession going({});
  URLSession lasting({});
  auto lost = startTask(going.data(requestTo(fixture.url("/"))));
  auto kept = startTask(lasting.data(requestTo(fixture.url("/"))));
  const auto first = fixture.nextHeld();
  const auto second = fixture.nextHeld();
  going.invalidateAndCancel();
  EXPECT_EQ(codeOf(lost), URLError::cancelled);
  first.answer(Answer(200, "x"));
  second.answer(Answer(200, "x"));
  EXPECT_EQ(kept.value().data, "x");
}

TEST(URLSessionLifecycle, AStreamKeepsWhatItHasWhenItsSessionEnds) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(1000).stallingAt(500));
  auto session = std::make_unique<URLSession>(URLSessionConfiguration{});
  const auto stream = openStream(*session, requestTo(fixture.url("/")));
  std::string received;
  while (received.size() < 500) received += *runTask(stream->next());
  session.reset();
  EXPECT_EQ(codeOf(stream->next()), URLError::cancelled);
  EXPECT_EQ(received, support::patternBytes(0, 500));
}

TEST(URLSessionLifecycle, SessionsThatDidNothingEndAtOnce) {
  for (int i = 0; i < 20; ++i) URLSession session({});
}

TEST(URLSessionLifecycle, RequestsAndTheEndOfTheirSessionMayRace) {
  HttpFixture fixture;
  fixture.on("GET", "/", Answer::pattern(10'000));
  for (int round = 0; round < 10; ++round) {
    URLSession session({});
    std::vector<support::RunningTask<URLReply>> running;
    std::thread ending([&] {
      EXPECT_TRUE(support::waitUntil(
          [&] { return fixture.requestCount() > static_cast<std::size_t>(round); }));
      session.invalidateAndCancel();
    });
    for (int i = 0; i < 20; ++i)
      running.push_back(startTask(session.data(requestTo(fixture.url("/")))));
    for (auto& request : running) {
      const std::int64_t code = codeOf(request);
      EXPECT_TRUE(code == 0 || code == URLError::cancelled) << code;
    }
    ending.join();
  }
}

TEST(URLSessionLifecycle, ACancelledTaskCancelsItsTransfer) {
  HttpFixture fixture;
  fixture.on("GET", "/never", Answer::never());
  fixture.on("GET", "/stalled", Answer::pattern(1000).stallingAt(500));
  URLSession session({});
  auto data = startTask(session.data(secretRequest(fixture.url("/never"))));
  auto bytes = startTask(session.bytes(secretRequest(fixture.url("/never"))));
  auto stalled = startTask(session.data(secretRequest(fixture.url("/stalled"))));
  ASSERT_TRUE(fixture.waitForRequests(3));
  data.cancel();
  EXPECT_EQ(codeOf(data), URLError::cancelled);
  EXPECT_FALSE(bytes.isDone());
  bytes.cancel();
  stalled.cancel();
  EXPECT_EQ(codeOf(bytes), URLError::cancelled);
  EXPECT_EQ(codeOf(stalled), URLError::cancelled);
  EXPECT_TRUE(support::waitUntil([&] { return fixture.openConnections() == 0; }));
}

TEST(URLSessionLifecycle, ACancelledUploadEnds) {
  HttpFixture fixture({.tls = {}, .sendBufferBytes = {}, .receiveBufferBytes = 64 << 10});
  fixture.on("PUT", "/", Answer::never().afterRequestBytes(1));
  URLSession session({});
  const auto body = std::make_shared<const std::string>(32U << 20U, 'x');
  auto upload = startTask(session.uploadFromData(secretRequest(fixture.url("/"), "PUT"), body));
  ASSERT_TRUE(fixture.waitForRequests(1));
  upload.cancel();
  EXPECT_EQ(codeOf(upload), URLError::cancelled);
  EXPECT_TRUE(support::waitUntil([&] { return body.use_count() == 1; }));
}

TEST(URLSessionLifecycle, ACancelledQueuedRequestNeverLeaves) {
  HttpFixture fixture;
  fixture.hold("GET", "/first");
  URLSessionConfiguration configuration;
  configuration.httpMaximumConnectionsPerHost = 1;
  URLSession session(configuration);
  auto first = startTask(session.data(requestTo(fixture.url("/first"))));
  const auto held = fixture.nextHeld();
  auto queued = startTask(session.data(secretRequest(fixture.url("/queued"))));
  auto after = startTask(session.data(requestTo(fixture.url("/after"))));
  EXPECT_TRUE(support::staysTrue([&] { return !queued.isDone(); }, 20ms));
  queued.cancel();
  EXPECT_EQ(codeOf(queued), URLError::cancelled);
  held.answer(Answer(200));
  first.value();
  after.value();
  EXPECT_EQ(fixture.requestCount("GET", "/queued"), 0U);
}

Task<int> dataThenCode(URLSession* session, URLRequest request) {
  const URLReply reply = co_await session->data(std::move(request));
  co_return reply.response.statusCode;
}

Task<void> askThreeTimesInVain(TaskGroup<int>* group, URLSession* session, std::string origin) {
  for (int i = 0; i < 3; ++i) group->add(dataThenCode(session, secretRequest(origin + "/never")));
  group->add(dataThenCode(session, secretRequest(origin + "/broken")));
  for (;;) {
    const std::optional<int> status = co_await group->next();
    if (!status) break;
  }
}

TEST(URLSessionLifecycle, AGroupThatFailsTakesItsTransfersWithIt) {
  HttpFixture fixture;
  fixture.on("GET", "/never", Answer::never());
  fixture.on("GET", "/broken", Answer(200).closingInHead(0));
  URLSession session({});
  std::function<Task<void>(TaskGroup<int>&)> body = [&](TaskGroup<int>& group) {
    return askThreeTimesInVain(&group, &session, fixture.origin());
  };
  EXPECT_EQ(codeOf(withTaskGroup<int>(body)), URLError::networkConnectionLost);
  EXPECT_TRUE(support::waitUntil([&] { return fixture.openConnections() == 0; }));
}

}  // namespace
}  // namespace kestrune::platform
