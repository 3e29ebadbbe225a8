#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "host/content/test/ReadingHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

namespace fs = std::filesystem;
using platform::NSFileProviderError;
using platform::NSRange;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::chrono::milliseconds kShort{50};

class FileObjectReadTest : public testing::Test, public ReadingHarness {
 protected:
  void settle() {
    ASSERT_TRUE(support::waitUntil([&] { return remembered().fetching() == 0; }));
  }
};

TEST_F(FileObjectReadTest, NothingIsFetchedBeforeTheFirstRead) {
  const auto object = small();
  EXPECT_EQ(object->present(0, 5), nullptr);
  EXPECT_EQ(object->storedBytes(), 0);
  const Awaited<LocalFilePtr> refused;
  object->read(0, 5, false, refused.reply());
  EXPECT_EQ(errnoOf(refused.get()), ENODATA);
  EXPECT_EQ(store().fetches(), 0);
}

TEST_F(FileObjectReadTest, ASmallFileIsFetchedWholeAndTakenOverByARename) {
  const auto object = small();
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_EQ(store().wholeFetches(), 1);
  EXPECT_THAT(store().parts(), IsEmpty());
  settle();
  EXPECT_EQ(temporaryFiles(), 0U);
  EXPECT_TRUE(object->state().isWhole());
  EXPECT_EQ(remembered().told(), object->state());
  struct stat status = {};
  ASSERT_EQ(::stat((replica() / "contents" / "101").c_str(), &status), 0);
  EXPECT_EQ(status.st_ino, store().lastInode());  // no copy
}

TEST_F(FileObjectReadTest, TheFirstPartIsTakenOverByARename) {
  const auto object = large();
  EXPECT_EQ(read(object, 5 * kMiB, 4096), expected(5 * kMiB, 4096));
  EXPECT_THAT(store().parts(), ElementsAre(NSRange{5 * kMiB, kMiB}));
  EXPECT_EQ(object->state().present.text(), "5242880-6291456");
  EXPECT_GE(object->storedBytes(), kMiB);
  EXPECT_LE(object->storedBytes(), 2 * kMiB);
  struct stat status = {};
  ASSERT_EQ(::stat((replica() / "contents" / "101").c_str(), &status), 0);
  EXPECT_EQ(status.st_ino, store().lastInode());
}

TEST_F(FileObjectReadTest, OnlyWhatIsMissingIsAskedForAndWhateverRangeComesIsTaken) {
  store().setReadAhead(3 * kMiB);
  const auto object = large();
  EXPECT_EQ(read(object, 10, 100), expected(10, 100));
  EXPECT_NE(object->present(4 * kMiB - 10, 10), nullptr);
  EXPECT_EQ(object->present(4 * kMiB - 10, 11), nullptr);
  EXPECT_EQ(read(object, 4 * kMiB - 10, 20), expected(4 * kMiB - 10, 20));
  EXPECT_THAT(store().parts(), ElementsAre(NSRange{0, kMiB}, NSRange{4 * kMiB, kMiB}));
  EXPECT_EQ(object->state().present.text(), "0-8388608");
  EXPECT_EQ(read(object, 40 * kMiB - 10, 100), expected(40 * kMiB - 10, 10));
  EXPECT_EQ(store().parts().back(), (NSRange{39 * kMiB, kMiB}));
}

TEST_F(FileObjectReadTest, ConcurrentReadersShareOneFetch) {
  const auto object = large();
  store().setReadAhead(16 * kMiB);
  store().hold();
  std::vector<Awaited<LocalFilePtr>> reads;
  for (std::int64_t at : {0, 1, 2, 3, 16}) reads.push_back(startRead(object, at * kMiB, 4096));
  const auto other = startRead(object, 30 * kMiB, 4096);
  ASSERT_TRUE(store().waitForFetches(2));
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 2; }, kShort));
  store().stopHolding();
  for (const auto& read : reads) EXPECT_TRUE(read.get().ok());
  EXPECT_TRUE(other.get().ok());
  EXPECT_EQ(store().fetches(), 2);
}

TEST_F(FileObjectReadTest, WhoWaitedForMoreThanCameGetsAFetchOfItsOwn) {
  const auto object = large();
  store().hold();
  const auto first = startRead(object, 0, 4096);
  const auto second = startRead(object, 8 * kMiB, 4096);
  ASSERT_TRUE(store().waitForFetches(1));
  store().stopHolding();
  EXPECT_EQ(bytes(second.get().value(), 8 * kMiB, 4096), expected(8 * kMiB, 4096));
  EXPECT_THAT(store().parts(), ElementsAre(NSRange{0, kMiB}, NSRange{8 * kMiB, kMiB}));
}

TEST_F(FileObjectReadTest, TheNextRangeIsOnItsWayBeforeItIsMissed) {
  store().setReadAhead(3 * kMiB);
  const auto object = large();
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
  settle();
  store().hold();
  ASSERT_NE(object->present(0, kMiB), nullptr);
  ASSERT_NE(object->present(kMiB, kMiB), nullptr);
  ASSERT_NE(object->present(2 * kMiB, kMiB / 2), nullptr);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 1; }, kShort));
  ASSERT_NE(object->present(2 * kMiB + kMiB / 2, kMiB), nullptr);
  ASSERT_TRUE(store().waitForFetches(2));
  EXPECT_EQ(store().parts().back(), (NSRange{4 * kMiB, 4 * kMiB}));
  // Who comes there meanwhile waits for it.
  const auto next = startRead(object, 4 * kMiB, 4096);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 2; }, kShort));
  store().stopHolding();
  EXPECT_EQ(bytes(next.get().value(), 4 * kMiB, 4096), expected(4 * kMiB, 4096));
}

TEST_F(FileObjectReadTest, ReadsHereAndThereFetchNothingAhead) {
  store().setReadAhead(19 * kMiB);
  const auto object = large();
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
  for (std::int64_t at : {19, 5, 16, 9, 12}) ASSERT_NE(object->present(at * kMiB, 4096), nullptr);
  EXPECT_TRUE(support::staysTrue([&] { return store().fetches() == 1; }, kShort));
}

TEST_F(FileObjectReadTest, AFailureAnswersAllWhoWaitAndForASecondWhoeverComes) {
  const auto object = small();
  store().hold();
  const auto one = startRead(object, 0, 1);
  const auto other = startRead(object, 4, 1);
  ASSERT_TRUE(store().waitForFetches(1));
  store().misbehave({.error = platform::NSPOSIXError(ENETDOWN, "reach the store").share()});
  store().stopHolding();
  EXPECT_EQ(errnoOf(one.get()), ENETDOWN);
  EXPECT_EQ(errnoOf(other.get()), ENETDOWN);
  EXPECT_EQ(errnoOf(startRead(object, 0, 1).get()), ENETDOWN);
  EXPECT_EQ(store().fetches(), 1);
  EXPECT_THAT(remembered().failures(), ElementsAre(ENETDOWN));
  store().behave();
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(readAll(object), "hello");
  settle();
}

TEST_F(FileObjectReadTest, AnswersThatCannotBeAreErrorsAndLeaveNothing) {
  const std::vector<Misbehaviour> all = {
      {.extraBytes = -1},
      {.extraBytes = 1},
      {.range = NSRange{0, 41 * kMiB}},
      {.range = NSRange{-1, 5}},
      {.range = NSRange{5, -1}},
      {.range = NSRange{10, std::numeric_limits<std::int64_t>::max()}},
      {.range = NSRange{30 * kMiB, kMiB}},
      {.forgetsFile = true},
  };
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto object = large();
    EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
    store().misbehave(all[i]);
    EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 4096).get()), EIO) << i;
    store().behave();
    timers().advance(FileObject::kFailureHolds);
    EXPECT_EQ(read(object, 20 * kMiB, 4096), expected(20 * kMiB, 4096)) << i;
    settle();
    EXPECT_EQ(temporaryFiles(), 0U) << i;
  }
}

TEST_F(FileObjectReadTest, AFirstFileThatEndsBeforeItsRangeIsRefused) {
  const auto object = large();
  store().misbehave({.extraBytes = -39 * kMiB - 1});
  EXPECT_EQ(errnoOf(startRead(object, 0, 4096).get()), EIO);
  settle();
  EXPECT_EQ(filesIn("contents"), 0U);
  EXPECT_EQ(object->state().number, 0U);
}

TEST_F(FileObjectReadTest, AHandlerThatIsDroppedAnswersWithAnError) {
  const auto object = small();
  store().misbehave({.drops = true});
  EXPECT_FALSE(startRead(object, 0, 5).get().ok());
}

TEST_F(FileObjectReadTest, ASecondAnswerIsRemoved) {
  const auto object = small();
  store().misbehave({.answersTwice = true});
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_TRUE(support::waitUntil([&] { return temporaryFiles() == 0; }));
  EXPECT_EQ(filesIn("contents"), 1U);
}

TEST_F(FileObjectReadTest, AFetchIsCancelledWhenTheLastOneCloses) {
  const auto object = small();
  object->opened(false);
  store().hold();
  const auto read = startRead(object, 0, 5);
  ASSERT_TRUE(store().waitForFetches(1));
  object->closed(false);
  EXPECT_TRUE(support::staysTrue([&] { return store().cancelled() == 0; }, kShort));
  object->closed(false);
  EXPECT_TRUE(support::waitUntil([&] { return store().cancelled() == 1; }));
  EXPECT_FALSE(read.get().ok());
  // The extension did not stop for it: what it brings is kept.
  store().stopHolding();
  EXPECT_TRUE(support::waitUntil([&] { return object->state().isWhole(); }));
  object->opened(false);
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_EQ(store().fetches(), 1);
}

TEST_F(FileObjectReadTest, WhoComesAfterACancelledFetchGetsAFetchOfItsOwn) {
  const auto object = small();
  store().hold();
  startRead(object, 0, 5);
  ASSERT_TRUE(store().waitForFetches(1));
  object->closed(false);
  object->opened(false);
  const auto read = startRead(object, 0, 5);
  ASSERT_TRUE(store().waitForFetches(2));
  store().misbehave({.error = platform::CancellationError().share()});
  store().release();
  EXPECT_TRUE(support::staysTrue([&] { return !read.ready(); }, kShort));
  store().behave();
  store().release();
  EXPECT_EQ(bytes(read.get().value(), 0, 5), "hello");
}

TEST_F(FileObjectReadTest, WhatIsFilledOnPurposeGoesOnWhenClosed) {
  const auto object = large();
  store().hold();
  const Awaited<Done> filled;
  object->fill(filled.reply());
  const auto read = startRead(object, 0, 4096);
  ASSERT_TRUE(store().waitForFetches(1));
  object->closed(false);
  EXPECT_FALSE(read.get().ok());
  EXPECT_EQ(thrownErrno([&] { object->evict(); }), EBUSY);
  store().stopHolding();
  EXPECT_TRUE(filled.get().ok());
  EXPECT_EQ(store().cancelled(), 0);
  EXPECT_TRUE(object->state().isWhole());
  EXPECT_TRUE(readAll(object) == store().contents());
}

TEST_F(FileObjectReadTest, ALargeFileIsFilledInPieces) {
  const auto object = large(150);
  EXPECT_EQ(read(object, 70 * kMiB, 10), expected(70 * kMiB, 10));
  EXPECT_EQ(fill(object), 0);
  EXPECT_THAT(
      store().parts(),
      ElementsAre(NSRange{70 * kMiB, kMiB}, NSRange{0, 64 * kMiB}, NSRange{64 * kMiB, 6 * kMiB},
                  NSRange{71 * kMiB, 64 * kMiB}, NSRange{135 * kMiB, 15 * kMiB}));
  EXPECT_TRUE(readAll(object) == store().contents());
}

TEST_F(FileObjectReadTest, AnotherVersionIsNeverMixedIn) {
  const auto object = large();
  const std::string first = expected(0, 4096);
  EXPECT_EQ(read(object, 0, 4096), first);
  store().misbehave({.version = "2"});
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 4096).get()), ESTALE);
  EXPECT_EQ(remembered().gone(), 1);
  settle();
  EXPECT_EQ(temporaryFiles(), 0U);
  EXPECT_EQ(read(object, 0, 4096), first);
  // Once the host knows of the other version nothing is asked for.
  store().behave();
  store().put(pattern(40 * kMiB, 2), "2");
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 4096).get()), ESTALE);
  EXPECT_EQ(store().fetches(), 2);
  EXPECT_EQ(object->state().present.text(), "0-1048576");
}

TEST_F(FileObjectReadTest, WhatHasNothingStartsAnewWithTheVersionThatIsThere) {
  const auto object = large();
  remembered().whenGone([&] {
    store().behave();
    store().put(pattern(41 * kMiB, 2), "2");
  });
  store().misbehave({.version = "2"});
  EXPECT_EQ(read(object, 0, 20), pattern(41 * kMiB, 2).substr(0, 20));
  EXPECT_EQ(object->state().version, "2");
  EXPECT_EQ(object->sizeBytes(), 41 * kMiB);
  EXPECT_EQ(remembered().gone(), 1);
  EXPECT_THAT(remembered().resizes(), ElementsAre(41 * kMiB));
}

TEST_F(FileObjectReadTest, AWholeFileIsOneVersionWhateverItsItemSays) {
  const auto object = small();
  store().misbehave({.version = "the local file's"});
  EXPECT_EQ(readAll(object), "?????");  // what came
  EXPECT_EQ(object->state().version, "1");
  EXPECT_EQ(remembered().gone(), 0);
}

TEST_F(FileObjectReadTest, ButNoneIsMixedIntoAnEditThatBeginsWhenItComes) {
  const auto object = small();
  object->opened(true);
  store().misbehave({.version = "2"});
  remembered().whenNumbering([&object] { EXPECT_EQ(write(object, 0, "J"), 0); });
  EXPECT_EQ(errnoOf(startRead(object, 0, 5).get()), ESTALE);
  EXPECT_EQ(object->state().present.text(), "0-1");
  EXPECT_TRUE(support::waitUntil([&] { return temporaryFiles() == 0; }));
}

TEST_F(FileObjectReadTest, WhereSomethingIsHereAlreadyOnlyThatVersionIsAdded) {
  const auto object = small();
  object->opened(true);
  const Awaited<Done> written;
  object->write(4, std::as_bytes(std::span("O", 1)), written.reply());
  ASSERT_TRUE(written.get().ok());
  store().misbehave({.version = "2"});
  EXPECT_EQ(errnoOf(startRead(object, 0, 5).get()), ESTALE);
  store().behave();
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(errnoOf(startRead(object, 0, 5).get()),
            ESTALE);  // refused once more before it is tried again
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(readAll(object), "hellO");
  EXPECT_EQ(store().wholeFetches(), 0);
  object->closed(true);
}

TEST_F(FileObjectReadTest, AVersionThatTheHostDoesNotLearnOfIsStaleAndTriedAgainLater) {
  const auto object = large();
  store().misbehave({.version = "2"});
  EXPECT_EQ(errnoOf(startRead(object, 0, 5).get()), ESTALE);
  EXPECT_EQ(store().fetches(), 1);
  store().behave();
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(read(object, 0, 5), expected(0, 5));
}

TEST_F(FileObjectReadTest, AStoreThatChangesAllTheTimeIsNotFollowedForEver) {
  const auto object = large();
  int version = 1;
  remembered().whenGone([&] {
    store().put(pattern(40 * kMiB, 1), std::to_string(++version));
    store().misbehave({.version = std::to_string(version + 1)});
  });
  store().misbehave({.version = "2"});
  EXPECT_EQ(errnoOf(startRead(object, 0, 5).get()), ESTALE);
  EXPECT_LE(store().fetches(), 5);
}

TEST_F(FileObjectReadTest, AnExtensionThatSaysThatTheVersionIsGoneIsBelieved) {
  const auto object = large();
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
  store().misbehave(
      {.error = NSFileProviderError(NSFileProviderError::versionNoLongerAvailable).share()});
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 4096).get()), ESTALE);
  EXPECT_EQ(remembered().gone(), 1);
}

TEST_F(FileObjectReadTest, TheKernelKnowsTheLengthBeforeAnybodyGetsBytes) {
  store().put("much longer than listed", "1");
  const auto object = with({.version = "1", .sizeBytes = 4});
  object->opened(false);
  remembered().holdResizes();
  const auto read = startRead(object, 0, 4);
  ASSERT_TRUE(support::waitUntil([&] { return !remembered().resizes().empty(); }));
  EXPECT_THAT(remembered().resizes(), ElementsAre(23));
  EXPECT_EQ(object->present(0, 4), nullptr);
  const auto later = startRead(object, 0, 4);
  EXPECT_TRUE(support::staysTrue([&] { return !read.ready() && !later.ready(); }, kShort));
  remembered().releaseResizes();
  EXPECT_EQ(bytes(read.get().value(), 0, 100), "much longer than listed");
  EXPECT_TRUE(later.get().ok());
  EXPECT_EQ(object->sizeBytes(), 23);
  EXPECT_EQ(store().fetches(), 1);
}

TEST_F(FileObjectReadTest, EmptyFilesAreFetchedOnceToo) {
  const auto object = small("");
  EXPECT_EQ(readAll(object), "");
  EXPECT_EQ(readAll(object), "");
  EXPECT_EQ(store().fetches(), 1);
}

class WholeOnlyTest : public testing::Test, public ContentHarness {
 protected:
  WholeOnlyTest() : ContentHarness(Parts::none) {}
};

TEST_F(WholeOnlyTest, WithoutPartialFetchingLargeFilesAreFetchedWhole) {
  store().put(pattern(40 * kMiB, 1), "1");
  const auto object = fresh();
  object->opened(false);
  EXPECT_EQ(read(object, 20 * kMiB, 10), store().contents().substr(20 * kMiB, 10));
  EXPECT_EQ(store().wholeFetches(), 1);
  EXPECT_TRUE(object->state().isWhole());
}

}  // namespace
}  // namespace kestrune::host::test
