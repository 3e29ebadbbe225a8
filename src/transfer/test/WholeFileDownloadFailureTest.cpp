// What goes wrong with a whole-file download, what is tried again, and what is left behind: nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <cerrno>
#include <filesystem>
#include <future>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "api/APIError.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Directories.h"
#include "platform/net/URLError.h"
#include "platform/values/Json.h"
#include "tests/support/DeadEnds.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"
#include "transfer/test/DownloadTesting.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::Task;
using platform::URLError;
using support::Answer;
using support::contentsOf;
using support::DetachedTasks;
using support::Gate;
using support::ManualSleeper;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class WholeFileDownloadFailureTest : public DownloadTesting {
 protected:
  WholeFileDownloadFailureTest() { service_.setListing("/", {{.name = "a", .size = 5}}); }

  void nextPresign(const Answer& answer) {
    service_.http().next("POST", "/files/presign-download", answer);
  }
  static Answer presigned(const std::string& url) {
    return Answer(200, platform::Json{{"url", url}, {"method", "GET"}, {"path", "/a"}}.dump());
  }
  void expectError(const Outcome& outcome, const char* domain, std::int64_t code,
                   const std::string& what) {
    EXPECT_EQ(outcome.url, std::nullopt) << what;
    EXPECT_EQ(outcome.item, nullptr) << what;
    ASSERT_NE(outcome.error, nullptr) << what;
    EXPECT_EQ(outcome.error->domain(), domain) << what;
    EXPECT_EQ(outcome.error->code(), code) << what;
    // A file that came with a refusal goes when the session's own handler has returned.
    EXPECT_TRUE(waitUntil([&] { return service_.storage().temporaryNames().empty(); })) << what;
    EXPECT_THAT(transfers(), IsEmpty()) << what;
  }
};

TEST_F(WholeFileDownloadFailureTest, AFailedListingEndsItBeforeAnythingIsRegistered) {
  const struct {
    Answer answer;
    const char* domain;
    std::int64_t code;
  } cases[] = {
      {Answer(404, "x"), APIError::kDomain, 0},
      {Answer(200, "[]"), APIError::kDomain, 1},
      {Answer(200, "{}").closingAt(1), platform::kNSURLErrorDomain,
       URLError::networkConnectionLost},
  };
  for (const auto& [answer, domain, code] : cases) {
    service_.http().next("GET", "/files", answer);
    const DetachedTasks tasks = start("/a");
    ASSERT_TRUE(tasks.waitUntilEnded());
    expectError(outcome(), domain, code, domain);
  }
  EXPECT_EQ(outcome().calls, 3);
  EXPECT_EQ(service_.http().requestCount(), 3U);
  EXPECT_FALSE(fs::exists(service_.storage().shared() / "sync-status.json"));
  EXPECT_THAT(log_.records(), IsEmpty());
  EXPECT_EQ(progress_->completedUnitCount(), 0);
}

TEST_F(WholeFileDownloadFailureTest, EveryErrorIsTriedFourTimesWithFreshAddresses) {
  const support::RefusingPort nobody;
  const struct {
    const char* what;
    Answer presign;
    Answer contents;
    const char* domain;
    std::int64_t code;
  } cases[] = {
      {"presign refused", Answer(403, "x"), Answer(200), APIError::kDomain, 0},
      {"presign no record", Answer(200, "{\"url\":\"u\"}"), Answer(200), APIError::kDomain, 1},
      {"presign breaks off", Answer(200, "{}").closingAt(1), Answer(200),
       platform::kNSURLErrorDomain, URLError::networkConnectionLost},
      {"no address", presigned(""), Answer(200), platform::kNSFileProviderErrorDomain, -1004},
      {"no URL", presigned("http://h/a b"), Answer(200), platform::kNSFileProviderErrorDomain,
       -1004},
      {"relative URL", presigned("/storage/0"), Answer(200), platform::kNSURLErrorDomain,
       URLError::unsupportedURL},
      {"local file", presigned("file:///etc/passwd"), Answer(200), platform::kNSURLErrorDomain,
       URLError::unsupportedURL},
      {"nobody there", presigned(nobody.origin() + "/a"), Answer(200), platform::kNSURLErrorDomain,
       URLError::cannotConnectToHost},
      {"contents 400", presigned(""), Answer(400, "x"), platform::kNSFileProviderErrorDomain,
       -1004},
      {"contents 404", presigned(""), Answer(404, "x"), platform::kNSFileProviderErrorDomain,
       -1004},
      {"contents 500", presigned(""), Answer(500), platform::kNSFileProviderErrorDomain, -1004},
      {"contents too short", presigned(""), Answer(200, "abc").announcing(10),
       platform::kNSURLErrorDomain, URLError::networkConnectionLost},
      {"contents reset", presigned(""), Answer(200, "abc").resettingAt(1),
       platform::kNSURLErrorDomain, URLError::networkConnectionLost},
  };
  std::size_t presigns = 0;
  std::size_t listings = 0;
  int calls = 0;
  for (const auto& [what, presign, contents, domain, code] : cases) {
    const bool isContents = std::string_view(what).starts_with("contents");
    service_.setContents("/a", {contents});
    for (int attempt = 0; attempt < 4 && !isContents; ++attempt) nextPresign(presign);
    const std::size_t downloadsBefore = service_.downloadTargets().size();
    const DetachedTasks tasks = start("/a");
    ASSERT_TRUE(tasks.waitUntilEnded());
    EXPECT_EQ(outcome().calls, ++calls) << what;
    expectError(outcome(), domain, code, what);
    EXPECT_EQ(service_.presignCount(), presigns += 4) << what;
    EXPECT_EQ(service_.listingCount(), ++listings) << what;
    EXPECT_EQ(service_.downloadTargets().size() - downloadsBefore, isContents ? 4U : 0U) << what;
  }
  EXPECT_EQ(progress_->isCancelled(), false);
  const auto targets = service_.downloadTargets();
  EXPECT_EQ(std::set<std::string>(targets.begin(), targets.end()).size(), targets.size());
  for (const auto& message : log_.messages()) EXPECT_THAT(message, Not(HasSubstr("signature")));
}

TEST_F(WholeFileDownloadFailureTest, FourFailuresMakeThreeLinesAndTheFourthError) {
  for (const char* body : {"one", "two", "three", "four"}) nextPresign(Answer(503, body));
  const Outcome outcome = fetch("/a");
  EXPECT_EQ(outcome.error->localizedDescription(), "HTTP 503: four");
  EXPECT_THAT(manualSleeper_->durations(), ElementsAre(1s, 2s, 4s));
  EXPECT_THAT(
      log_.messages(),
      ElementsAre(
          "fetchContents attempt 1 failed \xE2\x80\x94 retrying in 1.0s (HTTP 503: one)",
          "fetchContents attempt 2 failed \xE2\x80\x94 retrying in 2.0s (HTTP 503: two)",
          "fetchContents attempt 3 failed \xE2\x80\x94 retrying in 4.0s (HTTP 503: three)"));
  for (const auto& record : log_.records()) {
    EXPECT_EQ(record.subsystem, "com.orvanta.kestrune.fileprovider");
    EXPECT_EQ(record.category, "extension");
    EXPECT_EQ(record.level, platform::LogLevel::standard);
    EXPECT_EQ(record.format,
              "fetchContents attempt %ld failed \xE2\x80\x94 retrying in %.*fs (%{public}s)");
  }
  EXPECT_EQ(service_.listingCount(), 1U);
  EXPECT_EQ(progress_->completedUnitCount(), 0);
}

TEST_F(WholeFileDownloadFailureTest, AnyLaterAttemptMaySucceed) {
  for (std::size_t failures = 1; failures <= 3; ++failures) {
    std::vector<Answer> answers(failures, Answer(500));
    answers.push_back(Answer(200, "hello"));
    service_.setContents("/a", answers);
    const DetachedTasks tasks = start("/a");
    ASSERT_TRUE(tasks.waitUntilEnded());
    ASSERT_TRUE(outcome().url) << failures;
    EXPECT_EQ(contentsOf(*outcome().url), "hello");
    EXPECT_EQ(outcome().progress, 100);
    fs::remove(*outcome().url);
  }
  EXPECT_THAT(manualSleeper_->durations(), ElementsAre(1s, 1s, 2s, 1s, 2s, 4s));
  EXPECT_EQ(service_.presignCount(), 2U + 3U + 4U);
  EXPECT_EQ(service_.listingCount(), 3U);
}

TEST_F(WholeFileDownloadFailureTest, ItIsRegisteredWhileItWaitsToTryAgain) {
  manualSleeper_ = std::make_shared<ManualSleeper>(ManualSleeper::Mode::held);
  sleeper_ = manualSleeper_;
  service_.setContents("/a", {Answer(200, "abc").announcing(9), Answer(200, "hello")});
  const DetachedTasks tasks = start("/a");
  ASSERT_TRUE(manualSleeper_->waitForSleeps(1));
  ASSERT_EQ(transfers().size(), 1U);
  EXPECT_EQ(transfers()[0].bytesTransferred, 3);
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_EQ(outcome().calls, 0);
  EXPECT_TRUE(manualSleeper_->release());
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_TRUE(outcome().url);
}

/// Is cancelled at once.
class InterruptedSleeper : public platform::Sleeper {
 public:
  Task<void> sleep(std::chrono::nanoseconds) override {
    throw platform::CancellationError();
    co_return;
  }
};

TEST_F(WholeFileDownloadFailureTest, AnInterruptedPauseEndsItWithThePausesError) {
  sleeper_ = std::make_shared<InterruptedSleeper>();
  nextPresign(Answer(503, "busy"));
  const Outcome outcome = fetch("/a");
  EXPECT_NE(dynamic_cast<const platform::CancellationError*>(outcome.error.get()), nullptr);
  expectError(outcome, platform::kNSCocoaErrorDomain, platform::NSCocoaError::userCancelled, "");
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_EQ(log_.records().size(), 1U);
}

TEST_F(WholeFileDownloadFailureTest, ACancelledSessionIsTriedAgainLikeEverythingElse) {
  session_->invalidateAndCancel();
  service_.setContents("/a", {Answer(200, "hello")});
  expectError(fetch("/a"), platform::kNSURLErrorDomain, URLError::cancelled, "");
  EXPECT_EQ(service_.presignCount(), 4U);
  EXPECT_THAT(service_.downloadTargets(), IsEmpty());
}

TEST_F(WholeFileDownloadFailureTest, AFileThatCannotBeMovedIsDownloadedAgain) {
  manualSleeper_ = std::make_shared<ManualSleeper>(ManualSleeper::Mode::held);
  sleeper_ = manualSleeper_;
  const Gate body;
  service_.setContents("/a", {Answer(200, "hello").steppedBy(body), Answer(200, "again")});
  const DetachedTasks tasks = start("/a");
  body.release(1);
  // The file is made with the first byte; by the time of the move there is another directory.
  ASSERT_TRUE(waitUntil([&] { return !service_.storage().temporaryNames().empty(); }));
  platform::setTemporaryDirectory(service_.storage().temporary() / "missing");
  body.open();
  ASSERT_TRUE(manualSleeper_->waitForSleeps(1));
  EXPECT_THAT(log_.messages(), ElementsAre(HasSubstr("No such file or directory")));
  EXPECT_TRUE(waitUntil([&] { return service_.storage().temporaryNames().empty(); }));
  platform::setTemporaryDirectory(service_.storage().temporary());
  manualSleeper_->release();
  ASSERT_TRUE(tasks.waitUntilEnded());
  ASSERT_TRUE(outcome().url);
  EXPECT_EQ(contentsOf(*outcome().url), "again");
}

TEST_F(WholeFileDownloadFailureTest, WithoutATemporaryDirectoryEveryAttemptFails) {
  platform::setTemporaryDirectory(service_.storage().temporary() / "missing");
  service_.setContents("/a", {Answer(200, "hello")});
  expectError(fetch("/a"), platform::kNSURLErrorDomain, URLError::cannotCreateFile, "");
  EXPECT_EQ(service_.presignCount(), 4U);
}

TEST_F(WholeFileDownloadFailureTest, APathThatIsNoTextIsTriedInVain) {
  const DetachedTasks tasks = start("/\xFF");
  ASSERT_TRUE(tasks.waitUntilEnded());
  expectError(outcome(), platform::kNSCocoaErrorDomain, platform::NSCocoaError::coderInvalidValue,
              "");
  EXPECT_EQ(manualSleeper_->durations().size(), 3U);
  EXPECT_EQ(service_.http().requestCount(), 1U);
}

/// Keeps every thread of the shared executor busy but those that were let go.
class BusyExecutor {
 public:
  BusyExecutor() {
    for (std::size_t i = 0; i < kThreads; ++i) {
      boost::asio::post(platform::sharedExecutor(), [this] {
        taken_.count_down();
        const bool granted = permits_.take(1, 60s) == 1;
        EXPECT_TRUE(granted);
        gone_.count_down();
      });
    }
    taken_.wait();
  }
  ~BusyExecutor() {
    permits_.release(kThreads - released_);
    gone_.wait();
  }
  void releaseOneThread() {
    ++released_;
    permits_.release(1);
  }

 private:
  // As many as the executor has.
  const std::size_t kThreads = std::max<std::size_t>(4, std::thread::hardware_concurrency());
  std::latch taken_{static_cast<std::ptrdiff_t>(kThreads)};
  std::latch gone_{static_cast<std::ptrdiff_t>(kThreads)};
  std::size_t released_ = 0;
  const Gate permits_;
};

// Between the moment when the file has its name and the moment when its attributes are read, the task only waits for a
// thread. So everything is put in a row behind one thread: the end of the download, which names the file; then the
// test's own work, which spoils it; then the task.
TEST_F(WholeFileDownloadFailureTest, AttributesThatCannotBeReadEndItAndTheFileIsRemoved) {
  const Gate body;
  service_.setContents("/a", {Answer(200, "hello").steppedBy(body)});
  service_.http().on("GET", "/later", Answer(200, "x"));
  const DetachedTasks tasks = start("/a");
  body.release(1);
  ASSERT_TRUE(waitUntil([&] { return !service_.storage().temporaryNames().empty(); }));
  std::promise<std::string> spoiled;
  {
    BusyExecutor executor;
    body.open();
    ASSERT_TRUE(waitUntil([&] { return progress_->completedUnitCount() == 99; }));
    // What the driver thread does later shows that it has handed over the end of the download.
    std::promise<void> laterSeen;
    const auto later = session_->downloadTask(*platform::URL::parse(service_.http().url("/later")),
                                              [](const auto&, const auto&, const auto&) {});
    later->observe([&laterSeen](platform::DownloadCounts) { laterSeen.set_value(); });
    later->resume();
    ASSERT_EQ(laterSeen.get_future().wait_for(10s), std::future_status::ready);
    boost::asio::post(platform::sharedExecutor(), [this, &spoiled] {
      for (const auto& name : service_.storage().temporaryNames()) {
        if (name.starts_with("download-")) continue;
        const fs::path file = service_.storage().temporary() / name;
        fs::remove(file);
        fs::create_symlink(file, file);  // a loop: it can be removed, but not asked for its size
        spoiled.set_value(name);
      }
    });
    executor.releaseOneThread();
    ASSERT_TRUE(waitUntil([&] { return outcome().calls == 1; }));
  }
  ASSERT_TRUE(tasks.waitUntilEnded());
  ASSERT_EQ(spoiled.get_future().wait_for(0s), std::future_status::ready);
  ASSERT_TRUE(waitUntil([&] { return service_.storage().temporaryNames().empty(); }));
  expectError(outcome(), platform::kNSPOSIXErrorDomain, ELOOP, "");
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_EQ(outcome().transfers.size(), 0U);
  EXPECT_THAT(log_.records(), IsEmpty());
}

}  // namespace
}  // namespace kestrune
