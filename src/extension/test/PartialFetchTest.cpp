// What a partial fetch asks for, reports and delivers when all goes well.
#include <string>
#include <vector>

#include "extension/test/PartialFetchTesting.h"
#include "platform/values/Date.h"

namespace kestrune {
namespace {

using platform::Json;
using platform::NSProgress;
using platform::NSRange;
using support::Answer;
using support::Gate;
using support::waitUntil;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr const char* kUUID = "[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}";
constexpr std::int64_t kGiB = 1 << 30;

using PartialFetchTest = PartialFetchTesting;

TEST_F(PartialFetchTest, DeliversTheRangeInASparseFileOfTheRemoteLength) {
  setFile(kGiB);
  const Outcome outcome = fetch({kGiB - 100'000, 50'000});
  constexpr std::int64_t kStart = (kGiB - 100'000) / 4096 * 4096;
  expectDelivered(outcome, {kStart, kGiB - kStart}, kGiB);
  EXPECT_EQ(outcome.url->parent_path(), service_.storage().temporary());
  EXPECT_THAT(outcome.url->filename().string(), MatchesRegex(std::string("kes-") + kUUID));
  EXPECT_THAT(service_.storage().temporaryNames(), ElementsAre(outcome.url->filename().string()));
  EXPECT_EQ(bytesOf(*outcome.url, 0, 1 << 20), std::string(1 << 20, '\0'));
}

TEST_F(PartialFetchTest, RunsToTheReadAheadsEndAlignedUp) {
  setFile(40 * kMiB);
  const Outcome outcome = fetch({100, 100});
  constexpr std::int64_t kEnd = 32 * kMiB + 4096;
  expectDelivered(outcome, {0, kEnd}, 40 * kMiB);
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-33558527"));
  EXPECT_THAT(lines(), ElementsAre("fetchPartialContents path=/a range=100..200",
                                   "partial fetch sized: 33558528 bytes (read-ahead=33554432)"));
}

TEST_F(PartialFetchTest, EndsWithTheFileAndNotAtABoundary) {
  setFile(10'000'000);
  expectDelivered(fetch({100, 100}), {0, 10'000'000}, 10'000'000);
  expectDelivered(fetch({9'999'999, 1}, 65536), {9'961'472, 38'528}, 10'000'000);
  EXPECT_THAT(ranges(), ElementsAre("bytes=0-9999999", "bytes=9961472-9999999"));
}

TEST_F(PartialFetchTest, TheRangeBeginsAtAMultipleOfTheAlignmentOfAtLeast4096) {
  const struct {
    std::int64_t alignment;
    NSRange expected;
  } cases[] = {{-1, {98'304, 1'696}},   {0, {98'304, 1'696}},    {1, {98'304, 1'696}},
               {4096, {98'304, 1'696}}, {5000, {95'000, 5'000}}, {65'536, {65'536, 34'464}},
               {200'000, {0, 100'000}}};
  setFile(100'000);
  for (const auto& [alignment, expected] : cases) {
    SCOPED_TRACE(alignment);
    expectDelivered(fetch({99'990, 5}, alignment), expected, 100'000);
  }
}

TEST_F(PartialFetchTest, AsksForTheListingAnAddressAndTheBytes) {
  service_.setListing("/Docs", {{.name = "b c", .size = 5000}});
  service_.setContents("/Docs/b c", {Answer(206, std::string(5000, 'x'))});
  ended(startOf("/Docs/b c", {0, 10}, 0));
  const auto requests = service_.http().requests();
  ASSERT_EQ(requests.size(), 3U);
  EXPECT_EQ(requests[0].target, "/files?path=%2FDocs");
  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].target, "/files/presign-download");
  EXPECT_EQ(Json::parse(requests[1].body), Json({{"path", "/Docs/b c"}}));
  EXPECT_EQ(requests[2].method, "GET");
  EXPECT_EQ(requests[2].target, "/storage/0?signature=1");
  // The address carries its own authorisation; the token is none of the storage's business.
  EXPECT_THAT(requests[2].headerNames(), ElementsAre("host", "range"));
  EXPECT_EQ(requests[2].header("Range"), "bytes=0-4999");
}

TEST_F(PartialFetchTest, TheItemIsTheListings) {
  const struct {
    const char* identifier;
    const char* folder;
  } cases[] = {{"/b", "/"}, {"/Docs/b", "/Docs"}};
  for (const auto& [identifier, folder] : cases) {
    service_.setListing(folder, {{.name = "B", .size = 1},
                                 {.name = "b", .size = 9, .modifiedAt = kModified},
                                 {.name = "b", .size = 4}});
    // Longer than listed: the item says what the listing says.
    service_.setContents(identifier, {Answer(200, "more than nine")});
    const Outcome outcome = ended(startOf(identifier, {0, 9}, 0));
    ASSERT_NE(outcome.item, nullptr);
    EXPECT_EQ(outcome.item->itemIdentifier(), identifier);
    EXPECT_EQ(outcome.item->filename(), "b");
    EXPECT_EQ(outcome.item->documentSize(), 9);
    EXPECT_EQ(outcome.item->contentModificationDate(),
              platform::Date(std::chrono::sys_days(std::chrono::year(2021) / 2 / 3) +
                             std::chrono::seconds(4 * 3600 + 5 * 60 + 6)));
  }
}

TEST_F(PartialFetchTest, LogsBeforeAnythingIsAskedFor) {
  setFile(5000);
  const Fetch running = startOf("/a", {100, 100}, 0, [this](const NSProgress&) {
    EXPECT_THAT(lines(), ElementsAre("fetchPartialContents path=/a range=100..200"));
    EXPECT_EQ(service_.http().requestCount(), 0U);
  });
  ended(running);
  const auto record = log_.records().at(1);
  EXPECT_EQ(record.subsystem, "com.orvanta.kestrune.fileprovider");
  EXPECT_EQ(record.category, "extension");
  EXPECT_EQ(record.level, platform::LogLevel::standard);
  EXPECT_EQ(record.format, "fetchPartialContents path=%{public}s range=%ld..%ld");
  const auto sized = log_.records().at(2);
  EXPECT_EQ(sized.level, platform::LogLevel::standard);
  EXPECT_EQ(sized.format, "partial fetch sized: %ld bytes (read-ahead=%ld)");
}

TEST_F(PartialFetchTest, SizesOnlyWhatIsListed) {
  setFile(5000);
  service_.http().hold("GET", "/files");
  const Fetch running = start({100, 100});
  const auto listing = service_.http().nextHeld();
  EXPECT_THAT(lines(), ElementsAre("fetchPartialContents path=/a range=100..200"));
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
  EXPECT_THAT(service_.storage().temporaryNames(), IsEmpty());
  listing.answer(Answer(200, support::listingReply({{.name = "a", .size = 3000}})));
  expectDelivered(ended(running), {0, 3000}, 3000);
}

TEST_F(PartialFetchTest, IsRegisteredWithTheRangesLengthBeforeAnAddressIsAskedFor) {
  setFile(kGiB);
  service_.http().hold("POST", "/files/presign-download");
  const Fetch running = start({kGiB - 10'000, 100});
  const auto presign = service_.http().nextHeld();
  const auto registered = transfers();
  ASSERT_EQ(registered.size(), 1U);
  constexpr std::int64_t kLength = 12'288;
  EXPECT_THAT(registered[0].id, MatchesRegex(kUUID));
  EXPECT_EQ(registered[0].path, "/a");
  EXPECT_EQ(registered[0].totalBytes, kLength);
  EXPECT_EQ(registered[0].bytesTransferred, 0);
  EXPECT_EQ(registered[0].direction, SyncTransfer::Direction::download);
  // The local file has its length before anything is in it.
  const auto names = service_.storage().temporaryNames();
  ASSERT_EQ(names.size(), 1U);
  EXPECT_EQ(std::filesystem::file_size(service_.storage().temporary() / names[0]), kGiB);
  EXPECT_THAT(ranges(), IsEmpty());
  EXPECT_EQ(running.outcome().calls, 0);

  presign.answer(presigned(service_.http().url("/storage/0")));
  const Outcome outcome = ended(running);
  ASSERT_EQ(outcome.transfers.size(), 1U) << "finished before the handler has returned";
  EXPECT_EQ(outcome.transfers[0].id, registered[0].id);
  EXPECT_EQ(outcome.transfers[0].totalBytes, kLength);
  EXPECT_EQ(outcome.transfers[0].bytesTransferred, kLength);
  EXPECT_THAT(transfers(), IsEmpty());
}

TEST_F(PartialFetchTest, TheTotalIsTheRequestedLengthAndAtLeastOne) {
  setFile(5000);
  const struct {
    std::int64_t requested;
    std::int64_t total;
    std::int64_t completed;
  } cases[] = {{0, 1, 0}, {1, 1, 1}, {100, 100, 100}, {70'000, 70'000, 5000}, {-5, 1, -5}};
  for (const auto& [requested, total, completed] : cases) {
    SCOPED_TRACE(requested);
    const Fetch running = startOf("/a", {0, requested}, 0, [&](const NSProgress& progress) {
      EXPECT_EQ(progress.totalUnitCount(), total);
      EXPECT_EQ(progress.completedUnitCount(), 0);
    });
    EXPECT_EQ(ended(running).progress, completed);
    EXPECT_EQ(running.progress().totalUnitCount(), total);
  }
}

TEST_F(PartialFetchTest, ProgressIsSetAtTheEndEvenWhereNothingWasFetched) {
  setFile(0);
  EXPECT_EQ(fetch({0, 5}).progress, 0);
  EXPECT_EQ(fetch({5, -5}).progress, -5);  // what was requested, however odd
}

TEST_F(PartialFetchTest, ProgressAndStatusMoveOncePerMiB) {
  setFile(3 * kMiB + 123);
  const struct {
    std::int64_t requested;
    std::vector<std::int64_t> progress;
    std::vector<std::int64_t> statusBefore;
  } cases[] = {
      {10 * kMiB, {kMiB, 2 * kMiB, 3 * kMiB, 3 * kMiB + 123}, {0, kMiB, 2 * kMiB, 3 * kMiB}},
      {kMiB + 5, {kMiB, kMiB + 5}, {0, kMiB}},
  };
  for (const auto& [requested, expected, statusBefore] : cases) {
    std::vector<std::int64_t> values;
    std::vector<std::int64_t> statuses;
    NSProgress::Observation observation;
    const Fetch running = startOf("/a", {0, requested}, 0, [&](NSProgress& progress) {
      observation = progress.observe([&](const NSProgress::Snapshot& now) {
        values.push_back(now.completedUnitCount);
        statuses.push_back(bytesTransferred());
      });
    });
    ended(running);
    EXPECT_EQ(values, expected);
    EXPECT_EQ(statuses, statusBefore);
  }
}

TEST_F(PartialFetchTest, NothingIsReportedBeforeAWholeMiBIsThere) {
  const Gate bytes;
  setFile(2 * kMiB + 7,
          {[bytes](const std::string& body) { return Answer(206, body).steppedBy(bytes); }});
  const Fetch running = start({0, 2 * kMiB + 7});
  const auto standsAt = [this](std::int64_t count) {
    return waitUntil([&] { return bytesTransferred() == count; }) &&
           support::staysTrue([&] { return bytesTransferred() == count; },
                              std::chrono::milliseconds(100));
  };
  bytes.release(kMiB - 1);
  EXPECT_TRUE(standsAt(0));
  bytes.release(1);
  EXPECT_TRUE(standsAt(kMiB));
  bytes.release(kMiB + 6);
  EXPECT_TRUE(standsAt(2 * kMiB));
  EXPECT_EQ(running.outcome().calls, 0);
  bytes.release(1);
  const Outcome outcome = ended(running);
  ASSERT_EQ(outcome.transfers.size(), 1U);
  EXPECT_EQ(outcome.transfers[0].bytesTransferred, 2 * kMiB + 7);
  expectDelivered(outcome, {0, 2 * kMiB + 7}, 2 * kMiB + 7);
}

TEST_F(PartialFetchTest, CancellingTheProgressChangesNothing) {
  const Gate body;
  setFile(5000, {[body](const std::string& bytes) { return Answer(206, bytes).bodyHeld(body); }});
  const Fetch running = start({0, 5000});
  ASSERT_TRUE(waitUntil([&] { return ranges().size() == 1; }));
  running.progress().cancel();
  body.open();
  expectDelivered(ended(running), {0, 5000}, 5000);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
}

TEST_F(PartialFetchTest, WhatDoesNotMeetTheFileIsNotAskedFor) {
  const struct {
    std::int64_t fileSize;
    NSRange requested;
    std::int64_t alignment;
    NSRange delivered;
    std::int64_t sized;
  } cases[] = {
      {0, {0, 0}, 0, {0, 0}, 0},
      {0, {0, 500}, 0, {0, 0}, 0},
      {0, {5000, 500}, 0, {4096, 0}, -4096},
      {5000, {20'000, 10}, 0, {16'384, 0}, 5000 - 16'384},
      {8192, {8192, 1}, 0, {8192, 0}, 0},
      {5000, {200'000, 10}, 65'536, {196'608, 0}, 5000 - 196'608},
  };
  for (const auto& [fileSize, requested, alignment, delivered, sized] : cases) {
    SCOPED_TRACE(testing::Message() << fileSize << " " << requested.location);
    setFile(fileSize);
    const Outcome outcome = fetch(requested, alignment);
    expectDelivered(outcome, delivered, fileSize);
    ASSERT_EQ(outcome.transfers.size(), 1U);
    EXPECT_EQ(outcome.transfers[0].totalBytes, sized);
    EXPECT_EQ(outcome.progress, 0);
    EXPECT_TRUE(
        lines().back().starts_with("partial fetch sized: " + std::to_string(sized) + " bytes ("))
        << lines().back();
  }
  EXPECT_EQ(service_.presignCount(), 0U);
  EXPECT_THAT(ranges(), IsEmpty());
}

TEST_F(PartialFetchTest, AStartInTheFilesLastBlockIsFetchedFromTheBlocksBeginning) {
  setFile(5000);
  expectDelivered(fetch({6000, 10}), {4096, 904}, 5000);
}

TEST_F(PartialFetchTest, AStartBelowZeroCountsAsZero) {
  setFile(5000);
  expectDelivered(fetch({-300, 100}), {0, 5000}, 5000);
  EXPECT_EQ(lines().front(), "fetchPartialContents path=/a range=-300..-200");
  // An end before the file leaves one block to fetch.
  expectDelivered(fetch({-100'000'000, 1}), {0, 4096}, 5000);
}

// The storage is asked for the bytes that the log line counts; whether they come is no matter here.
TEST_F(PartialFetchTest, EachSequentialRequestReadsFurtherAheadFromTheEndThatWasRequested) {
  const struct {
    NSRange requested;
    const char* sized;
    const char* range;
  } cases[] = {
      {{0, kMiB}, "partial fetch sized: 34603008 bytes (read-ahead=33554432)", "bytes=0-34603007"},
      {{kMiB, kMiB},
       "partial fetch sized: 68157440 bytes (read-ahead=67108864)",
       "bytes=1048576-69206015"},
      {{2 * kMiB, kMiB},
       "partial fetch sized: 135266304 bytes (read-ahead=134217728)",
       "bytes=2097152-137363455"},
      // From the end that was fetched on: far from the one that was requested.
      {{131 * kMiB, kMiB},
       "partial fetch sized: 17825792 bytes (read-ahead=16777216)",
       "bytes=137363456-155189247"},
  };
  setFile(kGiB, {fixed(Answer(404))});
  for (const auto& [requested, sized, range] : cases) {
    const std::size_t linesBefore = lines().size();
    const std::size_t requestsBefore = ranges().size();
    fetch(requested);
    EXPECT_EQ(lines().at(linesBefore + 1), sized);
    EXPECT_EQ(ranges().at(requestsBefore), range);
  }
}

TEST_F(PartialFetchTest, FilesAreToldApartByTheirIdentifiers) {
  service_.setListing("/", {{.name = "a", .size = 0}, {.name = "b", .size = 0}});
  for (const char* identifier : {"/a", "/b", "/a"}) ended(startOf(identifier, {0, kMiB}, 0));
  EXPECT_EQ(lines().at(1), "partial fetch sized: 0 bytes (read-ahead=33554432)");
  EXPECT_EQ(lines().at(3), "partial fetch sized: 0 bytes (read-ahead=33554432)");
  EXPECT_EQ(lines().at(5), "partial fetch sized: 0 bytes (read-ahead=67108864)");
}

TEST_F(PartialFetchTest, TwoFetchesOfOneFileAtOnceHaveAFileEach) {
  setFile(5000);
  service_.http().hold("GET", "/storage/0");
  const Fetch first = start({0, 100});
  const auto firstBytes = service_.http().nextHeld();
  const Fetch second = start({0, 100});
  const auto secondBytes = service_.http().nextHeld();
  EXPECT_EQ(service_.storage().temporaryNames().size(), 2U);
  const auto running = transfers();
  ASSERT_EQ(running.size(), 2U);
  EXPECT_NE(running[0].id, running[1].id);
  secondBytes.answer(Answer(206, support::patternBytes(0, 5000)));
  expectDelivered(ended(second), {0, 5000}, 5000);
  EXPECT_EQ(first.outcome().calls, 0);
  firstBytes.answer(Answer(206, support::patternBytes(0, 5000)));
  expectDelivered(ended(first), {0, 5000}, 5000);
  EXPECT_NE(*first.outcome().url, *second.outcome().url);
}

TEST_F(PartialFetchTest, AnAnswer200IsTakenAsItStands) {
  setFile(100'000, {fixed(Answer(200, support::patternBytes(98'304, 1'696)))});
  expectDelivered(fetch({99'000, 10}), {98'304, 1'696}, 100'000);
  EXPECT_EQ(ranges().size(), 1U);
}

TEST_F(PartialFetchTest, ABodyLongerThanTheRangeIsWrittenAndCounted) {
  for (const int status : {200, 206}) {
    setFile(10'000, {fixed(Answer(status, support::patternBytes(8192, 3000)))});
    const Outcome outcome = fetch({9'000, 5'000});
    ASSERT_TRUE(outcome.url);
    EXPECT_EQ(outcome.range, (NSRange{8192, 3000}));
    EXPECT_TRUE(support::contentsOf(*outcome.url) ==
                std::string(8192, '\0') + support::patternBytes(8192, 3000));
    EXPECT_EQ(outcome.progress, 3000);
    EXPECT_EQ(outcome.transfers.at(0).totalBytes, 1808);
    EXPECT_EQ(outcome.transfers.at(0).bytesTransferred, 3000);
  }
}

TEST_F(PartialFetchTest, AShortAnswerIsGoneOnFromWithoutCountingAsFailure) {
  setFile(3 * kMiB, {onlyFirst(1000), onlyFirst(kMiB + 500), onlyFirst(1), onlyFirst(1),
                     onlyFirst(1), onlyFirst(1), onlyFirst(1), wanted()});
  expectDelivered(fetch({0, 10}), {0, 3 * kMiB}, 3 * kMiB);
  EXPECT_THAT(ranges(),
              ElementsAre("bytes=0-3145727", "bytes=1000-3145727", "bytes=1050076-3145727",
                          "bytes=1050077-3145727", "bytes=1050078-3145727", "bytes=1050079-3145727",
                          "bytes=1050080-3145727", "bytes=1050081-3145727"));
  EXPECT_EQ(service_.presignCount(), 8U);
  EXPECT_EQ(service_.listingCount(), 1U);
  EXPECT_THAT(sleeper_->durations(), IsEmpty());
  EXPECT_EQ(lines().size(), 2U);
}

TEST_F(PartialFetchTest, AFetchOutlivesItsExtension) {
  setFile(5000);
  service_.http().hold("GET", "/storage/0");
  const Fetch running = start({0, 100});
  const auto bytes = service_.http().nextHeld();
  const std::weak_ptr<FileProviderExtension> gone = extension_;
  extension_.reset();
  EXPECT_TRUE(gone.expired());
  bytes.answer(Answer(206, support::patternBytes(0, 5000)));
  expectDelivered(ended(running), {0, 5000}, 5000);
}

}  // namespace
}  // namespace kestrune
