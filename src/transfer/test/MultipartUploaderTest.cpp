#include "transfer/MultipartUploader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "transfer/test/MultipartTesting.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using platform::Json;
using platform::LogLevel;
using platform::LogRecord;
using std::chrono::milliseconds;
using support::Answer;
using support::Gate;
using support::patternBytes;
using support::runTask;
using support::sha256Hex;
using support::staysTrue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MultipartUploaderTest : public MultipartTesting {
 protected:
  static std::string digestOf(const fs::path& file, std::int64_t offset, std::int64_t length) {
    std::ifstream stream(file, std::ios::binary);
    std::string bytes(static_cast<std::size_t>(length), '\0');
    stream.seekg(offset).read(bytes.data(), length);
    return sha256Hex(bytes);
  }

  /// The ETags as the service was told them, in its order.
  std::vector<std::string> completedETags() const {
    std::vector<std::string> etags;
    const Json body = bodyOf(kComplete);
    for (const Json& part : body.at("parts")) etags.push_back(part.at("Etag"));
    return etags;
  }

  [[nodiscard]] bool waitForProgress(std::int64_t percent) const {
    return support::waitUntil([&] { return progress_->completedUnitCount() == percent; });
  }

  // Linux: what the process holds open is listed in /proc.
  static bool isOpen(const fs::path& file) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
      if (fs::read_symlink(entry.path(), ignored) == file) return true;
    }
    return false;
  }
};

// The steps

TEST_F(MultipartUploaderTest, TakesItsStepsInOrder) {
  run(5);
  EXPECT_THAT(steps(), ElementsAre("init", "address 1", "part 1", "complete", "import"));
}

TEST_F(MultipartUploaderTest, TellsTheServiceWhatItNeedsToKnow) {
  run(kPart + 1);
  EXPECT_EQ(bodyOf(kInit), Json({{"path", kDestination}}));
  EXPECT_EQ(bodyOf(kPartURL).at("key"), kKey);
  EXPECT_EQ(bodyOf(kPartURL).at("s3UploadId"), kUploadId);
  EXPECT_TRUE(bodyOf(kPartURL).at("partNumber").is_number_integer());
  EXPECT_EQ(bodyOf(kPartURL).size(), 3U);
  EXPECT_EQ(bodyOf(kComplete), Json::parse(R"({"key": "uploads/k 1", "s3UploadId": "s3+77==",
      "parts": [{"PartNumber": 1, "Etag": "\"etag-1\""}, {"PartNumber": 2, "Etag": "\"etag-2\""}]})"));
  EXPECT_EQ(bodyOf(kImport), Json({{"key", kKey}, {"path", kDestination}}));
}

TEST_F(MultipartUploaderTest, PartsAreCutEveryTenMebibytes) {
  const struct {
    std::int64_t size;
    std::vector<std::int64_t> lengths;
  } cases[] = {
      {1, {1}},
      {kPart - 1, {kPart - 1}},
      {kPart, {kPart}},
      {kPart + 1, {kPart, 1}},
      {20'971'520, {kPart, kPart}},
      {20'971'521, {kPart, kPart, 1}},
  };
  const fs::path file = fileWith(patternBytes(0, 20'971'600));
  for (const auto& [size, lengths] : cases) {
    const std::size_t before = partsAsked();
    runTask(upload(file, size));
    EXPECT_EQ(partsAsked() - before, lengths.size()) << size;
    for (std::size_t i = 0; i < lengths.size(); ++i) {
      const auto request = requestOf(static_cast<std::int64_t>(i) + 1);
      const auto offset = static_cast<std::int64_t>(i) * kPart;
      EXPECT_EQ(request.bodyBytes, static_cast<std::uint64_t>(lengths[i])) << size;
      EXPECT_EQ(request.bodySha256, digestOf(file, offset, lengths[i])) << size << " part " << i;
    }
    EXPECT_EQ(completedETags().size(), lengths.size()) << size;
  }
}

TEST_F(MultipartUploaderTest, NothingIsCompletedWithAnEmptyListAndImported) {
  run(0);
  EXPECT_THAT(steps(), ElementsAre("init", "complete", "import"));
  EXPECT_EQ(bodyOf(kComplete).at("parts"), Json::array());
  EXPECT_EQ(progress_->completedUnitCount(), 100);
}

TEST_F(MultipartUploaderTest, PartIsSentAsThePlainBytes) {
  runTask(upload(fileWith("hello"), 5));
  const auto request = requestOf(1);
  EXPECT_EQ(request.method, "PUT");
  EXPECT_EQ(request.target, "/storage/part/1?X-Signature=a%2Fb%3D&n=1");
  EXPECT_EQ(request.body, "hello");
  // The address carries its own authorisation, and a type would have to be signed with it.
  EXPECT_THAT(request.headerNames(), ElementsAre("content-length", "host"));
  EXPECT_EQ(request.header("Content-Length"), "5");
}

TEST_F(MultipartUploaderTest, PartHasATimeOfItsOwnToBeAnsweredIn) {
  platform::URLSessionConfiguration impatient;
  impatient.timeoutIntervalForRequest = milliseconds(100);
  session_ = std::make_shared<platform::URLSession>(impatient);
  setPart(1, stored(1).headAfter(milliseconds(500)));
  run(1);
  EXPECT_EQ(count(kImport), 1U);
}

// The parts in flight

TEST_F(MultipartUploaderTest, EightPartsAreInFlightAndTheNextStartsWhenOneHasEnded) {
  constexpr std::int64_t kParts = 20;
  const Gate gate = holdAllParts();
  auto running = start(kParts * kPart);
  for (std::int64_t ended = 0; ended <= kParts; ++ended) {
    const auto expected = static_cast<std::size_t>(std::min(kParts, ended + 8));
    ASSERT_TRUE(waitForParts(expected)) << ended;
    if (ended < 3)
      EXPECT_TRUE(staysTrue([&] { return partsAsked() == expected; }, milliseconds(50)));
    for (std::int64_t part = 1; part <= kParts; ++part) {
      EXPECT_EQ(hasStarted(part), part <= ended + 8) << part << " after " << ended;
    }
    EXPECT_EQ(count(kComplete), 0U);
    if (ended < kParts) gate.release();
    if (ended + 1 == kParts) break;
  }
  running.value();
  EXPECT_EQ(completedETags().size(), static_cast<std::size_t>(kParts));
}

TEST_F(MultipartUploaderTest, FewerPartsThanEightAllStartAtOnce) {
  const Gate gate = holdAllParts();
  auto running = start(3 * kPart);
  ASSERT_TRUE(waitForParts(3));
  gate.open();
  running.value();
  EXPECT_EQ(partsAsked(), 3U);
}

#ifndef KESTRUNE_SANITIZED  // sanitizers keep what is freed
long peakMemoryMebibytes() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss >> 10;
}

// The store's own memory, a mebibyte a part and the buffers of its connections, is in here too.
TEST_F(MultipartUploaderTest, MemoryIsThatOfThePartsInFlight) {
  constexpr std::int64_t kParts = 40;
  const long before = peakMemoryMebibytes();
  run(kParts * kPart);
  EXPECT_LT(peakMemoryMebibytes() - before, 8 * 10 + kParts + 60);
}
#endif

TEST_F(MultipartUploaderTest, PartIsReadWhenItsTurnHasCome) {
  const fs::path file = fileOf(9 * kPart);
  const Gate gate = holdAllParts();
  auto running = start(file, 9 * kPart);
  ASSERT_TRUE(waitForParts(8));
  std::fstream(file, std::ios::binary | std::ios::in | std::ios::out).seekp(8 * kPart) << "changed";
  gate.open();
  running.value();
  EXPECT_EQ(requestOf(9).body.substr(0, 7), "changed");
}

TEST_F(MultipartUploaderTest, PartIsReadBeforeItsAddressIsAskedFor) {
  const fs::path file = fileWith("before");
  http().on("POST", kPartURL, [&](const support::ReceivedRequest&) {
    directory_.write("source.bin", "after!");
    return addressOf(1);
  });
  runTask(upload(file, 6));
  EXPECT_EQ(requestOf(1).body, "before");
}

TEST_F(MultipartUploaderTest, PartsAreCompletedInTheirOrderWhateverTheyFinishedIn) {
  Gate gates[] = {holdPart(1), holdPart(2), holdPart(3)};
  auto running = start(3 * kPart);
  ASSERT_TRUE(waitForParts(3));
  gates[2].open();
  ASSERT_TRUE(waitForProgress(33));
  gates[0].open();
  ASSERT_TRUE(waitForProgress(66));
  EXPECT_EQ(count(kComplete), 0U);
  gates[1].open();
  running.value();
  EXPECT_THAT(completedETags(), ElementsAre(etagOf(1), etagOf(2), etagOf(3)));
}

TEST_F(MultipartUploaderTest, SessionsOwnBoundHoldsPartsBack) {
  platform::URLSessionConfiguration narrow;
  narrow.httpMaximumConnectionsPerHost = 1;
  session_ = std::make_shared<platform::URLSession>(narrow);
  run(3 * kPart);
  EXPECT_THAT(completedETags(), ElementsAre(etagOf(1), etagOf(2), etagOf(3)));
}

// What the storage answers

TEST_F(MultipartUploaderTest, ETagPassesAsReceived) {
  const struct {
    std::string header;
    std::string value;
  } cases[] = {
      {"ETag", "\"9b2cf5\""}, {"etag", "unquoted"},      {"ETAG", "W/\"weak\""},
      {"Etag", "\"\""},       {"eTaG", "\"a, b; c:d\""}, {"ETag", "\"\\ '%22 \xC3\xBC\""},
      {"ETag", "\"unclosed"}, {"ETag", "\"UPPER-2\""},
  };
  for (const auto& [header, value] : cases) {
    setPart(1, Answer(200).with(header, value));
    run(1);
    EXPECT_THAT(completedETags(), ElementsAre(value)) << header;
  }
}

TEST_F(MultipartUploaderTest, EveryStatusFrom200To299Succeeds) {
  for (const int status : {200, 201, 204, 206, 299}) {
    setPart(1, Answer(status).with("ETag", "\"s\""));
    run(1);
    EXPECT_THAT(completedETags(), ElementsAre("\"s\"")) << status;
  }
}

TEST_F(MultipartUploaderTest, BodyOfAStoragesAnswerIsNobodysBusiness) {
  setPart(1, Answer(200, "<Error>no</Error>").with("ETag", "\"s\""));
  run(1);
  EXPECT_THAT(completedETags(), ElementsAre("\"s\""));
}

TEST_F(MultipartUploaderTest, InformationalAnswerIsNotTheAnswer) {
  setPart(1, stored(1).afterInformational(2));
  run(1);
  EXPECT_THAT(completedETags(), ElementsAre(etagOf(1)));
}

// The progress

TEST_F(MultipartUploaderTest, ProgressFollowsTheBytesSentRoundedDown) {
  Gate gates[] = {holdPart(1), holdPart(2), holdPart(3)};
  const ProgressValues values(*progress_);
  auto running = start(20'971'521);
  ASSERT_TRUE(waitForParts(3));
  EXPECT_THAT(values.taken(), IsEmpty());
  gates[0].open();
  ASSERT_TRUE(waitForProgress(49));  // 49.9999976…
  gates[2].open();
  ASSERT_TRUE(waitForProgress(50));  // one byte more
  gates[1].open();
  running.value();
  EXPECT_THAT(values.taken(), ElementsAre(49, 50, 99, 100));
}

TEST_F(MultipartUploaderTest, ProgressOfPartsThatEndSideBySideRisesInSteps) {
  const ProgressValues values(*progress_);
  const Gate gate = holdAllParts();
  auto running = start(20 * kPart);
  ASSERT_TRUE(waitForParts(8));
  gate.open();
  running.value();
  EXPECT_THAT(values.taken(), ElementsAre(5, 10, 15, 20, 25, 30, 35, 40, 45, 50, 55, 60, 65, 70, 75,
                                          80, 85, 90, 95, 99, 100));
}

TEST_F(MultipartUploaderTest, ProgressIsNotWholeBeforeTheFileIsImported) {
  http().hold("POST", kComplete);
  http().hold("POST", kImport);
  auto running = start(1);
  const auto complete = http().nextHeld();
  EXPECT_EQ(progress_->completedUnitCount(), 99);
  complete.answer(Answer(200, "{}"));
  const auto import = http().nextHeld();
  EXPECT_EQ(progress_->completedUnitCount(), 99);
  EXPECT_FALSE(running.isDone());
  import.answer(Answer(200));
  running.value();
  EXPECT_EQ(progress_->completedUnitCount(), 100);
}

// The file

TEST_F(MultipartUploaderTest, FileIsOpenUntilItIsImportedAndThenNoMore) {
  const fs::path file = fs::canonical(fileOf(1));
  http().hold("POST", kInit);
  http().hold("POST", kImport);
  auto running = start(file, 1);
  const auto init = http().nextHeld();
  EXPECT_FALSE(isOpen(file));
  init.answer(Answer(200, Json{{"uploadId", ""}, {"s3UploadId", ""}, {"key", ""}}.dump()));
  const auto import = http().nextHeld();
  EXPECT_TRUE(isOpen(file));
  import.answer(Answer(200));
  running.value();
  EXPECT_FALSE(isOpen(file));
}

TEST_F(MultipartUploaderTest, FileIsClosedBeforeTheUploadIsAborted) {
  const fs::path file = fs::canonical(fileOf(1));
  setPart(1, Answer(500));
  bool wasOpen = true;
  http().on("POST", kAbort, [&](const support::ReceivedRequest&) {
    wasOpen = isOpen(file);
    return Answer(200, "{}");
  });
  EXPECT_NE(failureOf(file, 1), nullptr);
  EXPECT_FALSE(wasOpen);
}

// The log

class MultipartLogTest : public MultipartUploaderTest {
 protected:
  /// The formats logged, every line being one of the category's at the default level.
  std::vector<std::string> formats() const {
    std::vector<std::string> formats;
    for (const LogRecord& record : log_.records()) {
      EXPECT_EQ(record.subsystem, "com.orvanta.kestrune.fileprovider");
      EXPECT_EQ(record.category, "multipart");
      EXPECT_EQ(record.level, LogLevel::standard);
      formats.push_back(record.format);
    }
    return formats;
  }
  static constexpr const char* kBegin = "begin size=%lld parts=%ld destPath=%{public}s";
  static constexpr const char* kOpened = "s3UploadId=%{public}s key=%{public}s";
  static constexpr const char* kDone = "done destPath=%{public}s";
};

TEST_F(MultipartLogTest, SuccessIsThreeLines) {
  run(20'971'521);
  EXPECT_THAT(formats(), ElementsAre(kBegin, kOpened, kDone));
  EXPECT_THAT(
      log_.messages(),
      ElementsAre("begin size=20971521 parts=3 destPath=/Videos/large file.bin",
                  "s3UploadId=s3+77== key=uploads/k 1", "done destPath=/Videos/large file.bin"));
}

TEST_F(MultipartLogTest, EachLineComesWithItsStep) {
  http().hold("POST", kInit);
  http().hold("POST", kImport);
  auto running = start(0);
  const auto init = http().nextHeld();
  EXPECT_THAT(log_.messages(), ElementsAre("begin size=0 parts=0 destPath=/Videos/large file.bin"));
  init.answer(Answer(200, Json{{"uploadId", ""}, {"s3UploadId", ""}, {"key", ""}}.dump()));
  const auto import = http().nextHeld();
  EXPECT_THAT(formats(), ElementsAre(kBegin, kOpened));
  import.answer(Answer(200));
  running.value();
  EXPECT_THAT(formats(), ElementsAre(kBegin, kOpened, kDone));
}

TEST_F(MultipartLogTest, FailureIsNotDone) {
  http().on("POST", kImport, Answer(500));
  EXPECT_NE(failureOf(1), nullptr);
  EXPECT_THAT(formats(), ElementsAre(kBegin, kOpened));
}

TEST_F(MultipartLogTest, UploadThatWasNotOpenedHasOnlyBegun) {
  http().on("POST", kInit, Answer(500));
  EXPECT_NE(failureOf(1), nullptr);
  EXPECT_THAT(formats(), ElementsAre(kBegin));
}

}  // namespace
}  // namespace kestrune
