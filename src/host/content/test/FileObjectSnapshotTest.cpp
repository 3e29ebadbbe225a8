// What goes out while programs go on writing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/content/test/WritingHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

namespace fs = std::filesystem;
constexpr std::chrono::milliseconds kShort{50};

class FileObjectSnapshotTest : public testing::Test, public WritingHarness {};

TEST_F(FileObjectSnapshotTest, ASnapshotKeepsItsBytesWhateverIsWrittenLater) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "first"), 0);
  object->closed(true);
  const auto first = snapshotOf(object);
  EXPECT_EQ(first.sizeBytes, 5);
  object->opened(true);
  const LocalFilePtr reader = object->present(0, 5);
  EXPECT_EQ(write(object, 0, "SECOND"), 0);
  object->closed(true);
  const auto second = snapshotOf(object);
  const auto third = snapshotOf(object);
  object->opened(true);
  EXPECT_EQ(resize(object, 2), 0);
  EXPECT_EQ(support::contentsOf(first.path), "first");
  EXPECT_EQ(support::contentsOf(second.path), "SECOND");
  EXPECT_EQ(support::contentsOf(third.path), "SECOND");
  EXPECT_EQ(bytes(reader, 0, 5), "first");
  EXPECT_EQ(readAll(object), "SE");
  EXPECT_LT(first.edits, second.edits);
  EXPECT_EQ(second.edits, third.edits);
  EXPECT_LT(third.edits, object->state().edits);
  for (const auto& snapshot : {first, second, third}) object->giveBack(snapshot);
  EXPECT_EQ(filesIn("outgoing"), 0U);
  EXPECT_EQ(readAll(object), "SE");
}

TEST_F(FileObjectSnapshotTest, EachSnapshotIsFollowedByACommit) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "a"), 0);
  object->closed(true);
  const auto snapshot = snapshotOf(object);
  object->giveBack(snapshot);
  object->opened(true);
  remembered().holdCommits();
  const auto second = startWrite(object, 0, "b");
  ASSERT_TRUE(remembered().waitForCommit());
  EXPECT_TRUE(support::staysTrue([&] { return !second.ready(); }, kShort));
  EXPECT_EQ(readAll(object), "a");
  remembered().stopHoldingCommits();
  EXPECT_TRUE(second.get().ok());
  EXPECT_EQ(object->state().edits, snapshot.edits + 1);
}

TEST_F(FileObjectSnapshotTest, WhatIsGivenBackBeforeTheNextChangeNeedsNoCopy) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "a"), 0);
  object->closed(true);
  object->giveBack(snapshotOf(object));
  struct stat before = {};
  struct stat after = {};
  ASSERT_EQ(::stat((replica() / "contents" / "101").c_str(), &before), 0);
  object->opened(true);
  EXPECT_EQ(write(object, 0, "b"), 0);
  ASSERT_EQ(::stat((replica() / "contents" / "101").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(FileObjectSnapshotTest, ASnapshotIsRefusedWhereBytesAreMissingOrMayCome) {
  const auto object = large();
  EXPECT_EQ(write(object, 0, "x"), 0);
  EXPECT_EQ(errnoOf(object->snapshot()), EBUSY);
  object->closed(true);
  EXPECT_EQ(errnoOf(object->snapshot()), ENODATA);
  EXPECT_EQ(fill(object), 0);
  const auto snapshot = snapshotOf(object);
  EXPECT_TRUE(support::contentsOf(snapshot.path) == "x" + store().contents().substr(1));
  object->giveBack(snapshot);
}

TEST_F(FileObjectSnapshotTest, WhatWasSentIsUnchangedUnlessItWasChangedSince) {
  const auto object = madeHere();
  EXPECT_EQ(write(object, 0, "a"), 0);
  object->closed(true);
  const auto first = snapshotOf(object);
  object->opened(true);
  EXPECT_EQ(write(object, 0, "b"), 0);
  object->sent(first.edits, "v1");
  object->giveBack(first);
  EXPECT_TRUE(object->state().isEdited);
  EXPECT_EQ(object->state().version, "v1");
  object->closed(true);
  EXPECT_EQ(thrownErrno([&] { object->evict(); }), EBUSY);
  const auto second = snapshotOf(object);
  object->sent(second.edits, "v2");
  object->sent(first.edits, "v1 as the store calls it");  // told late
  EXPECT_EQ(object->state().version, "v2");
  object->giveBack(second);
  EXPECT_FALSE(object->state().isEdited);
  EXPECT_EQ(object->state().version, "v2");
  EXPECT_EQ(remembered().told(), object->state());
  store().put("b", "v2");
  object->evict();
  EXPECT_EQ(readAll(object), "b");
  EXPECT_EQ(write(object, 0, "c"), 0);
  EXPECT_TRUE(remembered().committed().isEdited);
}

TEST_F(FileObjectSnapshotTest, AnEmptyFileThatWasMadeHereHasASnapshot) {
  const auto object = fresh();
  const auto snapshot = snapshotOf(object);
  EXPECT_EQ(snapshot.sizeBytes, 0);
  EXPECT_EQ(support::contentsOf(snapshot.path), "");
  object->giveBack(snapshot);
}

TEST_F(FileObjectSnapshotTest, ChangesOfWhatIsRememberedWaitForNoCommitUntilThereIsOne) {
  ContentState made;
  made.number = 77;
  made.edits = 1;
  made.isEdited = true;
  const auto object = with(made);
  object->opened(true);
  object->remembered(1);
  EXPECT_EQ(write(object, 0, "a"), 0);
  EXPECT_EQ(remembered().commits(), 0);
  EXPECT_EQ(object->state().edits, 1U);
  object->closed(true);
  const auto snapshot = snapshotOf(object);
  object->giveBack(snapshot);
  object->opened(true);
  object->remembered(1);  // too late
  EXPECT_EQ(write(object, 0, "b"), 0);
  EXPECT_EQ(remembered().commits(), 1);
  EXPECT_EQ(object->state().edits, snapshot.edits + 1);
}

}  // namespace
}  // namespace kestrune::host::test
