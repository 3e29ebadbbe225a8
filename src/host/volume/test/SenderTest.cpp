// What becomes of changes made here: when and how they reach the store, and what is told of those that do not.
#include "host/volume/Sender.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include <cerrno>

#include "host/volume/test/HostHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::NSFileProviderError;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

platform::NSErrorPtr errorOf(NSFileProviderError::Code code) {
  return NSFileProviderError(code).share();
}

class SenderTest : public testing::Test, public HostHarness {
 protected:
  void SetUp() override { names(); }
  // A listing of the root from long ago: what is asked next is asked anew.
  void letListingsAge() { pass(Sender::kFresh); }
  bool waitForUpload(const std::string& path, int count = 1) {
    return passUntil([&] { return remote().asked(Ask::modify, path) == count; });
  }
};

TEST_F(SenderTest, AFileThatWasMadeReachesTheStoreWithItsBytes) {
  const OpenFilePtr file = create("/a");
  write(file, "hello");
  pass(seconds(3));
  EXPECT_EQ(remote().asked(Ask::create, "/a"), 0) << "while it is being written";
  close(file);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "hello");
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 0);
}

TEST_F(SenderTest, FoldersAreMadeBeforeWhatIsInThem) {
  makeFolder("/docs");
  makeFolder("/docs/deep");
  save("/docs/deep/a", "one");
  save("/docs/b", "two");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/docs/deep/a"), "one");
  EXPECT_EQ(remote().contents("/docs/b"), "two");
  EXPECT_EQ(remote().asked(Ask::create, "/docs"), 1);
  EXPECT_EQ(remote().asked(Ask::create, "/docs/deep"), 1);
  EXPECT_EQ(remote().asked(Ask::items, "/docs"), 0) << "nobody else can know anything of it";
}

TEST_F(SenderTest, ManyChangesAreOneSending) {
  remote().putFile("/a", "old");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  for (int i = 0; i < 5; ++i) {
    save("/a", "version " + std::to_string(i));
    pass(milliseconds(20));
  }
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "version 4");
  EXPECT_THAT(remote().uploads(), ElementsAre("/a"));
}

TEST_F(SenderTest, AnUploadIsLookedAtOnceAndItsContentsAreNotFetchedAgain) {
  save("/a", "hello");
  ASSERT_TRUE(waitUntilSent());
  pass(seconds(10));
  EXPECT_EQ(remote().asked(Ask::item, "/a"), 1);
  announce();
  pass(seconds(1));
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 0);
  EXPECT_THAT(remote().uploads(), SizeIs(1));
  // A later change is based on what the store made of it: no conflict.
  save("/a", "hello again");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "hello again");
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(SenderTest, OfWhatChangedOnBothSidesBothAreKept) {
  remote().putFile("/a.txt", "common");
  announce();
  ASSERT_TRUE(waitForNames({"a.txt"}));
  EXPECT_EQ(readPath("/a.txt"), "common");
  const OpenFilePtr file = openForWriting("/a.txt", true);
  write(file, "mine");
  remote().overwrite("/a.txt", "theirs");
  close(file);
  ASSERT_TRUE(waitUntilSent());
  const auto both = remote().names();
  ASSERT_THAT(both, SizeIs(2));
  EXPECT_EQ(remote().contents("/a.txt"), "theirs");
  const std::string kept = both[0] == "a.txt" ? both[1] : both[0];
  EXPECT_THAT(kept, HasSubstr("test"));
  EXPECT_EQ(remote().contents("/" + kept), "mine");
  EXPECT_EQ(readPath("/a.txt"), "theirs");
  EXPECT_EQ(readPath("/" + kept), "mine");
}

// As alike as two files that are made at one moment with one length: only the refusal tells that it is not what was sent.
TEST_F(SenderTest, WhatWasRefusedForItsNameIsNotTakenForWhatHasThatName) {
  remote().hold(Ask::create, "/a.txt");
  save("/a.txt", "mine..");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::create, "/a.txt") == 1; }));
  RemoteItem theirs;
  theirs.name = "a.txt";
  theirs.contents = "theirs";
  theirs.modified = platform::SystemClock().now();
  remote().putItem("/", theirs);
  remote().stopHolding(Ask::create, "/a.txt");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(readPath("/a.txt"), "theirs");
  EXPECT_EQ(remote().contents("/a.txt"), "theirs");
  const auto both = remote().names();
  ASSERT_THAT(both, SizeIs(2));
  EXPECT_EQ(remote().contents("/" + (both[0] == "a.txt" ? both[1] : both[0])), "mine..");
}

TEST_F(SenderTest, ARemovalReachesTheStore) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "x");
  announce();
  ASSERT_TRUE(waitForNames({"docs"}));
  EXPECT_EQ(removeFolder("/docs"), ENOTEMPTY);
  EXPECT_EQ(removeFile("/docs/a"), 0);
  EXPECT_EQ(removeFolder("/docs"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), IsEmpty());
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(SenderTest, ARemovalLosesAgainstNewerContents) {
  remote().putFile("/a", "old");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  EXPECT_EQ(removeFile("/a"), 0);
  remote().overwrite("/a", "newer");
  EXPECT_TRUE(passUntil([&] { return sender().countUnsent() == 0; }));
  EXPECT_EQ(remote().contents("/a"), "newer");
  EXPECT_EQ(remote().asked(Ask::remove, "/a"), 0);
  EXPECT_EQ(readPath("/a"), "newer");
}

TEST_F(SenderTest, WhatTheExtensionNeverTakesStaysHere) {
  remote().failWith(Ask::create, "/junk", errorOf(NSFileProviderError::noSuchItem));
  save("/junk", "x");
  ASSERT_TRUE(passUntil([&] { return sender().countUnsent() == 0; }));
  pass(seconds(30));
  sender().retry("/");
  save("/junk", "changed");
  pass(seconds(30));
  EXPECT_EQ(remote().asked(Ask::create, "/junk"), 1);
  EXPECT_EQ(readPath("/junk"), "changed");
  letListingsAge();
  announce();
  EXPECT_THAT(names(), ElementsAre("junk"));
}

TEST_F(SenderTest, WhatFailedIsTriedAgainAfterGrowingPauses) {
  const support::CapturingLogSink log;
  remote().failWith(Ask::create, "/a", errorOf(NSFileProviderError::insufficientQuota));
  save("/a", "x");
  std::vector<std::chrono::nanoseconds> moments;
  for (int i = 1; i <= 5; ++i) {
    ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::create, "/a") == i; }));
    moments.push_back(timers().now());
  }
  for (int i = 1; i < 5; ++i) {
    const auto pause =
        moments[static_cast<std::size_t>(i)] - moments[static_cast<std::size_t>(i) - 1];
    EXPECT_GE(pause, seconds(1 << (i - 1)) - milliseconds(20)) << i;
    EXPECT_LE(pause, seconds(1 << (i - 1)) + seconds(1)) << i;
  }
  ASSERT_TRUE(support::waitUntil([&] { return unsent().at(0).attempts == 5; }));
  const auto waiting = unsent("/");
  ASSERT_THAT(waiting, SizeIs(1));
  EXPECT_EQ(waiting[0].path, "/a");
  EXPECT_EQ(waiting[0].kind, Change::Kind::create);
  EXPECT_EQ(waiting[0].sizeBytes, 1);
  EXPECT_FALSE(waiting[0].reason.empty());
  EXPECT_FALSE(waiting[0].isUnderWay);
  EXPECT_GT(waiting[0].until, seconds(10));
  EXPECT_EQ(sender().countFailed(), 1U);
  EXPECT_THAT(unsent("/other"), IsEmpty());
  EXPECT_TRUE(log.contains("send '/a'"));
  // At once when somebody asks.
  remote().failWith(Ask::create, "/a", nullptr);
  sender().retry("/");
  ASSERT_TRUE(waitUntilSent(seconds(1)));
  EXPECT_EQ(remote().contents("/a"), "x");
  EXPECT_EQ(sender().countFailed(), 0U);
}

TEST_F(SenderTest, WhoAsksForAFolderHastensWhatIsInItAndNothingElse) {
  makeFolder("/docs");
  ASSERT_TRUE(waitUntilSent());
  for (const char* path : {"/a", "/docs/b", "/docs2"})
    remote().failWith(Ask::create, path, errorOf(NSFileProviderError::insufficientQuota));
  for (const char* path : {"/a", "/docs/b", "/docs2"}) save(path, "x");
  ASSERT_TRUE(passUntil([&] {
    const auto changes = unsent();
    return std::all_of(changes.begin(), changes.end(), [](const UnsentChange& change) {
      return change.attempts == 4 && !change.isUnderWay;
    });
  }));
  sender().retry("/docs");
  pass(milliseconds(100));
  EXPECT_EQ(remote().asked(Ask::create, "/docs/b"), 5);
  EXPECT_EQ(remote().asked(Ask::create, "/a"), 4);
  EXPECT_EQ(remote().asked(Ask::create, "/docs2"), 4);
}

TEST_F(SenderTest, WhatIsInAFolderIsHastenedWithTheFolder) {
  remote().failWith(Ask::create, "/docs", errorOf(NSFileProviderError::insufficientQuota));
  makeFolder("/docs");
  save("/docs/b", "x");
  ASSERT_TRUE(passUntil([&] { return unsent("/docs").at(0).attempts == 4; }));
  remote().failWith(Ask::create, "/docs", nullptr);
  sender().retry("/docs/b");
  EXPECT_TRUE(waitUntilSent(seconds(1)));
  EXPECT_EQ(remote().contents("/docs/b"), "x");
}

TEST_F(SenderTest, WhatIsRemovedWhileItIsBeingMadeIsUnsentUntilItIsGoneThere) {
  remote().hold(Ask::create, "/a");
  save("/a", "x");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::create, "/a") == 1; }));
  EXPECT_EQ(removeFile("/a"), 0);
  EXPECT_EQ(sender().countUnsent(), 1U);
  const auto changes = unsent();
  ASSERT_THAT(changes, SizeIs(1));
  EXPECT_EQ(changes[0].path, "/a");
  EXPECT_EQ(changes[0].kind, Change::Kind::remove);
  EXPECT_TRUE(changes[0].isUnderWay);
  remote().release(Ask::create, "/a");
  ASSERT_TRUE(passUntil([&] { return sender().countUnsent() == 0; }));
  EXPECT_THAT(remote().names(), IsEmpty());
}

TEST_F(SenderTest, WhenTheStoreAnswersAgainEverythingGoesAtOnce) {
  remote().setUnreachable(true);
  for (const char* path : {"/a", "/b", "/c"}) save(path, path);
  ASSERT_TRUE(passUntil([&] { return sender().countFailed() > 0; }));
  pass(seconds(30));
  EXPECT_EQ(sender().countUnsent(), 3U);
  EXPECT_THAT(remote().names(), IsEmpty());
  remote().setUnreachable(false);
  sender().reached(nullptr);
  ASSERT_TRUE(waitUntilSent(seconds(2)));
  EXPECT_THAT(remote().names(), ElementsAre("a", "b", "c"));
}

TEST_F(SenderTest, WithoutASignItIsTriedAgainSoonAfterTheStoreIsBack) {
  remote().setUnreachable(true);
  for (const char* path : {"/a", "/b", "/c"}) save(path, path);
  pass(seconds(40));
  remote().setUnreachable(false);
  EXPECT_TRUE(waitUntilSent(Sender::kProbe + seconds(5)));
}

TEST_F(SenderTest, WhatTheStoreDropsIsMadeAgainAfterGrowingPauses) {
  using Kind = FakeRemote::Treatment::Kind;
  names();
  save("/a", "a");
  remote().setWeather([](Ask ask) {
    return FakeRemote::Treatment{ask == Ask::create ? Kind::late : Kind::fair, nullptr};
  });
  for (const int pause : {1, 2, 4}) {
    SCOPED_TRACE(pause);
    ASSERT_TRUE(passUntil([&] { return remote().countHeld() == 1; }));
    remote().remove("/a");
    remote().releaseAll();
    const auto isPausing = [&] {
      const auto changes = unsent();
      return !changes.empty() && !changes[0].isUnderWay && changes[0].until > seconds(0);
    };
    ASSERT_TRUE(passUntil(isPausing));
    EXPECT_THAT(unsent()[0].reason, HasSubstr("does not show it"));
    EXPECT_LE(unsent()[0].until, seconds(pause));
    EXPECT_GE(unsent()[0].until, seconds(pause) - milliseconds(200));
  }
  remote().setWeather(nullptr);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "a");
}

TEST_F(SenderTest, ACreationWhoseAnswerWasLostIsLookedAtAndNotRepeated) {
  remote().loseAnswers(Ask::create, "/a", errorOf(NSFileProviderError::serverUnreachable));
  save("/a", "hello");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().asked(Ask::create, "/a"), 1);
  EXPECT_THAT(remote().names(), ElementsAre("a"));
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 0);
}

TEST_F(SenderTest, SoIsAnUploadAndAMove) {
  remote().putFile("/a", "old");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  remote().loseAnswers(Ask::modify, "/a", errorOf(NSFileProviderError::serverUnreachable));
  save("/a", "hello");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().uploads(), SizeIs(1));
  EXPECT_EQ(remote().contents("/a"), "hello");
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_EQ(rename("/a", "/b"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().asked(Ask::modify, "/a"), 2);
  EXPECT_EQ(remote().asked(Ask::modify, "/b"), 0);
  EXPECT_THAT(remote().names(), ElementsAre("b"));
}

TEST_F(SenderTest, AWriteDuringAnUploadIsSentAfterwards) {
  remote().putFile("/a", "old");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  remote().hold(Ask::modify, "/a");
  save("/a", "first");
  ASSERT_TRUE(waitForUpload("/a"));
  const OpenFilePtr file = openForWriting("/a");
  write(file, "SECOND");
  close(file);
  EXPECT_EQ(readPath("/a"), "SECOND");
  pass(seconds(5));
  EXPECT_EQ(remote().asked(Ask::modify, "/a"), 1);
  remote().release(Ask::modify, "/a");
  ASSERT_TRUE(support::waitUntil([&] { return remote().contents("/a") == "first"; }));
  remote().stopHolding(Ask::modify, "/a");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "SECOND");
  EXPECT_THAT(remote().uploads(), SizeIs(2));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(SenderTest, AWriteDuringACreationIsSentAfterwards) {
  remote().hold(Ask::create, "/a");
  save("/a", "first");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::create, "/a") == 1; }));
  const OpenFilePtr file = openForWriting("/a");
  write(file, "SECOND");
  close(file);
  remote().stopHolding(Ask::create, "/a");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "SECOND");
  EXPECT_THAT(remote().names(), ElementsAre("a"));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(SenderTest, ARemovalDuringACreationFollowsIt) {
  remote().hold(Ask::create, "/a");
  save("/a", "first");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::create, "/a") == 1; }));
  EXPECT_EQ(removeFile("/a"), 0);
  remote().stopHolding(Ask::create, "/a");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), IsEmpty());
}

TEST_F(SenderTest, WhatCameAndWentBeforeItWasSentCostsNothing) {
  save("/a", "x");
  EXPECT_EQ(removeFile("/a"), 0);
  ASSERT_TRUE(waitUntilSent());
  pass(seconds(2));
  EXPECT_EQ(remote().asked(Ask::create, "/a"), 0);
}

TEST_F(SenderTest, AFileThatIsRemovedWhileOpenIsThereForThoseWhoHaveIt) {
  remote().putFile("/a", "hello");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  const OpenFilePtr file = openForWriting("/a");
  EXPECT_EQ(readAll(file), "hello");
  EXPECT_EQ(removeFile("/a"), 0);
  write(file, "J");
  EXPECT_EQ(readAll(file), "Jello");
  close(file);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_THAT(remote().names(), IsEmpty());
  EXPECT_THAT(remote().uploads(), IsEmpty());
}

TEST_F(SenderTest, ANameThatSomebodyElseGaveMeanwhileIsKeptBesideTheOneFromHere) {
  letListingsAge();
  remote().putFile("/a", "theirs");
  save("/a", "mine");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "theirs");
  const auto both = remote().names();
  ASSERT_THAT(both, SizeIs(2));
  EXPECT_EQ(remote().contents("/" + (both[0] == "a" ? both[1] : both[0])), "mine");
}

TEST_F(SenderTest, NamesThatAreExchangedAreExchangedThere) {
  remote().putFile("/a", "one");
  remote().putFile("/b", "two");
  announce();
  ASSERT_TRUE(waitForNames({"a", "b"}));
  const std::string one = remote().identifierOf("/a");
  EXPECT_EQ(rename("/a", "/b", RenameMode::exchange), 0);
  EXPECT_EQ(rename("/a", "/b", RenameMode::noReplace), EEXIST);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "two");
  EXPECT_EQ(remote().contents("/b"), "one");
  EXPECT_EQ(remote().identifierOf("/b"), one);
  EXPECT_THAT(remote().names(), ElementsAre("a", "b"));
}

TEST_F(SenderTest, AFileThatOthersPutInThePlaceOfARemovedFolderIsNotRemoved) {
  remote().usePathsAsIdentifiers();
  makeFolder("/a");
  ASSERT_TRUE(waitUntilSent());
  remote().setUnreachable(true);
  EXPECT_EQ(removeFolder("/a"), 0);
  remote().remove("/a");
  remote().putFile("/a", "theirs");
  pass(seconds(1));
  remote().setUnreachable(false);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "theirs");
  ASSERT_TRUE(waitForNames({"a"}));
  EXPECT_EQ(readPath("/a"), "theirs");
}

TEST_F(SenderTest, AFolderIntoWhichOthersJustPutSomethingIsNotRemoved) {
  remote().putFolder("/docs");
  announce();
  ASSERT_TRUE(waitForNames({"docs"}));
  names(find("/docs").node);
  remote().putFile("/docs/new", "x");
  EXPECT_EQ(removeFolder("/docs"), 0);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/docs/new"), "x");
  EXPECT_EQ(readPath("/docs/new"), "x");
}

// The bytes of which the old version had some are nowhere any more; what was written here is all that can be kept.
TEST_F(SenderTest, WhatWasWrittenIntoAFileThatWasNotFetchedIsSentThoughItsVersionIsGone) {
  remote().putFile("/a", "0123456789");
  announce();
  ASSERT_TRUE(waitForNames({"a"}));
  const OpenFilePtr file = openForWriting("/a");
  write(file, "abc", 2);
  remote().overwrite("/a", "others");
  close(file);
  ASSERT_TRUE(waitUntilSent());
  ASSERT_THAT(remote().names(), SizeIs(2));
  EXPECT_EQ(remote().contents("/a"), "others");
  EXPECT_EQ(remote().contents("/" + remote().names()[0] == "/a" ? "/" + remote().names()[1]
                                                                : "/" + remote().names()[0]),
            std::string("\0\0abc\0\0\0\0\0", 10));
}

}  // namespace
}  // namespace kestrune::host::test
