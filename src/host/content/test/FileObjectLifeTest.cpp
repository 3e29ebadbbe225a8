// What becomes of the file of an object: kept, given up, abandoned, found again.
#include <gtest/gtest.h>

#include <cerrno>

#include "host/content/test/ReadingHarness.h"

namespace kestrune::host::test {
namespace {

namespace fs = std::filesystem;

class FileObjectLifeTest : public testing::Test, public ReadingHarness {};

TEST_F(FileObjectLifeTest, WhoHasItOpenFinishesOnWhatIsHereAfterItWasAbandoned) {
  const auto object = large();
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
  object->abandon();
  EXPECT_EQ(read(object, 0, 4096), expected(0, 4096));
  EXPECT_EQ(errnoOf(startRead(object, 20 * kMiB, 4096).get()), ESTALE);
  EXPECT_EQ(write(object, 0, "x"), ESTALE);
  EXPECT_EQ(store().fetches(), 1);
  object->mayGo();
  EXPECT_EQ(filesIn("contents"), 1U);
  object->closed(false);
  EXPECT_EQ(filesIn("contents"), 0U);
}

TEST_F(FileObjectLifeTest, AFetchUnderWayWhenItIsAbandonedServesThoseWhoWait) {
  const auto object = small();
  store().hold();
  const auto read = startRead(object, 0, 5);
  ASSERT_TRUE(store().waitForFetches(1));
  object->abandon();
  store().stopHolding();
  EXPECT_EQ(bytes(read.get().value(), 0, 5), "hello");
  object->mayGo();
  object->closed(false);
  EXPECT_EQ(filesIn("contents"), 0U);
}

TEST_F(FileObjectLifeTest, AnAbandonedFileThatNobodyHasOpenGoesWhenItMay) {
  const auto object = small();
  EXPECT_EQ(readAll(object), "hello");
  object->closed(false);
  object->abandon();
  EXPECT_EQ(filesIn("contents"), 1U);
  object->mayGo();
  EXPECT_EQ(filesIn("contents"), 0U);
}

TEST_F(FileObjectLifeTest, AnAbandonedFileStaysUntilThatIsRemembered) {
  auto object = small();
  EXPECT_EQ(readAll(object), "hello");
  object->abandon();
  object->closed(false);
  object.reset();
  EXPECT_EQ(filesIn("contents"), 1U);
}

TEST_F(FileObjectLifeTest, EvictionFreesTheBlocksAndKeepsTheObject) {
  const auto object = small(pattern(kMiB, 1));
  EXPECT_EQ(readAll(object), store().contents());
  EXPECT_EQ(object->storedBytes(), kMiB);
  EXPECT_EQ(thrownErrno([&] { object->evict(); }), EBUSY);
  object->closed(false);
  object->evict();
  EXPECT_EQ(object->storedBytes(), 0);
  EXPECT_EQ(filesIn("contents"), 0U);
  EXPECT_EQ(object->sizeBytes(), kMiB);
  EXPECT_EQ(object->state().number, 0U);
  EXPECT_EQ(remembered().told(), object->state());
  object->opened(false);
  EXPECT_EQ(readAll(object), store().contents());
  EXPECT_EQ(store().fetches(), 2);
}

TEST_F(FileObjectLifeTest, ContentsThatSomebodyRemovedAreFetchedAgain) {
  const auto object = small();
  EXPECT_EQ(readAll(object), "hello");
  object->closed(false);
  fs::remove(fs::directory_iterator(replica() / "contents")->path());
  object->opened(false);
  EXPECT_EQ(readAll(object), "hello");
  EXPECT_EQ(store().fetches(), 2);
}

TEST_F(FileObjectLifeTest, WhatWasRememberedIsHereAgain) {
  auto object = large();
  EXPECT_EQ(read(object, 5 * kMiB, 10), expected(5 * kMiB, 10));
  object->closed(false);
  const auto state = object->state();
  object = with(state);
  EXPECT_EQ(object->state(), state);
  object->opened(false);
  EXPECT_NE(object->present(5 * kMiB, kMiB), nullptr);
  EXPECT_EQ(store().fetches(), 1);
}

TEST_F(FileObjectLifeTest, OnlyAWholeFileThatNobodyChangesIsGivenAsAWhole) {
  const auto object = small();
  EXPECT_EQ(object->whole(), nullptr);
  EXPECT_EQ(readAll(object), "hello");
  ASSERT_NE(object->whole(), nullptr);
  object->opened(true);
  EXPECT_EQ(object->whole(), nullptr);
}

}  // namespace
}  // namespace kestrune::host::test
