#include "transfer/WholeFileDownload.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "platform/values/Json.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"
#include "transfer/test/DownloadTesting.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using platform::Json;
using platform::NSProgress;
using support::Answer;
using support::contentsOf;
using support::DetachedTasks;
using support::Gate;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr const char* kUUID = "[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}";

/// Writes down each value that a progress takes.
class ProgressLog {
 public:
  explicit ProgressLog(NSProgress& progress)
      : observation_(progress.observe([this](const NSProgress::Snapshot& now) {
          platform::MutexLock lock(mutex_);
          values_.push_back(now.completedUnitCount);
        })) {}
  std::vector<std::int64_t> values() const {
    platform::MutexLock lock(mutex_);
    return values_;
  }

 private:
  mutable platform::Mutex mutex_;
  std::vector<std::int64_t> values_ GUARDED_BY(mutex_);
  NSProgress::Observation observation_;
};

// Observations come about 20 times a second: bytes that follow the last one too soon wait for company.
constexpr std::chrono::milliseconds kTwoObservations(100);

class WholeFileDownloadTest : public DownloadTesting {
 protected:
  bool nothingMovesFor(std::chrono::milliseconds duration) const {
    const std::int64_t now = bytesTransferred();
    return support::staysTrue([&] { return bytesTransferred() == now; }, duration);
  }
};

TEST_F(WholeFileDownloadTest, DeliversTheFileAndItsItem) {
  service_.setListing("/Docs", {{.name = "a.txt", .size = 5}});
  service_.setContents("/Docs/a.txt", {Answer(200, "hello")});
  const Outcome outcome = fetch("/Docs/a.txt");

  ASSERT_TRUE(outcome.url);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(contentsOf(*outcome.url), "hello");
  EXPECT_EQ(outcome.url->parent_path(), service_.storage().temporary());
  EXPECT_THAT(outcome.url->filename().string(), MatchesRegex(kUUID));
  EXPECT_THAT(service_.storage().temporaryNames(), ElementsAre(outcome.url->filename().string()));

  ASSERT_NE(outcome.item, nullptr);
  EXPECT_EQ(outcome.item->itemIdentifier(), "/Docs/a.txt");
  EXPECT_EQ(outcome.item->documentSize(), 5);
  struct stat status {};
  ASSERT_EQ(::stat(outcome.url->c_str(), &status), 0);
  EXPECT_EQ(outcome.item->contentModificationDate(),
            platform::Date(std::chrono::seconds(status.st_mtim.tv_sec) +
                           std::chrono::microseconds(status.st_mtim.tv_nsec / 1000)));
  EXPECT_EQ(outcome.progress, 100);
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(WholeFileDownloadTest, AsksForTheListingAnAddressAndTheContents) {
  service_.setListing("/Docs", {{.name = "a b.txt", .size = 5}});
  service_.setContents("/Docs/a b.txt", {Answer(200, "hello")});
  fetch("/Docs/a b.txt");
  const auto requests = service_.http().requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].target, "/files?path=%2FDocs");
  EXPECT_EQ(requests[1].target, "/files/presign-download");
  EXPECT_EQ(Json::parse(requests[1].body), Json({{"path", "/Docs/a b.txt"}}));
  EXPECT_EQ(requests[2].method, "GET");
  EXPECT_EQ(requests[2].target, "/storage/0?signature=1");
  // The address carries its own authorisation; the token is none of the storage's business.
  EXPECT_THAT(requests[2].headerNames(), ElementsAre("host"));
}

TEST_F(WholeFileDownloadTest, IsRegisteredUntilTheHandlerHasReturned) {
  service_.setListing("/", {{.name = "a.txt", .size = 12}});
  service_.setContents("/a.txt", {Answer(200, "hello")});
  const Outcome outcome = fetch("/a.txt");
  ASSERT_EQ(outcome.transfers.size(), 1U);
  const SyncTransfer& transfer = outcome.transfers[0];
  EXPECT_THAT(transfer.id, MatchesRegex(kUUID));
  EXPECT_EQ(transfer.path, "/a.txt");
  EXPECT_EQ(transfer.direction, SyncTransfer::Direction::download);
  EXPECT_EQ(transfer.totalBytes, 12);       // the listing's word
  EXPECT_EQ(transfer.bytesTransferred, 5);  // the file's own size
  EXPECT_EQ(outcome.item->documentSize(), 5);
  EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(WholeFileDownloadTest, TheExpectedSizeIsTheFirstEntrysOrZero) {
  const struct {
    std::string path;
    std::string parent;
    std::vector<support::ListedEntry> listing;
    std::int64_t expected;
  } cases[] = {
      {"/x", "/", {{.name = "x", .size = 7}}, 7},
      {"/d/x",
       "/d",
       {{.name = "X", .size = 1}, {.name = "x", .size = 7}, {.name = "x", .size = 8}},
       7},
      {"/d/x", "/d", {{.name = "X", .size = 7}, {.name = "x ", .size = 7}}, 0},
      {"/d/x", "/d", {}, 0},
      {"/d/x", "/d", {{.name = "x", .type = "directory", .size = 9}}, 9},
      {"/d/x", "/d", {{.name = "x", .size = -3}}, -3},
      {"x", "/", {{.name = "x", .size = 7}}, 7},
  };
  for (const auto& [path, parent, listing, expected] : cases) {
    service_.setListing(parent, listing);
    service_.setContents(path, {Answer(200, "hello")});
    const DetachedTasks tasks = start(path);
    ASSERT_TRUE(tasks.waitUntilEnded());
    ASSERT_EQ(outcome().transfers.size(), 1U);
    EXPECT_EQ(outcome().transfers[0].totalBytes, expected) << path;
    EXPECT_EQ(outcome().transfers[0].path, path);
    EXPECT_EQ(outcome().item->documentSize(), 5);
  }
}

TEST_F(WholeFileDownloadTest, AnEmptyFileIsAFile) {
  service_.setListing("/", {{.name = "a"}});
  service_.setContents("/a", {Answer(200, "")});
  ProgressLog progress(*progress_);
  const Outcome outcome = fetch("/a");
  ASSERT_TRUE(outcome.url);
  EXPECT_EQ(contentsOf(*outcome.url), "");
  EXPECT_EQ(outcome.item->documentSize(), 0);
  EXPECT_THAT(progress.values(), ElementsAre(100));
}

TEST_F(WholeFileDownloadTest, TheMethodOfThePresignedAnswerIsNotLookedAt) {
  service_.setListing("/", {});
  service_.setContents("/a", {Answer(200, "x")});
  service_.http().next("POST", "/files/presign-download",
                       Answer(200, "{\"url\":\"" + service_.http().url("/storage/0") +
                                       "\",\"method\":\"DELETE\",\"path\":\"\"}"));
  EXPECT_TRUE(fetch("/a").url);
}

TEST_F(WholeFileDownloadTest, ProgressFollowsTheBytesAndStopsAt99) {
  service_.setListing("/", {{.name = "a", .size = 1}});
  const Gate bytes;
  service_.setContents("/a", {Answer(200, std::string(200, 'x')).steppedBy(bytes)});
  const DetachedTasks tasks = start("/a");
  const struct {
    std::uint64_t more;
    std::int64_t received;
    std::int64_t percent;
  } steps[] = {{1, 1, 0}, {1, 2, 1}, {99, 101, 50}, {98, 199, 99}};
  for (const auto& [more, received, percent] : steps) {
    bytes.release(more);
    ASSERT_TRUE(waitUntil([&] { return bytesTransferred() == received; })) << received;
    // The store hears of bytes just before the progress does.
    EXPECT_TRUE(waitUntil([&] { return progress_->completedUnitCount() == percent; })) << received;
    ASSERT_TRUE(nothingMovesFor(kTwoObservations));
  }
  ProgressLog progress(*progress_);
  bytes.open();
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_THAT(progress.values(), ElementsAre(100));
  EXPECT_EQ(outcome().progress, 100);
}

TEST_F(WholeFileDownloadTest, TheLastByteOfTheDownloadIsStill99) {
  service_.setListing("/", {});
  service_.setContents("/a", {Answer(200, "all at once")});
  ProgressLog progress(*progress_);
  fetch("/a");
  EXPECT_THAT(progress.values(), ElementsAre(99, 100));
}

TEST_F(WholeFileDownloadTest, AnUnknownLengthLeavesTheProgressAtZero) {
  for (const bool chunked : {true, false}) {
    const Gate bytes;
    const Answer answer = Answer(200, std::string(300, 'x')).steppedBy(bytes);
    service_.setListing("/", {{.name = "a", .size = 300}});
    service_.setContents("/a", {chunked ? answer.chunked() : answer.withoutLength()});
    progress_->setCompletedUnitCount(0);
    ProgressLog progress(*progress_);
    const DetachedTasks tasks = start("/a");
    bytes.release(100);
    ASSERT_TRUE(waitUntil([&] { return bytesTransferred() == 100; }));
    ASSERT_TRUE(nothingMovesFor(kTwoObservations));
    bytes.release(199);
    ASSERT_TRUE(waitUntil([&] { return bytesTransferred() == 299; }));
    EXPECT_EQ(progress_->completedUnitCount(), 0);
    bytes.open();
    ASSERT_TRUE(tasks.waitUntilEnded());
    EXPECT_THAT(progress.values(), ElementsAre(100));
    EXPECT_EQ(outcome().item->documentSize(), 300);
  }
}

TEST_F(WholeFileDownloadTest, CancellingTheProgressStopsNothing) {
  service_.setListing("/", {});
  service_.setContents("/a", {});
  service_.http().hold("GET", "/storage/0");
  const DetachedTasks tasks = start("/a");
  const auto download = service_.http().nextHeld();
  progress_->cancel();
  EXPECT_TRUE(progress_->isCancelled());
  download.answer(Answer(200, "hello"));
  ASSERT_TRUE(tasks.waitUntilEnded());
  ASSERT_TRUE(outcome().url);
  EXPECT_EQ(contentsOf(*outcome().url), "hello");
  EXPECT_EQ(service_.presignCount(), 1U);
}

TEST_F(WholeFileDownloadTest, SeveralRunAtOnceEachUnderItsOwnId) {
  constexpr std::size_t kFiles = 6;
  std::vector<DetachedTasks> tasks;
  service_.setListing("/", {});
  for (std::size_t i = 0; i < kFiles; ++i) {
    const std::string path = "/" + std::to_string(i);
    service_.setContents(path, {});
    service_.http().hold("GET", "/storage/" + std::to_string(i));
    tasks.push_back(start(path));
  }
  std::vector<support::HeldRequest> held;
  for (std::size_t i = 0; i < kFiles; ++i) held.push_back(service_.http().nextHeld());
  std::set<std::string> ids;
  std::set<std::string> paths;
  for (const auto& transfer : transfers()) {
    ids.insert(transfer.id);
    paths.insert(transfer.path);
  }
  EXPECT_EQ(ids.size(), kFiles);
  EXPECT_EQ(paths.size(), kFiles);
  for (const auto& request : held) request.answer(Answer(200, "x"));
  for (const auto& task : tasks) ASSERT_TRUE(task.waitUntilEnded());
  EXPECT_EQ(outcome().calls, static_cast<int>(kFiles));
  EXPECT_EQ(service_.storage().temporaryNames().size(), kFiles);
}

TEST_F(WholeFileDownloadTest, ALargeFileArrivesWhole) {
  constexpr std::uint64_t kBytes = 20'000'003;
  service_.setListing("/", {});
  service_.setContents("/a", {Answer::pattern(kBytes)});
  const Outcome outcome = fetch("/a");
  ASSERT_TRUE(outcome.url);
  EXPECT_EQ(fs::file_size(*outcome.url), kBytes);
  EXPECT_EQ(contentsOf(*outcome.url), support::patternBytes(0, kBytes));
  EXPECT_EQ(outcome.transfers.at(0).bytesTransferred, static_cast<std::int64_t>(kBytes));
}

}  // namespace
}  // namespace kestrune
