#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>

#include "host/content/test/WritingHarness.h"
#include "platform/tasks/Task.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::chrono::milliseconds kShort{50};

class FileObjectWriteTest : public testing::Test, public WritingHarness {};

TEST_F(FileObjectWriteTest, TheFirstChangeWaitsForItsCommitAndLaterOnesDoNot) {
  const auto object = stored("hello");
  EXPECT_EQ(readAll(object), "hello");
  const ContentState before = object->state();
  remembered().holdCommits();
  const auto first = startWrite(object, 0, "J");
  const auto second = startWrite(object, 4, "y!");
  ASSERT_TRUE(remembered().waitForCommit());
  EXPECT_TRUE(support::staysTrue([&] { return !first.ready() && !second.ready(); }, kShort));
  EXPECT_EQ(object->state(), before);
  EXPECT_EQ(support::contentsOf(replica() / "contents" / "101"), "hello");
  EXPECT_EQ(errnoOf(object->snapshot()), EBUSY);
  object->closed(true);
  EXPECT_EQ(errnoOf(object->snapshot()), EAGAIN);
  object->opened(true);
  remembered().stopHoldingCommits();
  EXPECT_TRUE(first.get().ok());
  EXPECT_TRUE(second.get().ok());
  EXPECT_EQ(readAll(object), "Jelly!");
  const auto committed = remembered().committed();
  EXPECT_EQ(committed.edits, before.edits + 1);
  EXPECT_TRUE(committed.isEdited);
  EXPECT_EQ(committed.version, "1");
  EXPECT_EQ(write(object, 0, "B"), 0);
  EXPECT_EQ(remembered().commits(), 1);
  EXPECT_EQ(object->state().edits, before.edits + 1);
}

TEST_F(FileObjectWriteTest, ChangesThatWaitAreMadeInTheirOrder) {
  const auto object = stored("");
  remembered().holdCommits();
  std::vector<Awaited<Done>> answers;
  for (const char* text : {"aaaa", "bbb", "cc", "d"})
    answers.push_back(startWrite(object, 0, text));
  const Awaited<Done> resized;
  object->resize(3, resized.reply());
  answers.push_back(startWrite(object, 5, "e"));
  remembered().stopHoldingCommits();
  for (const auto& answer : answers) EXPECT_TRUE(answer.get().ok());
  EXPECT_TRUE(resized.get().ok());
  EXPECT_EQ(readAll(object), std::string("dcb\0\0e", 6));
  EXPECT_EQ(remembered().commits(), 1);
}

TEST_F(FileObjectWriteTest, ACommitThatFailsFailsThoseThatWaitAndNothingIsWritten) {
  const auto object = large();
  remembered().holdCommits();
  const auto one = startWrite(object, 0, "x");
  const auto other = startWrite(object, 1, "y");
  ASSERT_TRUE(remembered().waitForCommit());
  remembered().releaseCommit(platform::NSPOSIXError(ENOSPC, "commit").share());
  EXPECT_EQ(errnoOf(one.get()), ENOSPC);
  EXPECT_EQ(errnoOf(other.get()), ENOSPC);
  EXPECT_FALSE(object->state().isEdited);
  // Its number is not given again: who was told of it might take another edit for the same.
  EXPECT_THAT(remembered().failedEdits(), ElementsAre(1U));
  EXPECT_EQ(object->state().edits, 1U);
  EXPECT_EQ(remembered().told(), object->state());
  EXPECT_EQ(filesIn("contents"), 0U);
  remembered().stopHoldingCommits();
  EXPECT_EQ(read(object, 0, 10), store().contents().substr(0, 10));
  EXPECT_EQ(write(object, 0, "x"), 0);
}

TEST_F(FileObjectWriteTest, AWriteNeedsNoFetchAndIsNotOverwrittenByOne) {
  const auto object = large();
  EXPECT_EQ(write(object, 100, "edited"), 0);
  EXPECT_EQ(write(object, 20 * kMiB - 3, "across"), 0);
  EXPECT_EQ(store().fetches(), 0);
  std::string expected = store().contents();
  expected.replace(100, 6, "edited").replace(20 * kMiB - 3, 6, "across");
  EXPECT_EQ(read(object, 98, 10), expected.substr(98, 10));
  EXPECT_EQ(store().fetches(), 1);
  EXPECT_EQ(fill(object), 0);
  EXPECT_TRUE(readAll(object) == expected);
  EXPECT_TRUE(object->state().isEdited);
}

TEST_F(FileObjectWriteTest, BytesThatComeAfterAWriteDoNotCoverIt) {
  const auto object = large();
  store().hold();
  const auto read = startRead(object, 0, 4096);
  ASSERT_TRUE(store().waitForFetches(1));
  EXPECT_EQ(write(object, 10, "edited"), 0);
  store().stopHolding();
  std::string expected = store().contents().substr(0, 4096);
  expected.replace(10, 6, "edited");
  EXPECT_EQ(bytes(read.get().value(), 0, 4096), expected);
}

TEST_F(FileObjectWriteTest, AnEditedFileTakesNothingOfAnotherVersion) {
  const auto object = large();
  EXPECT_EQ(write(object, 0, "edited"), 0);
  store().put(pattern(40 * kMiB, 2), "2");
  EXPECT_EQ(errnoOf(startRead(object, 10 * kMiB, 10).get()), ESTALE);
  EXPECT_EQ(store().fetches(), 0);
  EXPECT_EQ(fill(object), ESTALE);
  EXPECT_EQ(read(object, 0, 6), "edited");
  EXPECT_EQ(object->state().version, "1");
}

TEST_F(FileObjectWriteTest, OfAnEditedFileThatIsGoneAtTheStoreWhatWasWrittenIsKept) {
  const auto object = large();
  EXPECT_EQ(write(object, 100, "edited"), 0);
  store().remove();
  EXPECT_EQ(fill(object), 0);
  EXPECT_TRUE(object->state().isWhole());
  EXPECT_EQ(remembered().told().fetchableBytes, 0);
  EXPECT_EQ(read(object, 98, 10), std::string("\0\0edited\0\0", 10));
  object->closed(true);
  EXPECT_TRUE(object->snapshot().ok());
}

TEST_F(FileObjectWriteTest, AnEditOfWhatHasNothingIsOneOfTheVersionThatIsThere) {
  store().put("0123456789", "1");
  const auto object = fresh();
  object->opened(true);
  store().put("abc", "2");
  EXPECT_EQ(write(object, 1, "X"), 0);
  EXPECT_THAT(remembered().resizes(), ElementsAre(3));
  EXPECT_EQ(remembered().committed().version, "2");
  EXPECT_EQ(readAll(object), "aXc");
}

TEST_F(FileObjectWriteTest, CuttingToNothingNeedsNoFetch) {
  const auto object = large();
  EXPECT_EQ(resize(object, 0), 0);
  EXPECT_EQ(write(object, 0, "new"), 0);
  EXPECT_EQ(readAll(object), "new");
  EXPECT_EQ(store().fetches(), 0);
  const auto state = object->state();
  EXPECT_EQ(state.fetchableBytes, 0);
  EXPECT_EQ(state.sizeBytes, 3);
  EXPECT_TRUE(state.isWhole());
}

TEST_F(FileObjectWriteTest, WhatWasCutIsZeroWhenTheFileGrowsAgain) {
  const auto object = stored("0123456789");
  EXPECT_EQ(resize(object, 4), 0);
  EXPECT_EQ(resize(object, 8), 0);
  EXPECT_EQ(object->state().fetchableBytes, 4);
  EXPECT_EQ(readAll(object), std::string("0123\0\0\0\0", 8));
  EXPECT_EQ(write(object, 10, "x"), 0);
  EXPECT_EQ(readAll(object), std::string("0123\0\0\0\0\0\0x", 11));
}

TEST_F(FileObjectWriteTest, AReadGoesOnlyToTheLengthThatCounts) {
  const auto object = stored("0123456789");
  EXPECT_EQ(readAll(object), "0123456789");
  EXPECT_EQ(resize(object, 4), 0);
  EXPECT_EQ(object->present(0, 100)->sizeBytes(), 4);
  EXPECT_EQ(write(object, 4, "ab"), 0);
  EXPECT_EQ(object->present(0, 100)->sizeBytes(), 6);
}

TEST_F(FileObjectWriteTest, AFileThatIsMadeHereIsNeverFetched) {
  const auto object = madeHere();
  EXPECT_EQ(readAll(object), "");
  EXPECT_EQ(write(object, 5, "hello"), 0);
  EXPECT_EQ(readAll(object), std::string("\0\0\0\0\0hello", 10));
  EXPECT_EQ(store().fetches(), 0);
  EXPECT_EQ(object->state().version, "");
  EXPECT_EQ(object->state().fetchableBytes, 0);
}

TEST_F(FileObjectWriteTest, RoomIsReserved) {
  const auto object = madeHere();
  const Awaited<Done> kept;
  object->reserve(0, kMiB, true, kept.reply());
  EXPECT_TRUE(kept.get().ok());
  EXPECT_EQ(object->sizeBytes(), 0);
  EXPECT_GE(object->storedBytes(), kMiB);
  const Awaited<Done> grown;
  object->reserve(0, 2 * kMiB, false, grown.reply());
  EXPECT_TRUE(grown.get().ok());
  EXPECT_EQ(readAll(object), std::string(2 * kMiB, '\0'));
  const Awaited<Done> nonsense;
  object->reserve(5, 0, false, nonsense.reply());
  EXPECT_EQ(errnoOf(nonsense.get()), EINVAL);
}

// A limit on lengths lets a part of the write through first, as a full disk does.
TEST_F(FileObjectWriteTest, AWriteThatFailsHalfwayLeavesTheStateRight) {
  const auto object = stored("hello");
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_EQ(write(object, 0, "J"), 0);
  ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const auto before = limit;
  limit.rlim_cur = 100;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  const int failed = write(object, 3, std::string(1000, 'x'));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(failed, EFBIG);
  EXPECT_EQ(object->sizeBytes(), 5);
  EXPECT_EQ(fs::file_size(replica() / "contents" / "101"), 5U);
  EXPECT_EQ(read(object, 0, 3), "Jel");
  EXPECT_EQ(write(object, 5, "more"), 0);
  EXPECT_EQ(object->sizeBytes(), 9);
}

TEST_F(FileObjectWriteTest, OffsetsThatNoFileHasAreRefused) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, std::numeric_limits<std::int64_t>::max(), "xy"), EFBIG);
  EXPECT_EQ(resize(object, -1), EINVAL);
  EXPECT_EQ(object->sizeBytes(), 0);
}

TEST_F(FileObjectWriteTest, AChangeIsToldSoonAndAtTheLatestAtClose) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "abc"), 0);
  EXPECT_EQ(remembered().told().sizeBytes, 0);
  timers().advance(ContentChanges::kTellAfter);
  EXPECT_EQ(remembered().told(), object->state());
  EXPECT_EQ(write(object, 3, "def"), 0);
  object->closed(true);
  EXPECT_EQ(remembered().told().sizeBytes, 6);
}

TEST_F(FileObjectWriteTest, AFlushIsNeverOnTheThreadOfTheCallerOrOfTheExtension) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "abc"), 0);
  std::atomic<bool> onOther = false;
  const Awaited<Done> flushed;
  object->flushToDisk([&, caller = std::this_thread::get_id()](const Answer<Done>& answer) {
    onOther = std::this_thread::get_id() != caller;
    flushed.reply()(answer);
  });
  EXPECT_TRUE(flushed.get().ok());
  EXPECT_TRUE(onOther);
  EXPECT_EQ(remembered().told(), object->state());
}

// What a host finds that was killed: the last commit, and the disk.
class KilledHostTest : public FileObjectWriteTest {
 protected:
  FileObjectPtr revived(FileObjectPtr& object) {
    const auto state = remembered().committed();
    object.reset();
    return with(state);
  }
};

TEST_F(KilledHostTest, WritesAfterTheCommitAreFoundOnTheDisk) {
  auto object = madeHere();
  EXPECT_EQ(write(object, 0, "first"), 0);
  EXPECT_EQ(write(object, 5, " second"), 0);
  object = revived(object);
  EXPECT_EQ(readAll(object), "first second");
  EXPECT_TRUE(object->state().isEdited);
}

TEST_F(KilledHostTest, WritesIntoWhatIsMissingAreNotFetchedOver) {
  auto object = large();
  EXPECT_EQ(write(object, 0, "a"), 0);
  EXPECT_EQ(write(object, 10 * kMiB + 5, "edited"), 0);
  std::string expected = "a" + store().contents().substr(1);
  expected.replace(10 * kMiB + 5, 6, "edited");
  object = revived(object);
  EXPECT_EQ(fill(object), 0);
  EXPECT_TRUE(readAll(object) == expected);
}

TEST_F(KilledHostTest, WritesIntoWhatWasFetchedSinceTheCommitAreNotFetchedOver) {
  auto object = large();
  EXPECT_EQ(write(object, 0, "a"), 0);
  EXPECT_EQ(read(object, 10 * kMiB, 1), store().contents().substr(10 * kMiB, 1));
  EXPECT_EQ(write(object, 10 * kMiB + 5, "edited"), 0);
  std::string expected = "a" + store().contents().substr(1);
  expected.replace(10 * kMiB + 5, 6, "edited");
  object = revived(object);
  EXPECT_EQ(fill(object), 0);
  EXPECT_TRUE(readAll(object) == expected);
}

TEST_F(KilledHostTest, WhatWasFetchedWhileTheCommitWasUnderWayAndWrittenToIsNotFetchedOver) {
  auto object = large();
  EXPECT_EQ(read(object, 0, 1), store().contents().substr(0, 1));
  remembered().holdCommits();
  const auto first = startWrite(object, 0, "a");
  ASSERT_TRUE(remembered().waitForCommit());
  EXPECT_EQ(read(object, 10 * kMiB, 1), store().contents().substr(10 * kMiB, 1));
  remembered().stopHoldingCommits();
  EXPECT_TRUE(first.get().ok());
  EXPECT_EQ(write(object, 10 * kMiB + 5, "edited"), 0);
  std::string expected = "a" + store().contents().substr(1);
  expected.replace(10 * kMiB + 5, 6, "edited");
  object = revived(object);
  EXPECT_EQ(fill(object), 0);
  EXPECT_TRUE(readAll(object) == expected);
}

TEST_F(KilledHostTest, WhatWasCutStaysCutAndGrowsWithZeros) {
  auto object = large();
  EXPECT_EQ(write(object, 0, "a"), 0);
  EXPECT_EQ(resize(object, 1000), 0);
  object = revived(object);
  EXPECT_EQ(object->sizeBytes(), 1000);
  EXPECT_EQ(readAll(object), "a" + store().contents().substr(1, 999));
  EXPECT_EQ(resize(object, 3000), 0);
  object = revived(object);
  EXPECT_EQ(readAll(object), "a" + store().contents().substr(1, 999) + std::string(2000, '\0'));
}

TEST_F(KilledHostTest, AFileWithoutChangesThatIsShorterOrGoneIsNotHere) {
  for (const bool isGone : {false, true}) {
    auto object = stored("hello");
    EXPECT_EQ(readAll(object), "hello");
    const auto state = object->state();
    object->closed(true);
    object.reset();
    const auto file = replica() / "contents" / std::to_string(state.number);
    isGone ? static_cast<void>(fs::remove(file)) : fs::resize_file(file, 2);
    object = with(state);
    EXPECT_EQ(object->state().number, 0U);
    EXPECT_TRUE(object->state().present.isEmpty());
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(readAll(object), "hello");
  }
}

TEST_F(KilledHostTest, BytesThatDidNotReachTheDiskAreFetchedAgain) {
  auto object = stored(pattern(kMiB, 1));
  EXPECT_TRUE(readAll(object) == store().contents());
  const auto state = object->state();
  object->closed(true);
  object.reset();
  // As after a power cut: the length is there, the blocks are not.
  const auto file = replica() / "contents" / std::to_string(state.number);
  fs::resize_file(file, 4096);
  fs::resize_file(file, kMiB);
  object = with(state);
  EXPECT_EQ(object->state().present.text(), "0-4096");
  EXPECT_TRUE(readAll(object) == store().contents());
}

TEST_F(KilledHostTest, OfAChangedFileAllThatIsLeftIsKept) {
  auto object = stored(pattern(100'000, 1));
  EXPECT_TRUE(readAll(object) == store().contents());
  EXPECT_EQ(write(object, 0, "edited"), 0);
  EXPECT_EQ(resize(object, 150'000), 0);
  object->closed(true);
  const auto state = object->state();
  object.reset();
  fs::resize_file(replica() / "contents" / std::to_string(state.number), 8192);
  object = with(state);
  EXPECT_TRUE(object->state().isEdited);
  EXPECT_EQ(object->sizeBytes(), 100'000);
  EXPECT_EQ(object->state().present.text(), "0-8192");
  EXPECT_EQ(read(object, 0, 6), "edited");
  EXPECT_TRUE(readAll(object) == "edited" + store().contents().substr(6));
}

TEST_F(KilledHostTest, AfterAStartTheFirstChangeIsANewEdit) {
  auto object = madeHere();
  EXPECT_EQ(write(object, 0, "a"), 0);
  const auto edits = object->state().edits;
  object = revived(object);
  EXPECT_EQ(write(object, 0, "b"), 0);
  EXPECT_EQ(object->state().edits, edits + 1);
}

}  // namespace
}  // namespace kestrune::host::test
