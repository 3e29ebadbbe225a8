// Reading from an extension that hands over bytes as they arrive.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>

#include "host/content/test/ReadingHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::NSFileProviderError;
using platform::NSRange;
using support::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::chrono::milliseconds kShort{50};
constexpr std::int64_t kKiB = 1 << 10;
constexpr std::int64_t kUnit = ContentReads::kStreamUnit;

class FileObjectStreamTest : public testing::Test, public ReadingHarness {
 protected:
  FileObjectStreamTest() : ReadingHarness(Parts::asStreams) {}

  void settle() {
    ASSERT_TRUE(waitUntil([&] { return remembered().fetching() == 0; }));
  }
  // As the kernel reads for a program that goes on in order.
  void readInOrder(const FileObjectPtr& object, std::int64_t from, std::int64_t to) {
    constexpr std::int64_t kRead = 256 * kKiB;
    for (std::int64_t at = from; at < to; at += kRead)
      ASSERT_TRUE(read(object, at, kRead) == expected(at, kRead));
  }
};

TEST_F(FileObjectStreamTest, AReadHereOrThereBringsTheUnitsAroundItAlone) {
  const auto object = large();
  EXPECT_EQ(read(object, 5 * kMiB + 10, 4096), expected(5 * kMiB + 10, 4096));
  EXPECT_EQ(read(object, 30 * kMiB - 100, 200), expected(30 * kMiB - 100, 200));
  EXPECT_EQ(read(object, 40 * kMiB - 10, 100), expected(40 * kMiB - 10, 10));
  settle();
  EXPECT_THAT(store().parts(),
              ElementsAre(NSRange{5 * kMiB, kUnit}, NSRange{30 * kMiB - kUnit, 2 * kUnit},
                          NSRange{40 * kMiB - kUnit, kUnit}));
  EXPECT_EQ(object->state().present.byteCount(), 4 * kUnit);
  EXPECT_EQ(object->storedBytes(), 4 * kUnit);
  EXPECT_EQ(remembered().told(), object->state());
  EXPECT_EQ(temporaryFiles(), 0U);
}

TEST_F(FileObjectStreamTest, SmallFilesAreStillFetchedWholeAndOnce) {
  const auto object = large(12);
  store().hold();
  const auto first = startRead(object, 0, 4096);
  const auto second = startRead(object, 11 * kMiB, 4096);
  store().stopHolding();
  EXPECT_TRUE(first.get().ok());
  EXPECT_EQ(bytes(second.get().value(), 11 * kMiB, 4096), expected(11 * kMiB, 4096));
  EXPECT_EQ(store().wholeFetches(), 1);
  EXPECT_THAT(store().parts(), IsEmpty());
}

TEST_F(FileObjectStreamTest, WhoMissesTheEndOfASmallFileWaitsForTheFetchThatIsAboutToBegin) {
  const auto object = large(12);
  Awaited<LocalFilePtr> second;
  remembered().whenFetching([&] { object->read(11 * kMiB, 4096, true, second.reply()); });
  EXPECT_TRUE(startRead(object, 0, 4096).get().ok());
  EXPECT_EQ(bytes(second.get().value(), 11 * kMiB, 4096), expected(11 * kMiB, 4096));
  EXPECT_EQ(store().wholeFetches(), 1);
}

TEST_F(FileObjectStreamTest, NoTwoStreamsBringTheSameBytes) {
  const auto object = large();
  store().hold();
  const auto first = startRead(object, kMiB, 4096);
  ASSERT_TRUE(store().waitForFetches(1));
  const auto both = startRead(object, kMiB - 100, 200);
  ASSERT_TRUE(store().waitForFetches(2));
  EXPECT_THAT(store().parts(), ElementsAre(NSRange{kMiB, kUnit}, NSRange{kMiB - kUnit, kUnit}));
  store().stopHolding();
  EXPECT_TRUE(first.get().ok());
  EXPECT_EQ(bytes(both.get().value(), kMiB - 100, 200), expected(kMiB - 100, 200));
}

TEST_F(FileObjectStreamTest, WhoWaitsIsAnsweredWhileTheRestIsOnItsWay) {
  const auto object = large();
  store().holdStreamsAfter(kMiB);
  const Awaited<Done> filled;
  object->fill(filled.reply());
  EXPECT_EQ(read(object, kMiB - 4096, 4096), expected(kMiB - 4096, 4096));
  EXPECT_FALSE(filled.ready());
  const auto later = startRead(object, kMiB, 4096);
  EXPECT_TRUE(support::staysTrue([&] { return !later.ready(); }, kShort));
  store().holdStreamsAfter(0);
  store().stopHolding();
  EXPECT_EQ(bytes(later.get().value(), kMiB, 4096), expected(kMiB, 4096));
  EXPECT_TRUE(filled.get().ok());
  EXPECT_THAT(store().parts(), SizeIs(1));
}

TEST_F(FileObjectStreamTest, ReadersOfOneRangeShareItsStream) {
  const auto object = large();
  store().hold();
  std::vector<Awaited<LocalFilePtr>> reads;
  for (std::int64_t at : {0, 50, 90, 1}) reads.push_back(startRead(object, at * kKiB, 1024));
  ASSERT_TRUE(store().waitForFetches(1));
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 1; }, kShort));
  store().stopHolding();
  for (const auto& read : reads) EXPECT_TRUE(read.get().ok());
  settle();
  EXPECT_EQ(store().bytesStreamed(), kUnit);
}

TEST_F(FileObjectStreamTest, RequestsGrowForAReaderInOrder) {
  const auto object = large(160);
  readInOrder(object, 0, 150 * kMiB);
  settle();
  const auto parts = store().parts();
  ASSERT_GT(parts.size(), 4U);
  EXPECT_LT(parts.size(), 16U);
  std::int64_t next = 0;
  for (const auto& part : parts) {
    EXPECT_EQ(part.location, next);  // each byte once, in order
    EXPECT_LE(part.length, ContentReads::kMostAsked);
    next = part.location + part.length;
  }
  EXPECT_EQ(parts.back().length,
            std::min(ContentReads::kMostAsked, 160 * kMiB - parts.back().location));
  EXPECT_EQ(store().bytesStreamed(), next);
}

TEST_F(FileObjectStreamTest, InTheLastQuarterTheNextRangeIsOnItsWay) {
  const auto object = large();
  readInOrder(object, 0, 2 * kMiB);
  constexpr std::int64_t here =
      5 * kMiB;  // 256 KiB for the first read, 1 MiB more, and as much again each time
  ASSERT_TRUE(waitUntil([&] { return object->state().present.around(0).end == here; }));
  settle();
  const std::int64_t quarter = here - here / 4;
  const int before = store().fetches();
  store().hold();
  ASSERT_LT(2 * kMiB, quarter);
  ASSERT_NE(object->present(2 * kMiB, static_cast<std::size_t>(quarter - 2 * kMiB - 1)), nullptr);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == before; }, kShort));
  ASSERT_NE(object->present(quarter - 1, 4096), nullptr);
  ASSERT_TRUE(store().waitForFetches(before + 1));
  EXPECT_EQ(store().parts().back(), (NSRange{here, here}));
  // Who comes there meanwhile waits for it, and what follows it is asked for in its turn.
  const auto next = startRead(object, here, 4096);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == before + 1; }, kShort));
  store().stopHolding();
  EXPECT_EQ(bytes(next.get().value(), here, 4096), expected(here, 4096));
}

TEST_F(FileObjectStreamTest, AReaderWhoWaitsHasTheNextRangeOnItsWayAsWell) {
  const auto object = large();
  readInOrder(object, 0, 256 * kKiB);
  settle();
  store().hold();
  const auto second = startRead(object, 256 * kKiB, 256 * kKiB);
  ASSERT_TRUE(store().waitForFetches(2));
  const auto third = startRead(object, 512 * kKiB, 256 * kKiB);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 2; }, kShort));
  const auto fourth = startRead(object, 768 * kKiB, 256 * kKiB);
  ASSERT_TRUE(store().waitForFetches(3));
  EXPECT_THAT(store().parts(), ElementsAre(NSRange{0, 256 * kKiB}, NSRange{256 * kKiB, kMiB},
                                           NSRange{1280 * kKiB, 1280 * kKiB}));
  store().stopHolding();
  for (const auto& read : {second, third, fourth}) EXPECT_TRUE(read.get().ok());
}

TEST_F(FileObjectStreamTest, ReadsHereAndThereFetchNothingAhead) {
  const auto object = large();
  for (std::int64_t at : {19, 5, 16, 9, 12}) EXPECT_EQ(read(object, at * kMiB, 4096).size(), 4096U);
  for (std::int64_t at : {19, 5, 16, 9, 12}) ASSERT_NE(object->present(at * kMiB, 4096), nullptr);
  settle();
  EXPECT_THAT(store().parts(), SizeIs(5));
  EXPECT_EQ(store().bytesStreamed(), 5 * kUnit);
}

TEST_F(FileObjectStreamTest, WhoMissesBytesFarAheadDoesNotWaitForThoseBetween) {
  const auto object = large();
  store().holdStreamsAfter(kMiB);
  const Awaited<Done> filled;
  object->fill(filled.reply());
  ASSERT_TRUE(store().waitForHeld());
  const auto near = startRead(object, 5 * kMiB - 4096, 4096);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 1; }, kShort));
  EXPECT_EQ(read(object, 20 * kMiB, 4096), expected(20 * kMiB, 4096));
  EXPECT_EQ(store().parts().back(), (NSRange{20 * kMiB, kUnit}));
  EXPECT_FALSE(near.ready());
  store().holdStreamsAfter(0);
  store().stopHolding();
  EXPECT_TRUE(near.get().ok());
  EXPECT_TRUE(filled.get().ok());
  settle();
  EXPECT_TRUE(object->state().isWhole());
  // No byte came twice, but for what the first stream gave before it heard that it was to end.
  EXPECT_LE(store().bytesStreamed(), 40 * kMiB + 50'000);
  EXPECT_EQ(read(object, 39 * kMiB, 4096), expected(39 * kMiB, 4096));
}

TEST_F(FileObjectStreamTest, WhatCameBeforeAFailureStaysAndIsNotAskedForAgain) {
  const auto object = large();
  store().holdStreamsAfter(90'001);
  const auto first = startRead(object, 0, 50'000);
  EXPECT_TRUE(first.get().ok());
  const auto second = startRead(object, 0, 95'000);
  EXPECT_TRUE(support::staysTrue([&] { return !second.ready(); }, kShort));
  store().misbehave({.error = NSFileProviderError(NSFileProviderError::serverUnreachable).share()});
  store().release();
  EXPECT_FALSE(second.get().ok());
  settle();
  EXPECT_EQ(object->state().present.text(), "0-90001");
  EXPECT_EQ(remembered().told(), object->state());
  EXPECT_THAT(remembered().failures(), SizeIs(1));
  EXPECT_NE(object->present(0, 90'001), nullptr);
  store().behave();
  store().holdStreamsAfter(0);
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(read(object, 0, 95'000), expected(0, 95'000));
  EXPECT_EQ(store().parts().back().location, 90'001);
}

TEST_F(FileObjectStreamTest, WhatHasNothingStartsAnewWithTheVersionThatIsThere) {
  const auto object = large();
  remembered().whenGone([&] {
    store().put(pattern(30 * kMiB, 2), "2");
    store().behave();
  });
  store().misbehave({.version = "2"});
  EXPECT_EQ(read(object, 20 * kMiB, 100), pattern(30 * kMiB, 2).substr(20 * kMiB, 100));
  EXPECT_EQ(remembered().gone(), 1);
  EXPECT_EQ(object->sizeBytes(), 30 * kMiB);
  EXPECT_THAT(remembered().resizes(), ElementsAre(30 * kMiB));
}

TEST_F(FileObjectStreamTest, AnotherVersionIsNeverMixedIn) {
  const auto object = large();
  EXPECT_EQ(read(object, 0, 100), expected(0, 100));
  const std::string old = expected(0, 100);
  remembered().whenGone([&] { store().put(pattern(40 * kMiB, 2), "2"); });
  store().misbehave({.version = "2"});
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 100).get()), ESTALE);
  EXPECT_EQ(read(object, 0, 100), old);
  store().behave();
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 100).get()), ESTALE);
  EXPECT_EQ(object->state().present.text(), "0-131072");
}

TEST_F(FileObjectStreamTest, TheKernelKnowsTheLengthBeforeAnybodyGetsBytes) {
  large();
  ContentState state;
  state.version = "0";  // and another length, as it was listed
  state.sizeBytes = 20 * kMiB;
  const auto object = with(state);
  object->opened(false);
  remembered().holdResizes();
  const auto read = startRead(object, 0, 4096);
  ASSERT_TRUE(waitUntil([&] { return remembered().resizes().size() == 1; }));
  EXPECT_TRUE(support::staysTrue([&] { return !read.ready(); }, kShort));
  EXPECT_EQ(object->present(0, 10), nullptr);
  remembered().releaseResizes();
  EXPECT_EQ(bytes(read.get().value(), 0, 4096), expected(0, 4096));
}

TEST_F(FileObjectStreamTest, AStreamEndsWhenTheLastOneClosesAndWhatCameStays) {
  const auto object = large();
  readInOrder(object, 0, 3 * kMiB / 4);
  settle();
  constexpr std::int64_t here = kMiB + kMiB / 4;
  ASSERT_EQ(object->state().present.text(), "0-1310720");
  store().holdStreamsAfter(kMiB);
  const auto read = startRead(object, here, 2 * kMiB);
  ASSERT_TRUE(store().waitForHeld());
  object->closed(false);
  EXPECT_FALSE(read.get().ok());
  EXPECT_GE(store().cancelled(), 1);
  store().holdStreamsAfter(0);
  store().stopHolding();
  ASSERT_TRUE(waitUntil([&] { return store().streaming() == 0; }));
  settle();
  EXPECT_EQ(object->state().present.around(0).end, here + kMiB);
  EXPECT_EQ(remembered().told(), object->state());
  EXPECT_THAT(remembered().failures(), IsEmpty());
  object->opened(false);
  EXPECT_EQ(ContentHarness::read(object, here + kMiB, 10), expected(here + kMiB, 10));
  EXPECT_GE(store().parts().back().location, here + kMiB);
}

TEST_F(FileObjectStreamTest, BytesThatAreNotThoseAskedForAreRefused) {
  const auto object = large();
  store().misbehave({.shift = 7});
  EXPECT_EQ(errnoOf(startRead(object, 0, 4096).get()), EIO);
  EXPECT_TRUE(object->state().present.isEmpty());
  store().misbehave({.drops = true});
  timers().advance(FileObject::kFailureHolds);
  EXPECT_FALSE(startRead(object, 0, 4096).get().ok());
  store().misbehave({.answersTwice = true});
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
}

TEST_F(FileObjectStreamTest, BytesWithoutAPlaceAreTheReadersError) {
  const auto object = large();
  ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const auto before = limit;
  limit.rlim_cur = 1000;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const int failed = errnoOf(startRead(object, 0, 4096).get());
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(failed, EFBIG);
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
}

TEST_F(FileObjectStreamTest, ALongStreamIsToldOfWhileItRuns) {
  const auto object = large();
  timers().advance(ContentReads::kTellEvery);
  store().holdStreamsAfter(kMiB);
  const Awaited<Done> filled;
  object->fill(filled.reply());
  ASSERT_TRUE(store().waitForHeld());
  EXPECT_FALSE(remembered().told().present.isEmpty());
  store().release();
  EXPECT_TRUE(filled.get().ok());
  settle();
  EXPECT_EQ(remembered().told(), object->state());
}

TEST_F(FileObjectStreamTest, WhatIsWrittenMeanwhileIsNotCovered) {
  const auto object = large();
  store().holdStreamsAfter(kMiB);
  const Awaited<Done> filled;
  object->fill(filled.reply());
  ASSERT_TRUE(store().waitForHeld());
  EXPECT_EQ(write(object, 2 * kMiB + 5, "mine"), 0);
  store().release();
  EXPECT_TRUE(filled.get().ok());
  EXPECT_EQ(read(object, 2 * kMiB, 12), expected(2 * kMiB, 5) + "mine" + expected(2 * kMiB + 9, 3));
  EXPECT_EQ(read(object, 39 * kMiB, 100), expected(39 * kMiB, 100));
}

TEST_F(FileObjectStreamTest, AStreamUnderWayWhenItIsAbandonedServesThoseWhoWait) {
  const auto object = large();
  store().hold();
  const auto read = startRead(object, 0, 4096);
  ASSERT_TRUE(store().waitForFetches(1));
  object->abandon();
  store().stopHolding();
  EXPECT_EQ(bytes(read.get().value(), 0, 4096), expected(0, 4096));
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 10).get()), ESTALE);
  object->mayGo();
  object->closed(false);
  EXPECT_EQ(filesIn("contents"), 0U);
}

}  // namespace
}  // namespace kestrune::host::test
