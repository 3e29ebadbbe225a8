// What a mount finds again that begins where another ended.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/volume/test/HostHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class RestartTest : public testing::Test, public HostHarness {};

TEST_F(RestartTest, NumbersOfItemsThatWentAreNotGivenAgain) {
  makeFolder("/gone");
  const InodeNumber gone = find("/gone").attributes.inode;
  EXPECT_EQ(removeFolder("/gone"), 0);
  restart();
  makeFolder("/new");
  EXPECT_GT(find("/new").attributes.inode, gone);
}

TEST_F(RestartTest, ContentsAndNamesAreStillHere) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "hello");
  EXPECT_EQ(readPath("/docs/a"), "hello");
  const InodeNumber inode = find("/docs/a").attributes.inode;
  restart();
  EXPECT_EQ(find("/docs/a").attributes.inode, inode);
  EXPECT_EQ(readPath("/docs/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/docs/a"), 1);
  EXPECT_EQ(remote().asked(Ask::items, "/docs"), 1);
}

TEST_F(RestartTest, WhatChangedAtTheStoreMeanwhileIsLearnt) {
  remote().putFile("/a", "x");
  names();
  fileSystem().stop();
  remote().putFile("/b", "y");
  remote().announce();
  restart();
  EXPECT_TRUE(waitForNames({"a", "b"}));
  EXPECT_EQ(remote().asked(Ask::changes, "/"), 1);
  EXPECT_EQ(remote().asked(Ask::items, "/"), 1);
}

TEST_F(RestartTest, WhatWasUnsentIsSent) {
  remote().putFile("/edited", "old");
  remote().putFile("/removed", "x");
  remote().putFile("/moved", "y");
  names();
  remote().setUnreachable(true);
  makeFolder("/docs");
  save("/docs/new", "new");
  save("/edited", "edited");
  EXPECT_EQ(removeFile("/removed"), 0);
  EXPECT_EQ(rename("/moved", "/docs/moved"), 0);
  pass(seconds(2));
  restart();
  EXPECT_EQ(sender().countUnsent(), 5U);
  EXPECT_EQ(readPath("/docs/new"), "new");
  remote().setUnreachable(false);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), ElementsAre("docs", "edited"));
  EXPECT_THAT(remote().names("/docs"), ElementsAre("moved", "new"));
  EXPECT_EQ(remote().contents("/edited"), "edited");
  EXPECT_EQ(remote().contents("/docs/new"), "new");
  EXPECT_EQ(remote().contents("/docs/moved"), "y");
}

std::vector<std::string> notes(const std::filesystem::path& replica) {
  std::vector<std::string> texts;
  for (const auto& entry : std::filesystem::directory_iterator(replica / "contents")) {
    if (entry.path().extension() == ".edit") texts.push_back(support::contentsOf(entry.path()));
  }
  return texts;
}

TEST_F(RestartTest, WhatIsUnsentIsNotedBesideItUntilItIsSent) {
  remote().putFile("/a", "hello");
  remote().putFolder("/docs");
  names();
  remote().setUnreachable(true);
  makeFolder("/made");
  save("/made/b", "new");
  save("/removed", "gone");
  EXPECT_EQ(removeFile("/removed"), 0);
  ASSERT_THAT(notes(replica()), SizeIs(1));
  EXPECT_EQ(EditDescription::parse(notes(replica())[0])->path, "/made/b");
  EXPECT_EQ(rename("/made", "/moved"), 0);
  ASSERT_THAT(notes(replica()), SizeIs(1));
  const auto noted = EditDescription::parse(notes(replica())[0]);
  EXPECT_EQ(noted->path, "/moved/b");
  EXPECT_EQ(noted->sizeBytes, 3);
  restart();
  EXPECT_THAT(notes(replica()), SizeIs(1));
  remote().setUnreachable(false);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(notes(replica()), IsEmpty());
}

TEST_F(RestartTest, AnUploadThatArrivedWithoutAnAnswerIsNotRepeated) {
  remote().putFile("/a", "old");
  EXPECT_EQ(readPath("/a"), "old");
  remote().hold(Ask::modify, "/a");
  save("/a", "hello");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::modify, "/a") == 1; }));
  fileSystem().stop();
  // The host has ended; the store took it all the same.
  remote().loseAnswers(Ask::modify, "/a", platform::CancellationError().share());
  remote().stopHolding(Ask::modify, "/a");
  restart();
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "hello");
  EXPECT_THAT(remote().uploads(), SizeIs(1));
  EXPECT_THAT(remote().names(), ElementsAre("a"));
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(RestartTest, WhatWasRemovedWhileOpenIsGone) {
  {
    const OpenFilePtr file = create("/a");
    write(file, "x");
    EXPECT_EQ(removeFile("/a"), 0);
    close(file);
  }
  restart();
  EXPECT_THAT(names(), IsEmpty());
  const auto entries = std::filesystem::directory_iterator(replica() / "contents");
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 0);
}

TEST_F(RestartTest, AfterAKillAFileIsAsLongAsItWasBeforeAnybodyOpensIt) {
  remote().putFile("/a", "0123456789");
  remote().putFile("/b", "0123456789");
  OpenFilePtr shorter = openForWriting("/a", true);
  OpenFilePtr longer = openForWriting("/b");
  write(longer, "and more", 10);
  restartFromCopy([&] {
    shorter.reset();
    longer.reset();
  });
  EXPECT_EQ(find("/a").attributes.sizeBytes, 0);
  EXPECT_EQ(find("/b").attributes.sizeBytes, 18);
}

TEST_F(RestartTest, TheHolesOfAFileThatTookAnothersPlaceAreZerosAfterAKill) {
  constexpr std::int64_t kHole = 1 << 20;
  remote().putFile("/a", "old");
  readPath("/a");
  OpenFilePtr sparse = create("/temporary");
  write(sparse, "end", kHole);
  close(sparse);
  sparse.reset();
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(rename("/temporary", "/a"), 0);
  restartFromCopy([] {});
  const std::string expected = std::string(kHole, '\0') + "end";
  EXPECT_TRUE(readPath("/a") == expected);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_TRUE(remote().contents("/a") == expected);
}

TEST_F(RestartTest, ABackupWithHolesIsHereAfterARestart) {
  constexpr std::int64_t kHole = 1 << 20;
  OpenFilePtr sparse = create("/a");
  write(sparse, "end", kHole);
  close(sparse);
  sparse.reset();
  ASSERT_TRUE(waitUntilSent());
  remote().setUnreachable(true);
  ASSERT_EQ(rename("/a", "/a~"), 0);
  save("/a", "new");  // it is the new contents of what the store has
  restart();
  const std::string expected = std::string(kHole, '\0') + "end";
  EXPECT_TRUE(readPath("/a~") == expected);
  remote().setUnreachable(false);
  sender().retry("/");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_TRUE(remote().contents("/a~") == expected);
  EXPECT_EQ(remote().contents("/a"), "new");
}

TEST_F(RestartTest, WhatWasMissingOfAVersionThatWentIsZerosAfterARestartToo) {
  remote().putFile("/a", "0123456789");
  names();
  remote().hold(Ask::contents, "/a");  // only what is written is here
  OpenFilePtr file = openForWriting("/a");
  write(file, "end", 7);
  remote().remove("/a");
  announce();
  ASSERT_TRUE(support::waitUntil([this] {
    return fileSystem().volume()->look(
        [](Tree& tree, Nodes&) { return !tree.child(tree.root(), "a")->there.has_value(); });
  }));
  close(file);
  file.reset();
  remote().setUnreachable(true);
  remote().stopHolding(Ask::contents, "/a");
  restart();
  remote().setUnreachable(false);
  sender().retry("/");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), std::string(7, '\0') + "end");
}

}  // namespace
}  // namespace kestrune::host::test
