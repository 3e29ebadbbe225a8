// How programs save, and folders that move while there is work below them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "host/volume/test/HostHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class SavingTest : public testing::Test, public HostHarness {
 protected:
  void putAndRead(const std::string& path, const std::string& contents) {
    remote().putFile(path, contents);
    if (readPath(path) != contents) throw std::runtime_error("cannot read " + path);
  }
};

TEST_F(SavingTest, ANewFileRenamedOverTheOldOneIsNewContentsOfIt) {
  putAndRead("/report", "old");
  const std::string identifier = remote().identifierOf("/report");
  const InodeNumber inode = find("/report").attributes.inode;
  save("/.report.tmp", "new");
  EXPECT_EQ(rename("/.report.tmp", "/report"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("report"));
  EXPECT_EQ(remote().contents("/report"), "new");
  EXPECT_EQ(remote().identifierOf("/report"), identifier);
  EXPECT_THAT(remote().uploads(), ElementsAre("/report"));
  EXPECT_EQ(remote().asked(Ask::remove, "/report"), 0);
  EXPECT_EQ(remote().asked(Ask::create, "/.report.tmp"), 0);
  EXPECT_NE(find("/report").attributes.inode, inode) << "as a rename is everywhere";
}

TEST_F(SavingTest, AlsoWhenTheTemporaryOneWasSentAlready) {
  putAndRead("/report", "old");
  const std::string identifier = remote().identifierOf("/report");
  save("/.report.tmp", "new");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(rename("/.report.tmp", "/report"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("report"));
  EXPECT_EQ(remote().contents("/report"), "new");
  EXPECT_EQ(remote().identifierOf("/report"), identifier);
}

TEST_F(SavingTest, AndWhenItIsToldOfItsOwnSendingOnlyAfterwards) {
  putAndRead("/report", "old");
  save("/.report.tmp", "new contents");
  ASSERT_TRUE(waitUntilSent());
  const auto [object, edits] = fileSystem().volume()->look([&](Tree& tree, Nodes&) {
    const Item& item = *tree.child(tree.root(), ".report.tmp");
    return std::pair(item.object(), item.content()->state.edits);
  });
  ASSERT_TRUE(object);
  EXPECT_EQ(rename("/.report.tmp", "/report"), 0);
  object->sent(edits, "the version of the temporary file");
  EXPECT_EQ(readPath("/report"), "new contents");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/report"), "new contents");
  EXPECT_THAT(remote().names(), ElementsAre("report"));
}

TEST_F(SavingTest, ABackupThatIsRenamedAsideLeavesTheIdentityBehind) {
  putAndRead("/report", "old");
  const std::string identifier = remote().identifierOf("/report");
  EXPECT_EQ(rename("/report", "/report~"), 0);
  save("/report", "new");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("report", "report~"));
  EXPECT_EQ(remote().identifierOf("/report"), identifier);
  EXPECT_EQ(remote().contents("/report"), "new");
  EXPECT_EQ(remote().contents("/report~"), "old");
  EXPECT_EQ(readPath("/report~"), "old");
}

TEST_F(SavingTest, ABackupThatIsRemovedInTheEndIsNeverSent) {
  putAndRead("/report", "old");
  const std::string identifier = remote().identifierOf("/report");
  EXPECT_EQ(rename("/report", "/report~"), 0);
  save("/report", "new");
  EXPECT_EQ(removeFile("/report~"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("report"));
  EXPECT_EQ(remote().identifierOf("/report"), identifier);
  EXPECT_THAT(remote().uploads(), ElementsAre("/report"));
  EXPECT_EQ(remote().asked(Ask::create, "/report~"), 0);
}

TEST_F(SavingTest, OfARemovedAndRewrittenFileTheIdentityStays) {
  putAndRead("/report", "old");
  const std::string identifier = remote().identifierOf("/report");
  EXPECT_EQ(removeFile("/report"), 0);
  save("/report", "new");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().identifierOf("/report"), identifier);
  EXPECT_EQ(remote().contents("/report"), "new");
  EXPECT_EQ(remote().asked(Ask::remove, "/report"), 0);
}

/// With identifiers that stay, and with ones that change with the path.
class MovedFolderTest : public SavingTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) remote().usePathsAsIdentifiers();
  }
};

TEST_P(MovedFolderTest, OpenHandlesAndUnsentEditsBelowGoWithIt) {
  remote().putFolder("/docs");
  remote().putFolder("/docs/deep");
  remote().putFile("/docs/a", "one");
  remote().putFile("/docs/deep/b", "two");
  remote().putFile("/docs/deep/unread", "three");
  EXPECT_EQ(readPath("/docs/a"), "one");
  names(find("/docs/deep").node);
  const OpenFilePtr writing = openForWriting("/docs/deep/b");
  const OpenFilePtr unread = open(find("/docs/deep/unread").node);
  write(writing, "TWO");
  save("/docs/a", "edited");
  save("/docs/deep/new", "new");
  EXPECT_EQ(rename("/docs", "/papers"), 0);
  EXPECT_TRUE(passUntil([&] {
    return remote().names() == std::vector<std::string>{"papers"} &&
           !remote().identifierOf("/papers/deep/new").empty();
  }));
  write(writing, "!", 3);
  close(writing);
  EXPECT_TRUE(passUntil([&] { return readAll(unread) == "three"; }));
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("papers"));
  EXPECT_THAT(remote().names("/papers"), ElementsAre("a", "deep"));
  EXPECT_THAT(remote().names("/papers/deep"), ElementsAre("b", "new", "unread"));
  EXPECT_EQ(remote().contents("/papers/a"), "edited");
  EXPECT_EQ(remote().contents("/papers/deep/b"), "TWO!");
  EXPECT_EQ(remote().contents("/papers/deep/new"), "new");
  EXPECT_EQ(readPath("/papers/a"), "edited");
  fileSystem().release(unread);
}

TEST_P(MovedFolderTest, WhatIsReadRightAfterTheMoveIsTheRightFile) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "one");
  find("/docs/a");
  EXPECT_EQ(rename("/docs", "/papers"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(readPath("/papers/a"), "one");
  save("/papers/a", "edited");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/papers/a"), "edited");
  EXPECT_EQ(removeFile("/papers/a"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names("/papers"), IsEmpty());
}

TEST_P(MovedFolderTest, WhoVisitsItFirstWhileItMovesFindsWhatIsInIt) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "one");
  names();
  remote().hold(Ask::items, "/docs");
  EXPECT_EQ(rename("/docs", "/papers"), 0);
  auto found = std::async(std::launch::async, [this] { return readPath("/papers/a"); });
  ASSERT_TRUE(remote().waitUntilAsked(Ask::items, "/docs", 1));
  ASSERT_TRUE(passUntil([&] { return remote().names() == std::vector<std::string>{"papers"}; }));
  remote().stopHolding(Ask::items, "/docs");
  EXPECT_TRUE(passUntil(
      [&] { return found.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
  EXPECT_EQ(found.get(), "one");
}

TEST_P(MovedFolderTest, AFileThatIsReadWhileItMovesIsFound) {
  remote().putFile("/a", "one");
  names();
  // The move happens; its answer comes when it is released.
  using Treatment = FakeRemote::Treatment;
  remote().setWeather([](Ask ask) {
    return ask == Ask::modify ? Treatment{Treatment::Kind::late, nullptr} : Treatment();
  });
  EXPECT_EQ(rename("/a", "/b"), 0);
  ASSERT_TRUE(passUntil([&] { return remote().names() == std::vector<std::string>{"b"}; }));
  auto found = std::async(std::launch::async, [this] { return readPath("/b"); });
  const auto isFound = [&] {
    return found.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  };
  if (GetParam()) {
    pass(std::chrono::milliseconds(200));
    EXPECT_FALSE(isFound());
  } else {
    EXPECT_TRUE(passUntil(isFound));
  }
  remote().setWeather(nullptr);
  remote().releaseAll();
  EXPECT_TRUE(passUntil(isFound));
  EXPECT_EQ(found.get(), "one");
}

TEST_P(MovedFolderTest, AFolderWithOnlyNewThingsMovesBeforeItIsSent) {
  makeFolder("/new");
  save("/new/a", "x");
  EXPECT_EQ(rename("/new", "/renamed"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("renamed"));
  EXPECT_EQ(remote().contents("/renamed/a"), "x");
}

INSTANTIATE_TEST_SUITE_P(Identifiers, MovedFolderTest, testing::Bool(),
                         [](const auto& info) { return info.param ? "paths" : "opaque"; });

}  // namespace
}  // namespace kestrune::host::test
