// What goes wrong with a partial fetch, what is tried again and from where, and what is left behind: nothing.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "api/APIError.h"
#include "extension/test/PartialFetchTesting.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"
#include "tests/support/DeadEnds.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using platform::NSFileProviderError;
using platform::NSProgress;
using platform::NSRange;
using platform::Task;
using platform::URLError;
using support::Answer;
using support::Gate;
using support::ManualSleeper;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class PartialFetchFailureTest : public PartialFetchTesting {
 protected:
  /// An extension whose pauses are `sleeper`'s.
  void sleepWith(std::shared_ptr<platform::Sleeper> sleeper) {
    FileProviderExtension::Services services;
    services.sleeper = std::move(sleeper);
    extension_ = FileProviderExtension::make(domain_, std::move(services));
  }
  /// The different addresses that the storage was asked at.
  std::set<std::string> targets() const {
    const auto all = service_.downloadTargets();
    return {all.begin(), all.end()};
  }
  /// The descriptor of the one local file that is being written.
  int localDescriptor() const {
    const auto names = service_.storage().temporaryNames();
    if (names.size() != 1) return -1;
    const fs::path file = fs::canonical(service_.storage().temporary() / names[0]);
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (fs::read_symlink(entry.path(), gone) == file) return std::stoi(entry.path().filename());
    }
    return -1;
  }
};

TEST_F(PartialFetchFailureTest, AFailedListingEndsItBeforeAnythingIsRegistered) {
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
    expectError(fetch({0, 10}), domain, code, domain);
  }
  EXPECT_EQ(service_.http().requestCount(), 3U);
  EXPECT_FALSE(fs::exists(statusFile()));
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
  EXPECT_THAT(lines(), testing::Each("fetchPartialContents path=/a range=0..10"));
}

TEST_F(PartialFetchFailureTest, AnItemThatIsGoneEndsItBeforeAnythingIsRegistered) {
  service_.setListing("/", {{.name = "A", .size = 1}, {.name = "a ", .size = 1}});
  expectError(fetch({0, 10}), platform::kNSFileProviderErrorDomain, -1005);
  EXPECT_EQ(service_.http().requestCount(), 1U);
  EXPECT_FALSE(fs::exists(statusFile()));
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(PartialFetchFailureTest, EveryErrorIsTriedSixTimesWithFreshAddresses) {
  const support::RefusingPort nobody;
  const auto http = platform::kNSFileProviderErrorDomain;
  const auto url = platform::kNSURLErrorDomain;
  const struct {
    const char* what;
    Answer presign;
    Answer contents;
    const char* domain;
    std::int64_t code;
  } cases[] = {
      {"presign refused", Answer(403, "x"), Answer(200), APIError::kDomain, 0},
      {"presign no record", Answer(200, "{\"url\":\"u\"}"), Answer(200), APIError::kDomain, 1},
      {"presign breaks off", Answer(200, "{}").closingAt(1), Answer(200), url,
       URLError::networkConnectionLost},
      {"no address", presigned(""), Answer(200), http, -1004},
      {"no URL", presigned("http://h/a b"), Answer(200), http, -1004},
      {"relative URL", presigned("/storage/0"), Answer(200), url, URLError::unsupportedURL},
      {"local file", presigned("file:///etc/passwd"), Answer(200), url, URLError::unsupportedURL},
      {"nobody there", presigned(nobody.origin() + "/a"), Answer(200), url,
       URLError::cannotConnectToHost},
      {"contents 201", presigned(""), Answer(201, "x"), http, -1004},
      {"contents 204", presigned(""), Answer(204), http, -1004},
      {"contents 302", presigned(""), Answer(302, "x"), http, -1004},
      {"contents 404", presigned(""), Answer(404, "x"), http, -1004},
      {"contents 416", presigned(""), Answer(416, "x"), http, -1004},
      {"contents 500", presigned(""), Answer(500), http, -1004},
      {"contents empty", presigned(""), Answer(206), url, URLError::networkConnectionLost},
      {"contents too short", presigned(""), Answer(206, "abc").announcing(10), url,
       URLError::networkConnectionLost},
      {"contents reset", presigned(""), Answer(206, "abc").resettingAt(1), url,
       URLError::networkConnectionLost},
      {"contents without head", presigned(""), Answer(206, "abc").closingInHead(5), url,
       URLError::networkConnectionLost},
  };
  std::size_t presigns = 0;
  std::size_t listings = 0;
  std::size_t sleeps = 0;
  for (const auto& [what, presign, contents, domain, code] : cases) {
    const bool isContents = std::string_view(what).starts_with("contents");
    setFile(5000, {fixed(contents)});
    for (int attempt = 0; attempt < 6 && !isContents; ++attempt) nextPresign(presign);
    const std::set<std::string> before = targets();
    expectError(fetch({0, 10}), domain, code, what);
    EXPECT_EQ(service_.presignCount(), presigns += 6) << what;
    EXPECT_EQ(service_.listingCount(), ++listings) << what;
    EXPECT_EQ(sleeper_->durations().size(), sleeps += 5) << what;
    EXPECT_EQ(targets().size() - before.size(), isContents ? 6U : 0U) << what;
  }
  EXPECT_THAT(ranges(), testing::Each("bytes=0-4999"));
  for (const auto& message : log_.messages()) EXPECT_THAT(message, Not(HasSubstr("signature")));
}

TEST_F(PartialFetchFailureTest, SixFailuresMakeFiveLinesFivePausesAndTheSixthError) {
  setFile(5000);
  for (const char* body : {"one", "two", "three", "four", "five", "six"})
    nextPresign(Answer(503, body));
  const Outcome outcome = fetch({0, 10});
  expectError(outcome, APIError::kDomain, 0);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_EQ(outcome.error->localizedDescription(), "HTTP 503: six");
  EXPECT_EQ(outcome.progress, 0);
  EXPECT_THAT(sleeper_->durations(), ElementsAre(1s, 2s, 4s, 8s, 16s));
  const std::string dash = " \xE2\x80\x94 ";
  EXPECT_THAT(
      lines(),
      ElementsAre(
          "fetchPartialContents path=/a range=0..10",
          "partial fetch sized: 5000 bytes (read-ahead=33554432)",
          "partial fetch attempt 1 failed at 0/5000" + dash + "retrying in 1.0s (HTTP 503: one)",
          "partial fetch attempt 2 failed at 0/5000" + dash + "retrying in 2.0s (HTTP 503: two)",
          "partial fetch attempt 3 failed at 0/5000" + dash + "retrying in 4.0s (HTTP 503: three)",
          "partial fetch attempt 4 failed at 0/5000" + dash + "retrying in 8.0s (HTTP 503: four)",
          "partial fetch attempt 5 failed at 0/5000" + dash +
              "retrying in 16.0s (HTTP 503: five)"));
  const auto record = log_.records().at(3);
  EXPECT_EQ(record.level, platform::LogLevel::standard);
  EXPECT_EQ(record.format, "partial fetch attempt %ld failed at %ld/%ld" + dash +
                               "retrying in %.*fs (%{public}s)");
}

TEST_F(PartialFetchFailureTest, AnyLaterAttemptMaySucceed) {
  for (std::size_t failures = 1; failures <= 5; ++failures) {
    SCOPED_TRACE(failures);
    std::vector<Reply> replies(failures, fixed(Answer(500)));
    replies.push_back(wanted());
    setFile(5000, replies);
    expectDelivered(fetch({0, 10}), {0, 5000}, 5000);
  }
  EXPECT_THAT(sleeper_->durations(),
              ElementsAre(1s, 1s, 2s, 1s, 2s, 4s, 1s, 2s, 4s, 8s, 1s, 2s, 4s, 8s, 16s));
  EXPECT_EQ(service_.presignCount(), 2U + 3U + 4U + 5U + 6U);
  EXPECT_EQ(service_.listingCount(), 5U);
}

TEST_F(PartialFetchFailureTest, AfterABreakTheNextRangeBeginsAtTheFirstByteThatWasNotWritten) {
  setFile(4 * kMiB + 9'000, {breakingOffAfter(kMiB + kMiB / 2), breakingOffAfter(kMiB - 1),
                             breakingOffAfter(2 * kMiB + 1), fixed(Answer(500)), wanted()});
  // Not from the file's beginning: what counts is counted from the range's.
  expectDelivered(fetch({8192, 3 * kMiB}), {8192, 4 * kMiB + 808}, 4 * kMiB + 9'000);
  EXPECT_THAT(ranges(),
              ElementsAre("bytes=8192-4203303", "bytes=1056768-4203303", "bytes=1056768-4203303",
                          "bytes=3153920-4203303", "bytes=3153920-4203303"));
  EXPECT_THAT(sleeper_->durations(), ElementsAre(1s, 2s, 4s, 8s));
  const auto messages = lines();
  ASSERT_EQ(messages.size(), 6U);
  EXPECT_THAT(messages[2], HasSubstr("attempt 1 failed at 1056768/4203304 "));
  EXPECT_THAT(messages[3], HasSubstr("attempt 2 failed at 1056768/4203304 "));
  EXPECT_THAT(messages[4], HasSubstr("attempt 3 failed at 3153920/4203304 "));
  EXPECT_THAT(messages[5], HasSubstr("attempt 4 failed at 3153920/4203304 "));
}

TEST_F(PartialFetchFailureTest, AResetIsResumedLikeAnyBreak) {
  const Gate bytes;
  constexpr std::uint64_t kSent = kMiB + kMiB / 2;
  setFile(3 * kMiB, {[bytes](const std::string& body) {
                       return Answer(206, body).steppedBy(bytes).resettingAt(kSent + 1);
                     },
                     wanted()});
  const Fetch running = start({0, 10});
  bytes.release(kSent);  // a reset drops what has not been read: it waits until the rest is there
  ASSERT_TRUE(waitUntil([&] { return bytesTransferred() == kMiB; }));
  bytes.open();
  expectDelivered(ended(running), {0, 3 * kMiB}, 3 * kMiB);
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-3145727", "bytes=1048576-3145727"));
  EXPECT_THAT(sleeper_->durations(), ElementsAre(1s));
}

TEST_F(PartialFetchFailureTest, AShortAnswerBetweenFailuresResetsNothing) {
  setFile(5000, {fixed(Answer(500)), onlyFirst(1000), fixed(Answer(500)), onlyFirst(1000),
                 fixed(Answer(206)), wanted()});
  expectDelivered(fetch({0, 10}), {0, 5000}, 5000);
  EXPECT_THAT(sleeper_->durations(), ElementsAre(1s, 2s, 4s));
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-4999", "bytes=0-4999", "bytes=1000-4999",
                                    "bytes=1000-4999", "bytes=2000-4999", "bytes=2000-4999"));
}

TEST_F(PartialFetchFailureTest, AnEmptyAnswerIsALostConnection) {
  setFile(5000, {onlyFirst(0), wanted()});
  expectDelivered(fetch({0, 10}), {0, 5000}, 5000);
  EXPECT_EQ(lines().at(2),
            "partial fetch attempt 1 failed at 0/5000 \xE2\x80\x94 retrying in 1.0s (" +
                URLError(URLError::networkConnectionLost).localizedDescription() + ")");
}

TEST_F(PartialFetchFailureTest, TheSixthFailureIsASuccessWhereAllBytesAreThere) {
  const Reply allAndABreak = [](const std::string& bytes) {
    return Answer(206, bytes).announcing(bytes.size() + 10);
  };
  std::vector<Reply> replies(5, fixed(Answer(500)));
  replies.push_back(allAndABreak);
  setFile(2 * kMiB, replies);
  const Outcome outcome = fetch({0, kMiB});
  expectDelivered(outcome, {0, 2 * kMiB}, 2 * kMiB);
  EXPECT_EQ(outcome.progress, kMiB);
  EXPECT_EQ(outcome.transfers.size(), 1U);
  EXPECT_EQ(sleeper_->durations().size(), 5U);
  EXPECT_EQ(ranges().size(), 6U);
}

TEST_F(PartialFetchFailureTest, AnEarlierFailureWithAllBytesThereAsksForNothingMore) {
  setFile(kMiB, {[](const std::string& bytes) {
            return Answer(206, bytes).announcing(bytes.size() + 10);
          }});
  expectDelivered(fetch({0, 10}), {0, kMiB}, kMiB);
  EXPECT_THAT(lines().at(2), HasSubstr("attempt 1 failed at 1048576/1048576 "));
  EXPECT_THAT(sleeper_->durations(), ElementsAre(1s));
  EXPECT_EQ(ranges().size(), 1U);
  EXPECT_EQ(service_.presignCount(), 1U);
}

TEST_F(PartialFetchFailureTest, TheFileAndTheTransferStayWhileItWaitsToTryAgain) {
  const auto sleeper = std::make_shared<ManualSleeper>(ManualSleeper::Mode::held);
  sleepWith(sleeper);
  setFile(3 * kMiB, {breakingOffAfter(kMiB + 5), wanted()});
  const Fetch running = start({0, 10});
  ASSERT_TRUE(sleeper->waitForSleeps(1));
  ASSERT_EQ(transfers().size(), 1U);
  EXPECT_EQ(transfers()[0].bytesTransferred, kMiB);
  EXPECT_EQ(service_.storage().temporaryNames().size(), 1U);
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_EQ(running.outcome().calls, 0);
  EXPECT_TRUE(sleeper->release());
  expectDelivered(ended(running), {0, 3 * kMiB}, 3 * kMiB);
}

/// Is cancelled at once.
class InterruptedSleeper : public platform::Sleeper {
 public:
  Task<void> sleep(std::chrono::nanoseconds) override {
    throw platform::CancellationError();
    co_return;
  }
};

TEST_F(PartialFetchFailureTest, AnInterruptedPauseEndsItWithThePausesError) {
  sleepWith(std::make_shared<InterruptedSleeper>());
  setFile(5000);
  nextPresign(Answer(503, "busy"));
  const Outcome outcome = fetch({0, 10});
  EXPECT_NE(dynamic_cast<const platform::CancellationError*>(outcome.error.get()), nullptr);
  expectError(outcome, platform::kNSCocoaErrorDomain, platform::NSCocoaError::userCancelled);
  EXPECT_EQ(service_.presignCount(), 1U);
}

TEST_F(PartialFetchFailureTest, AnInterruptedPauseIsAnErrorEvenWithAllBytesThere) {
  sleepWith(std::make_shared<InterruptedSleeper>());
  setFile(kMiB, {[](const std::string& bytes) {
            return Answer(206, bytes).announcing(bytes.size() + 10);
          }});
  expectError(fetch({0, 10}), platform::kNSCocoaErrorDomain, platform::NSCocoaError::userCancelled);
}

TEST_F(PartialFetchFailureTest, AfterInvalidationEveryAttemptIsCancelled) {
  setFile(5000);
  extension_->invalidate();
  expectError(fetch({0, 10}), platform::kNSURLErrorDomain, URLError::cancelled);
  EXPECT_EQ(service_.presignCount(), 6U);
  EXPECT_THAT(ranges(), IsEmpty());
}

TEST_F(PartialFetchFailureTest, InvalidationCancelsWhatIsUnderwayAndThatIsTriedAgain) {
  setFile(3 * kMiB,
          {[](const std::string& bytes) { return Answer(206, bytes).stallingAt(kMiB + 1); }});
  const Fetch running = start({0, 10});
  ASSERT_TRUE(waitUntil([&] { return bytesTransferred() == kMiB; }));
  EXPECT_EQ(running.outcome().calls, 0);
  extension_->invalidate();
  expectError(ended(running), platform::kNSURLErrorDomain, URLError::cancelled);
  EXPECT_EQ(service_.presignCount(), 6U);
  EXPECT_EQ(ranges().size(), 1U);
  EXPECT_EQ(sleeper_->durations().size(), 5U);
}

TEST_F(PartialFetchFailureTest, ALocalFileThatCannotBeMadeEndsItAtOnce) {
  const fs::path file = service_.storage().temporary() / "file";
  setFile(5000);
  for (const auto& [directory, code] :
       {std::pair(service_.storage().temporary() / "missing", ENOENT), std::pair(file, ENOTDIR)}) {
    if (code == ENOTDIR) std::ofstream(file) << "in the way";
    platform::setTemporaryDirectory(directory);
    const Outcome outcome = fetch({0, 10});
    fs::remove(file);
    expectError(outcome, platform::kNSPOSIXErrorDomain, code);
  }
  EXPECT_EQ(service_.presignCount(), 0U);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

TEST_F(PartialFetchFailureTest, ALengthThatNoFileCanHaveEndsItAtOnce) {
  setFile(-5000);
  expectError(fetch({0, 10}), platform::kNSPOSIXErrorDomain, EINVAL);
  EXPECT_EQ(lines().at(1), "partial fetch sized: -5000 bytes (read-ahead=33554432)");
  EXPECT_EQ(service_.presignCount(), 0U);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

/// No file of the process grows beyond `bytes` while it lives, as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handlerBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{bytes, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handlerBefore_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handlerBefore_)(int);
  rlimit before_{};
};

TEST_F(PartialFetchFailureTest, ALengthBeyondTheDisksEndsItAtOnce) {
  const FileSizeLimit limit(kMiB);
  setFile(kMiB + 1);
  expectError(fetch({0, 10}), platform::kNSPOSIXErrorDomain, EFBIG);
  EXPECT_EQ(service_.presignCount(), 0U);
}

TEST_F(PartialFetchFailureTest, AFailedWriteIsTriedAgainFromTheLastGoodMiB) {
  const auto sleeper = std::make_shared<ManualSleeper>(ManualSleeper::Mode::held);
  sleepWith(sleeper);
  setFile(3 * kMiB);
  service_.http().hold("POST", "/files/presign-download");
  const Fetch running = start({0, 10});
  const auto presign = service_.http().nextHeld();  // the file has its length now
  std::optional<FileSizeLimit> limit(kMiB + kMiB / 2);
  presign.answer(presigned(service_.http().url("/storage/0")));
  ASSERT_TRUE(sleeper->waitForSleeps(1));
  EXPECT_EQ(bytesTransferred(), kMiB);
  EXPECT_THAT(lines().at(2), HasSubstr("attempt 1 failed at 1048576/3145728 "));
  EXPECT_THAT(lines().at(2), HasSubstr("File too large"));
  limit.reset();
  sleeper->release();
  service_.http().nextHeld().answer(presigned(service_.http().url("/storage/0")));
  expectDelivered(ended(running), {0, 3 * kMiB}, 3 * kMiB);
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-3145727", "bytes=1048576-3145727"));
}

// The handle is exchanged below the fetch while it waits for an address.
TEST_F(PartialFetchFailureTest, AFailedSeekIsTriedAgain) {
  setFile(5000);
  service_.http().hold("POST", "/files/presign-download");
  const Fetch running = start({0, 10});
  const auto presign = service_.http().nextHeld();
  const int descriptor = localDescriptor();
  ASSERT_GE(descriptor, 0);
  const int file = ::dup(descriptor);
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  ASSERT_EQ(::dup2(pipe[1], descriptor), descriptor);
  presign.answer(presigned(service_.http().url("/storage/0")));
  const auto second = service_.http().nextHeld();
  EXPECT_THAT(lines().at(2), HasSubstr("attempt 1 failed at 0/5000 "));
  EXPECT_THAT(lines().at(2), HasSubstr("Illegal seek"));
  EXPECT_THAT(ranges(), IsEmpty()) << "asked for before there was a place for it";
  ASSERT_EQ(::dup2(file, descriptor), descriptor);
  for (const int open : {file, pipe[0], pipe[1]}) ::close(open);
  second.answer(presigned(service_.http().url("/storage/0")));
  expectDelivered(ended(running), {0, 5000}, 5000);
}

// The last bytes are written when the progress moves; the handle is closed behind the fetch's back then. Nobody else
// opens anything meanwhile that could take its number: the status store finds no directory.
TEST_F(PartialFetchFailureTest, AFailedCloseEndsItAndTheFileIsRemoved) {
  setFile(5000);
  NSProgress::Observation observation;
  const Fetch running = startOf("/a", {0, 5000}, 0, [&](NSProgress& progress) {
    observation = progress.observe([this](const NSProgress::Snapshot&) {
      SyncStatusStore::shared().drain();
      service_.storage().blockShared();
      EXPECT_EQ(::close(localDescriptor()), 0);
    });
  });
  const Outcome outcome = ended(running);
  expectError(outcome, platform::kNSPOSIXErrorDomain, EBADF);
  ASSERT_NE(outcome.error, nullptr);
  EXPECT_THAT(outcome.error->localizedDescription(), HasSubstr("close '"));
  EXPECT_FALSE(SyncStatusStore::shared().hasActiveTransfersUnder("/"));
  EXPECT_EQ(service_.presignCount(), 1U);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

using PartialFetchDeathTest = PartialFetchFailureTest;

constexpr const char* kLastLine = "kestrune: fatal: the end of a byte range does not fit 64 bits\n";

TEST_F(PartialFetchDeathTest, ARangeWhoseEndDoesNotFit64BitsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
  for (const NSRange range : {NSRange{kMost, 1}, NSRange{1, kMost}, NSRange{kLeast, -1}}) {
    EXPECT_DEATH(extension_->fetchPartialContents("/a", {}, {}, range, 0, {}, nullptr),
                 testing::StrEq(kLastLine));
  }
}

TEST_F(PartialFetchDeathTest, AReadAheadBeyond64BitsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  setFile(5000);
  EXPECT_DEATH(
      {
        const Fetch running = start({std::numeric_limits<std::int64_t>::max() - 10, 5});
        running.waitUntilEnded();
      },
      testing::StrEq(kLastLine));
}

}  // namespace
}  // namespace kestrune
