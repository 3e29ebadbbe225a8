#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "api/APIError.h"
#include "platform/net/URLError.h"
#include "transfer/MPError.h"
#include "transfer/MultipartUploader.h"
#include "transfer/test/MultipartTesting.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using platform::NSErrorPtr;
using platform::NSPOSIXError;
using platform::URLError;
using std::chrono::milliseconds;
using std::chrono::seconds;
using support::Answer;
using support::AnswerOutcome;
using support::Gate;
using support::staysTrue;
using ::testing::ElementsAre;
using ::testing::Eq;
using Steps = std::vector<std::string>;

class MultipartUploaderFailureTest : public MultipartTesting {
 protected:
  static void expectMPError(const NSErrorPtr& failure, MPError::Case which,
                            const std::string& description) {
    ASSERT_NE(failure, nullptr);
    const auto* error = dynamic_cast<const MPError*>(failure.get());
    ASSERT_NE(error, nullptr) << failure->localizedDescription();
    EXPECT_EQ(error->which(), which) << error->caseName();
    EXPECT_EQ(error->localizedDescription(), description);
  }

  static void expectURLError(const NSErrorPtr& failure, URLError::Code code) {
    ASSERT_NE(dynamic_cast<const URLError*>(failure.get()), nullptr);
    EXPECT_EQ(failure->code(), code);
  }

  static void expectHTTPError(const NSErrorPtr& failure, int status, const std::string& body) {
    const auto* error = dynamic_cast<const APIError*>(failure.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->status(), status);
    EXPECT_EQ(error->localizedDescription(), APIError::http(status, body).localizedDescription());
  }

  /// The abort says which upload, and came last and once; nothing was reported as done.
  void expectAbortedAfter(Steps before) {
    before.emplace_back("abort");
    EXPECT_EQ(steps(), before);
    EXPECT_EQ(bodyOf(kAbort), Json({{"key", kKey}, {"s3UploadId", kUploadId}}));
    EXPECT_LE(progress_->completedUnitCount(), 99);
    EXPECT_FALSE(log_.contains("done"));
  }
};

// Opening

TEST_F(MultipartUploaderFailureTest, UploadThatCannotBeOpenedIsNotAborted) {
  const struct {
    Answer answer;
    std::string description;
  } cases[] = {
      {Answer(500, "full"), "multipart init: HTTP 500: full"},
      {Answer(404), "multipart init: HTTP 404: "},
      {Answer(200).resettingInHead(0),
       "multipart init: " + URLError(URLError::networkConnectionLost).localizedDescription()},
  };
  for (const auto& [answer, description] : cases) {
    http().on("POST", kInit, answer);
    expectMPError(failureOf(1), MPError::Case::initFailed, description);
  }
  EXPECT_THAT(steps(), ElementsAre("init", "init", "init"));
  EXPECT_EQ(progress_->completedUnitCount(), 0);
}

TEST_F(MultipartUploaderFailureTest, OpeningReplyWithoutItsFieldsIsNotAnOpening) {
  for (const char* reply :
       {"", "{}", "[]", R"({"uploadId":"u","s3UploadId":"s"})", R"({"s3UploadId":"s","key":"k"})",
        R"({"uploadId":"u","s3UploadId":7,"key":"k"})"}) {
    http().on("POST", kInit, Answer(200, reply));
    const NSErrorPtr failure = failureOf(1);
    ASSERT_NE(failure, nullptr) << reply;
    EXPECT_TRUE(failure->localizedDescription().starts_with("multipart init: Decode error: "))
        << failure->localizedDescription();
  }
  EXPECT_EQ(count(kAbort), 0U);
}

TEST_F(MultipartUploaderFailureTest, WithoutAConfigurationNothingIsSent) {
  service_.writeConfiguration("{}");
  expectMPError(failureOf(1), MPError::Case::initFailed,
                "multipart init: API URL or auth token missing");
  EXPECT_EQ(http().requestCount(), 0U);
}

// The file

TEST_F(MultipartUploaderFailureTest, FileThatIsNotThereIsNamed) {
  const fs::path file = directory_.path() / "no such file";
  expectMPError(failureOf(file, 1), MPError::Case::readFailed, "file read: " + file.string());
  expectAbortedAfter({"init"});
}

TEST_F(MultipartUploaderFailureTest, MissingFileIsMissedEvenWhereNothingIsToBeRead) {
  const fs::path file = directory_.path() / "no such file";
  expectMPError(failureOf(file, 0), MPError::Case::readFailed, "file read: " + file.string());
  expectAbortedAfter({"init"});
}

TEST_F(MultipartUploaderFailureTest, DirectoryCannotBeRead) {
  const NSErrorPtr failure = failureOf(directory_.path(), 1);
  ASSERT_NE(dynamic_cast<const NSPOSIXError*>(failure.get()), nullptr);
  EXPECT_EQ(failure->code(), EISDIR);
  expectAbortedAfter({"init"});
}

TEST_F(MultipartUploaderFailureTest, ErrorOfSeekingPassesUnchanged) {
  const fs::path pipe = directory_.path() / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const NSErrorPtr failure = failureOf(pipe, 1);
  ASSERT_NE(dynamic_cast<const NSPOSIXError*>(failure.get()), nullptr);
  EXPECT_EQ(failure->code(), ESPIPE);
  expectAbortedAfter({"init"});
}

TEST_F(MultipartUploaderFailureTest, FileShorterThanSaidFailsBeforeThePartsAddress) {
  expectMPError(failureOf(fileWith("12345"), 7), MPError::Case::readFailed,
                "file read: part 1 short read 5/7");
  expectAbortedAfter({"init"});
}

TEST_F(MultipartUploaderFailureTest, ShortReadNamesItsPart) {
  expectMPError(failureOf(fileOf(kPart + 3), 2 * kPart), MPError::Case::readFailed,
                "file read: part 2 short read 3/10485760");
  EXPECT_FALSE(hasStarted(2));
  EXPECT_EQ(count(kAbort), 1U);
}

// Addresses

TEST_F(MultipartUploaderFailureTest, ErrorOfAPartsAddressPassesUnchanged) {
  http().on("POST", kPartURL, Answer(403, "expired"));
  expectHTTPError(failureOf(1), 403, "expired");
  expectAbortedAfter({"init", "address 1"});
}

TEST_F(MultipartUploaderFailureTest, AddressReplyThatDoesNotDecodePassesUnchanged) {
  http().on("POST", kPartURL, Answer(200, "{}"));
  const NSErrorPtr failure = failureOf(1);
  const auto* error = dynamic_cast<const APIError*>(failure.get());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->which(), APIError::Case::decode);
  expectAbortedAfter({"init", "address 1"});
}

TEST_F(MultipartUploaderFailureTest, TextThatIsNoAddressIsInvalid) {
  std::size_t aborts = 0;
  for (const char* text : {"", "not a url", "http://127.0.0.1/a b", "http://[::1",
                           "http://127.0.0.1/%zz", "http://127.0.0.1/\n"}) {
    http().on("POST", kPartURL, addressReply(text));
    expectMPError(failureOf(1), MPError::Case::partFailed, "part 1: invalid url");
    EXPECT_EQ(count(kAbort), ++aborts) << text;
  }
  EXPECT_EQ(partsStarted(), 0U);
}

TEST_F(MultipartUploaderFailureTest, AddressWithoutAServerFailsInTransport) {
  http().on("POST", kPartURL, addressReply("storage/part/1"));
  expectURLError(failureOf(1), URLError::unsupportedURL);
  expectAbortedAfter({"init", "address 1"});
}

// Answers of the storage

class RefusedPartTest : public MultipartUploaderFailureTest,
                        public testing::WithParamInterface<int> {};

TEST_P(RefusedPartTest, StatusOutside200To299IsNamed) {
  const int status = GetParam();
  setPart(1, Answer(status).with("ETag", "\"there all the same\""));
  expectMPError(failureOf(1), MPError::Case::partFailed, "part 1: HTTP " + std::to_string(status));
  expectAbortedAfter({"init", "address 1", "part 1"});
}

INSTANTIATE_TEST_SUITE_P(, RefusedPartTest,
                         testing::Values(300, 301, 304, 399, 400, 403, 404, 412, 500, 503, 599));

TEST_F(MultipartUploaderFailureTest, AnswerWithoutAnETagIsNoSuccess) {
  for (const int status : {200, 204}) {
    setPart(1, Answer(status).with("X-ETag", "\"no\""));
    expectMPError(failureOf(1), MPError::Case::partFailed, "part 1: missing ETag");
  }
  EXPECT_EQ(count(kAbort), 2U);
  EXPECT_EQ(progress_->completedUnitCount(), 0);
}

TEST_F(MultipartUploaderFailureTest, ErrorNamesThePartThatFailed) {
  setPart(12, Answer(500));
  expectMPError(failureOf(12 * kPart), MPError::Case::partFailed, "part 12: HTTP 500");
  EXPECT_EQ(count(kComplete), 0U);
  EXPECT_EQ(count(kAbort), 1U);
}

TEST_F(MultipartUploaderFailureTest, ErrorOfThePartsTransportPassesUnchanged) {
  setPart(1, Answer(200).closingInHead(0));
  expectURLError(failureOf(1), URLError::networkConnectionLost);
  expectAbortedAfter({"init", "address 1", "part 1"});
}

TEST_F(MultipartUploaderFailureTest, InvalidatedSessionEndsTheUpload) {
  const Gate gate = holdPart(1);
  auto running = start(1);
  ASSERT_TRUE(waitForPart(1));
  session_->invalidateAndCancel();
  expectURLError(running.failure(), URLError::cancelled);
  expectAbortedAfter({"init", "address 1", "part 1"});
}

// One failing part

TEST_F(MultipartUploaderFailureTest, FailingPartCancelsTheOthersAndStartsNoMore) {
  const Gate gate = holdAllParts();
  const Gate failing;
  setPart(5, Answer(500).held(failing));
  auto running = start(20 * kPart);
  ASSERT_TRUE(waitForParts(8));
  failing.open();
  expectMPError(running.failure(), MPError::Case::partFailed, "part 5: HTTP 500");
  for (std::int64_t part = 1; part <= 8; ++part) {
    EXPECT_EQ(http().waitForOutcome(requestOf(part).sequence),
              part == 5 ? AnswerOutcome::finished : AnswerOutcome::abandoned)
        << part;
  }
  EXPECT_EQ(partsAsked(), 8U);
  EXPECT_EQ(count(kComplete), 0U);
  EXPECT_EQ(count(kAbort), 1U);
}

TEST_F(MultipartUploaderFailureTest, OthersAreWaitedForBeforeTheAbort) {
  // Part 1 has been sent and tells the progress so, which takes until the test lets it.
  std::promise<void> told;
  std::promise<void> mayGoOn;
  const auto observation =
      progress_->observe([&, once = false](const platform::NSProgress::Snapshot&) mutable {
        if (std::exchange(once, true)) return;
        told.set_value();
        mayGoOn.get_future().wait_for(seconds(20));
      });
  const Gate failing;
  setPart(2, Answer(500).held(failing));
  auto running = start(2 * kPart);
  ASSERT_TRUE(waitForParts(2));
  ASSERT_EQ(told.get_future().wait_for(seconds(20)), std::future_status::ready);
  failing.open();
  EXPECT_EQ(http().waitForOutcome(requestOf(2).sequence), AnswerOutcome::finished);
  EXPECT_TRUE(staysTrue([&] { return count(kAbort) == 0; }, milliseconds(200)));
  mayGoOn.set_value();
  expectMPError(running.failure(), MPError::Case::partFailed, "part 2: HTTP 500");
  EXPECT_EQ(count(kAbort), 1U);
}

TEST_F(MultipartUploaderFailureTest, FirstErrorIsTheOneReported) {
  const Gate second;
  setPart(1, Answer(503));
  setPart(2, Answer(500).held(second));
  expectMPError(failureOf(2 * kPart), MPError::Case::partFailed, "part 1: HTTP 503");
  EXPECT_EQ(count(kAbort), 1U);
}

// Completing and importing

class FailedCompletionTest : public MultipartUploaderFailureTest {
 protected:
  void expectCompleteFailed(const std::string& description, Steps before) {
    expectMPError(failureOf(1), MPError::Case::completeFailed, description);
    expectAbortedAfter(std::move(before));
  }
  const Steps untilComplete_ = {"init", "address 1", "part 1", "complete"};
  const Steps untilImport_ = {"init", "address 1", "part 1", "complete", "import"};
};

TEST_F(FailedCompletionTest, RefusedCompletionIsNotImported) {
  http().on("POST", kComplete, Answer(409, "parts differ"));
  expectCompleteFailed("multipart complete: HTTP 409: parts differ", untilComplete_);
}

TEST_F(FailedCompletionTest, CompletionThatDoesNotDecodeIsNotImported) {
  http().on("POST", kComplete, Answer(200, R"({"ok":true})"));
  const NSErrorPtr failure = failureOf(1);
  EXPECT_TRUE(failure->localizedDescription().starts_with("multipart complete: Decode error: "));
  expectAbortedAfter(untilComplete_);
}

TEST_F(FailedCompletionTest, LostCompletionIsNotImported) {
  http().on("POST", kComplete, Answer(200).closingInHead(0));
  const URLError lost(URLError::networkConnectionLost);
  expectCompleteFailed("multipart complete: " + lost.localizedDescription(), untilComplete_);
}

TEST_F(FailedCompletionTest, RefusedImportIsAFailedCompletion) {
  http().on("POST", kImport, Answer(507, "no room"));
  expectCompleteFailed("multipart complete: HTTP 507: no room", untilImport_);
}

TEST_F(FailedCompletionTest, LostImportIsAFailedCompletion) {
  http().on("POST", kImport, Answer(200).closingInHead(0));
  const URLError lost(URLError::networkConnectionLost);
  expectCompleteFailed("multipart complete: " + lost.localizedDescription(), untilImport_);
}

TEST_F(FailedCompletionTest, ETagThatIsNoTextCannotBeCompleted) {
  setPart(1, Answer(200).with("ETag", "\"\xFF\""));
  const NSErrorPtr failure = failureOf(1);
  EXPECT_TRUE(failure->localizedDescription().starts_with("multipart complete: "));
  expectAbortedAfter({"init", "address 1", "part 1"});
}

// The abort

TEST_F(MultipartUploaderFailureTest, SuccessIsNotAborted) {
  run(kPart + 1);
  EXPECT_EQ(count(kAbort), 0U);
}

TEST_F(MultipartUploaderFailureTest, AbortIsWaitedFor) {
  setPart(1, Answer(500));
  http().hold("POST", kAbort);
  auto running = start(1);
  const auto abort = http().nextHeld();
  EXPECT_FALSE(running.waitUntilDone(milliseconds(100)));
  abort.answer(Answer(200, "{}"));
  expectMPError(running.failure(), MPError::Case::partFailed, "part 1: HTTP 500");
}

TEST_F(MultipartUploaderFailureTest, FailedAbortIsNotReported) {
  setPart(1, Answer(500));
  for (const Answer& answer : {Answer(500, "no"), Answer(404), Answer(200, R"({"ok":true})"),
                               Answer(200, ""), Answer(200).closingInHead(0)}) {
    http().on("POST", kAbort, answer);
    expectMPError(failureOf(1), MPError::Case::partFailed, "part 1: HTTP 500");
  }
  EXPECT_EQ(count(kAbort), 5U);
}

// Takes five seconds: the time is the promise.
TEST_F(MultipartUploaderFailureTest, HangingAbortHoldsTheErrorFiveSecondsAndGoesOnAlone) {
  setPart(1, Answer(500));
  http().hold("POST", kAbort);
  const auto begun = std::chrono::steady_clock::now();
  auto running = start(1);
  const auto abort = http().nextHeld();
  expectMPError(running.failure(), MPError::Case::partFailed, "part 1: HTTP 500");
  const auto waited = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(waited, seconds(5));
  EXPECT_LT(waited, seconds(10));
  const std::size_t sequence = abort.request().sequence;
  EXPECT_EQ(http().request(sequence).outcome, AnswerOutcome::underway);
  abort.answer(Answer(500, "late"));
  EXPECT_EQ(http().waitForOutcome(sequence), AnswerOutcome::finished);
  EXPECT_EQ(count(kAbort), 1U);
}

// Cancellation of the whole

class CancelledUploadTest : public MultipartUploaderFailureTest {
 protected:
  /// Cancels while the abort is held, so that it shows whether it is waited for.
  NSErrorPtr failureOfCancelled(support::RunningTask<void>& running) {
    http().hold("POST", kAbort);
    running.cancel();
    const auto abort = http().nextHeld();
    EXPECT_FALSE(running.waitUntilDone(milliseconds(50)));
    abort.answer(Answer(200, "{}"));
    return running.failure();
  }
};

TEST_F(CancelledUploadTest, PartsUnderWayEndAndTheUploadIsAborted) {
  const Gate gate = holdAllParts();
  auto running = start(10 * kPart);
  ASSERT_TRUE(waitForParts(8));
  expectURLError(failureOfCancelled(running), URLError::cancelled);
  for (std::int64_t part = 1; part <= 8; ++part) {
    EXPECT_EQ(http().waitForOutcome(requestOf(part).sequence), AnswerOutcome::abandoned) << part;
  }
  EXPECT_EQ(partsAsked(), 8U);
  EXPECT_EQ(count(kComplete), 0U);
  EXPECT_EQ(count(kAbort), 1U);
}

TEST_F(CancelledUploadTest, CompletionIsInterruptedAndTheUploadIsAborted) {
  const Gate gate;
  http().on("POST", kComplete, Answer(200, "{}").held(gate));
  auto running = start(1);
  ASSERT_TRUE(support::waitUntil([&] { return count(kComplete) == 1; }));
  expectMPError(failureOfCancelled(running), MPError::Case::completeFailed,
                "multipart complete: " + URLError(URLError::cancelled).localizedDescription());
  expectAbortedAfter({"init", "address 1", "part 1", "complete"});
}

TEST_F(CancelledUploadTest, OpeningThatIsInterruptedIsNotAborted) {
  const Gate gate;
  http().on("POST", kInit, Answer(200, "{}").held(gate));
  auto running = start(1);
  ASSERT_TRUE(http().waitForRequests(1));
  running.cancel();
  expectMPError(running.failure(), MPError::Case::initFailed,
                "multipart init: " + URLError(URLError::cancelled).localizedDescription());
  EXPECT_EQ(count(kAbort), 0U);
}

// Sizes that no file has

constexpr std::int64_t kLargestSize = std::numeric_limits<std::int64_t>::max();

TEST_F(MultipartUploaderFailureTest, LargestSizeWhosePartsCanBeCounted) {
  http().on("POST", kInit, Answer(500));
  EXPECT_NE(failureOf(fileOf(0), kLargestSize - kPart), nullptr);
  EXPECT_TRUE(log_.contains("begin size=9223372036844290047 parts=879609302220 destPath="));
}

TEST_F(MultipartUploaderFailureTest, SizeWhosePartsCannotBeCountedEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const std::int64_t size : {kLargestSize - kPart + 1, kLargestSize}) {
    EXPECT_DEATH((void)failureOf(fileOf(0), size),
                 Eq("kestrune: fatal: the size of an upload does not fit 64 bits\n"));
  }
}

}  // namespace
}  // namespace kestrune
