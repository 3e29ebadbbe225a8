// Downloads to files: where they go, who removes them, and what observers see.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <future>
#include <vector>

#include "platform/files/Directories.h"
#include "platform/net/test/SessionTesting.h"
#include "platform/values/Mutex.h"
#include "tests/support/Digest.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::platform {
namespace {

using support::Answer;
using support::Gate;
using support::HttpFixture;
using support::ScopedEnvironment;
using support::TemporaryDirectory;
using namespace std::chrono_literals;
using std::filesystem::path;

struct Ended {
  std::optional<path> location;
  std::optional<HTTPURLResponse> response;
  NSErrorPtr error;
  /// What the file held while the handler ran.
  std::string contents;
  bool wasExecutorThread = false;
};

// A download and everything that it says.
class WatchedDownload {
 public:
  WatchedDownload(URLSession& session, const std::string& url, path moveTo = {}) {
    auto handler = [shared = shared_, moveTo = std::move(moveTo)](auto location, auto response,
                                                                  auto error) {
      Ended ended{location, response, error, {}, false};
      if (location) ended.contents = support::contentsOf(*location);
      if (location && !moveTo.empty()) std::filesystem::rename(*location, moveTo);
      ended.wasExecutorThread = isOnSharedExecutor();
      ++shared->calls;
      shared->ended.set_value(std::move(ended));
    };
    task_ = session.downloadTask(*URL::parse(url), std::move(handler));
  }

  void observe() {
    task_->observe([shared = shared_](DownloadCounts counts) {
      MutexLock lock(shared->mutex);
      shared->counts.push_back(counts);
    });
  }
  URLSessionDownloadTask& task() { return *task_; }
  void forget() { task_.reset(); }

  Ended wait() {
    auto future = shared_->ended.get_future();
    if (future.wait_for(support::kTaskDeadline) != std::future_status::ready)
      throw std::runtime_error("no end");
    return future.get();
  }
  Ended run() {
    task_->resume();
    return wait();
  }
  std::vector<DownloadCounts> counts() const {
    MutexLock lock(shared_->mutex);
    return shared_->counts;
  }
  int calls() const { return shared_->calls; }

 private:
  struct Shared {
    std::promise<Ended> ended;
    std::atomic<int> calls = 0;
    Mutex mutex;
    std::vector<DownloadCounts> counts GUARDED_BY(mutex);
  };
  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::shared_ptr<URLSessionDownloadTask> task_;
};

class URLSessionDownload : public ::testing::Test {
 protected:
  TemporaryDirectory elsewhere_;
  TemporaryDirectory directory_;
  ScopedEnvironment environment_{"TMPDIR", directory_.path().string()};
  HttpFixture fixture_;
};

TEST_F(URLSessionDownload, NothingHappensBeforeResume) {
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/"));
  EXPECT_TRUE(support::staysTrue([&] { return fixture_.connectionsAccepted() == 0; }, 50ms));
  EXPECT_EQ(directory_.entryCount(), 0U);
}

TEST_F(URLSessionDownload, TheFileLiesInTheTemporaryDirectoryWhileTheHandlerRuns) {
  for (const std::size_t size : {1U, 65'536U, 3'000'001U}) {
    fixture_.on("GET", "/", Answer::pattern(size).with("ETag", "\"1\""));
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"));
    const Ended ended = download.run();
    EXPECT_EQ(ended.error, nullptr);
    ASSERT_TRUE(ended.location.has_value());
    EXPECT_EQ(ended.location->parent_path(), temporaryDirectory());
    EXPECT_EQ(ended.response->statusCode, 200);
    EXPECT_EQ(ended.response->valueForHTTPHeaderField("etag"), "\"1\"");
    EXPECT_TRUE(ended.contents == support::patternBytes(0, size));
    EXPECT_TRUE(ended.wasExecutorThread);
    EXPECT_TRUE(support::waitUntil([&] { return directory_.entryCount() == 0; }));
    EXPECT_EQ(download.calls(), 1);
  }
}

TEST_F(URLSessionDownload, AFileThatTheHandlerMovedStays) {
  fixture_.on("GET", "/", Answer(200, "kept"));
  {
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"), elsewhere_.path() / "kept");
    EXPECT_EQ(download.run().error, nullptr);
  }
  EXPECT_EQ(support::contentsOf(elsewhere_.path() / "kept"), "kept");
  EXPECT_EQ(directory_.entryCount(), 0U);
}

TEST_F(URLSessionDownload, TheRequestIsAPlainGet) {
  fixture_.on("GET", "/a/../b", Answer(200));
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/a/../b?x=1+2;"));
  download.run();
  EXPECT_EQ(fixture_.onlyRequest().target, "/a/../b?x=1+2;");
  EXPECT_THAT(fixture_.onlyRequest().headerNames(), ::testing::ElementsAre("host"));
}

TEST_F(URLSessionDownload, AnyStatusComesWithItsFile) {
  for (const int status : {200, 404, 503}) {
    fixture_.on("GET", "/", Answer(status, "text"));
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"));
    const Ended ended = download.run();
    EXPECT_EQ(ended.response->statusCode, status);
    EXPECT_EQ(ended.contents, "text");
    EXPECT_EQ(ended.error, nullptr);
  }
}

TEST_F(URLSessionDownload, AnEmptyBodyIsAnEmptyFile) {
  for (const Answer& answer : {Answer(200), Answer(200).chunked(), Answer(204)}) {
    fixture_.on("GET", "/", answer);
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"));
    const Ended ended = download.run();
    EXPECT_EQ(ended.error, nullptr);
    EXPECT_TRUE(ended.location.has_value());
    EXPECT_EQ(ended.contents, "");
  }
}

TEST_F(URLSessionDownload, OnlyTheLastAnswerOfARedirectIsInTheFile) {
  fixture_.on("GET", "/from", Answer(302, "moved").with("Location", "/to"));
  fixture_.on("GET", "/to", Answer(200, "final"));
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/from"));
  download.observe();
  EXPECT_EQ(download.run().contents, "final");
  EXPECT_EQ(download.counts().back().countOfBytesReceived, 5);
}

TEST_F(URLSessionDownload, ObserversSeeFewCountsAndAlwaysTheLast) {
  constexpr std::int64_t kSize = 4'000'000;
  fixture_.on("GET", "/", Answer::pattern(kSize).pieces(10'000, 2ms));
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/"));
  download.observe();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(download.run().error, nullptr);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  // Before the handler was called, hence no waiting here.
  const std::vector<DownloadCounts> counts = download.counts();
  ASSERT_GE(counts.size(), 3U);
  EXPECT_LE(static_cast<double>(counts.size()), took.count() * 22 + 2);
  std::int64_t before = 0;
  for (const DownloadCounts& count : counts) {
    EXPECT_GT(count.countOfBytesReceived, before);
    EXPECT_EQ(count.countOfBytesExpectedToReceive, kSize);
    before = count.countOfBytesReceived;
  }
  EXPECT_EQ(before, kSize);
}

TEST_F(URLSessionDownload, FastDownloadsTellTheLastCountToo) {
  for (const std::int64_t size : {1, 100, 5'000'000}) {
    fixture_.on("GET", "/", Answer::pattern(static_cast<std::uint64_t>(size)));
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"));
    download.observe();
    download.run();
    ASSERT_FALSE(download.counts().empty());
    EXPECT_EQ(download.counts().back().countOfBytesReceived, size);
  }
}

TEST_F(URLSessionDownload, TheExpectedCountIsMinusOneWhileTheLengthIsUnknown) {
  for (const Answer& answer :
       {Answer::pattern(300'000).chunked(), Answer::pattern(300'000).withoutLength()}) {
    fixture_.on("GET", "/", answer.pieces(50'000, 30ms));
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/"));
    download.observe();
    EXPECT_EQ(download.run().contents.size(), 300'000U);
    ASSERT_FALSE(download.counts().empty());
    for (const DownloadCounts& count : download.counts())
      EXPECT_EQ(count.countOfBytesExpectedToReceive, -1);
    EXPECT_EQ(download.counts().back().countOfBytesReceived, 300'000);
  }
}

TEST_F(URLSessionDownload, AnInvalidatedObservationIsSilent) {
  const Gate gate;
  fixture_.on("GET", "/", Answer::pattern(2000).steppedBy(gate));
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/"));
  download.observe();
  download.task().resume();
  gate.release(1000);
  ASSERT_TRUE(support::waitUntil([&] { return !download.counts().empty(); }));
  download.task().invalidateObservation();
  const std::size_t before = download.counts().size();
  gate.open();
  EXPECT_EQ(download.wait().contents.size(), 2000U);
  EXPECT_EQ(download.counts().size(), before);
  download.task().invalidateObservation();
}

TEST_F(URLSessionDownload, InvalidatingWaitsForTheObserverThatRuns) {
  fixture_.on("GET", "/", Answer::pattern(1000));
  URLSession session({});
  std::promise<void> observing;
  std::promise<void> ended;
  std::atomic<bool> isRunning = false;
  const Gate release;
  auto task = session.downloadTask(*URL::parse(fixture_.url("/")),
                                   [&](auto, auto, auto) { ended.set_value(); });
  task->observe([&](DownloadCounts) {
    isRunning = true;
    observing.set_value();
    EXPECT_EQ(release.take(1, 10s), 1U);
    isRunning = false;
  });
  task->resume();
  observing.get_future().wait();
  std::atomic<bool> invalidated = false;
  std::thread invalidating([&] {
    task->invalidateObservation();
    EXPECT_FALSE(isRunning);
    invalidated = true;
  });
  EXPECT_TRUE(support::staysTrue([&] { return !invalidated; }, 50ms));
  release.release();
  invalidating.join();
  ended.get_future().wait();
}

TEST_F(URLSessionDownload, AFailureBringsNoFileAndLeavesNone) {
  const struct {
    Answer answer;
    bool hasResponse;
  } cases[] = {{Answer(200).closingInHead(0), false},
               {Answer::pattern(1'000'000).closingAt(999'999), true}};
  for (const auto& [answer, hasResponse] : cases) {
    fixture_.on("GET", "/", answer);
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/?") + kSecret);
    const Ended ended = download.run();
    EXPECT_EQ(codeOf(ended.error), URLError::networkConnectionLost);
    EXPECT_FALSE(ended.location.has_value());
    EXPECT_EQ(ended.response.has_value(), hasResponse);
    EXPECT_EQ(directory_.entryCount(), 0U);
  }
}

TEST_F(URLSessionDownload, CancellingEndsItOnce) {
  fixture_.on("GET", "/", Answer::pattern(1'000'000).stallingAt(500'000));
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/?") + kSecret);
  download.observe();
  download.task().resume();
  ASSERT_TRUE(support::waitUntil([&] { return !download.counts().empty(); }));
  download.task().cancel();
  download.task().cancel();
  const Ended ended = download.wait();
  EXPECT_EQ(codeOf(ended.error), URLError::cancelled);
  EXPECT_FALSE(ended.location.has_value());
  download.task().cancel();
  EXPECT_TRUE(support::waitUntil(
      [&] { return fixture_.openConnections() == 0 && directory_.entryCount() == 0; }));
  EXPECT_EQ(download.calls(), 1);
}

TEST_F(URLSessionDownload, ATaskThatNobodyKeepsGoesOn) {
  fixture_.hold("GET", "/");
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/"));
  download.task().resume();
  const auto held = fixture_.nextHeld();
  download.forget();
  held.answer(Answer(200, "x"));
  EXPECT_EQ(download.wait().contents, "x");
}

TEST_F(URLSessionDownload, ADirectoryThatIsNotThereIsAnError) {
  fixture_.on("GET", "/", Answer(200, "x"));
  const ScopedEnvironment missing("TMPDIR", (directory_.path() / "missing").string());
  URLSession session({});
  WatchedDownload download(session, fixture_.url("/?") + kSecret);
  const Ended ended = download.run();
  EXPECT_EQ(codeOf(ended.error), URLError::cannotCreateFile);
  EXPECT_FALSE(ended.location.has_value());
}

// The limit of a file's size stands for a disk that is full.
TEST_F(URLSessionDownload, AFileThatCannotBeWrittenIsAnErrorAndIsRemoved) {
  const Answer known = Answer::pattern(8U << 20U);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto signalBefore = ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{1U << 20U, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  for (const Answer& answer : {known, known.chunked()}) {
    fixture_.on("GET", "/", answer);
    URLSession session({});
    WatchedDownload download(session, fixture_.url("/?") + kSecret);
    const Ended ended = download.run();
    EXPECT_EQ(codeOf(ended.error), URLError::cannotWriteToFile);
    EXPECT_FALSE(ended.location.has_value());
    EXPECT_TRUE(support::waitUntil([&] { return directory_.entryCount() == 0; }));
  }
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, signalBefore);
}

}  // namespace
}  // namespace kestrune::platform
