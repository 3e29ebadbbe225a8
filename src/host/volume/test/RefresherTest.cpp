#include "host/volume/Refresher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

class RefresherTest : public testing::Test, public HostHarness {
 protected:
  void signal() {
    remote().announce();
    fileSystem().changesSignalled();
  }
  bool staysAsked(const std::string& folder, int count) {
    return support::staysTrue([&] { return remote().asked(Ask::changes, folder) == count; },
                              milliseconds(50));
  }
};

TEST_F(RefresherTest, ASignalBringsEveryEnumeratedFolderUpToDate) {
  remote().putFolder("/docs");
  remote().putFolder("/never visited");
  remote().putFile("/docs/a", "x");
  names();
  const NodeId docs = find("/docs").node;
  names(docs);
  remote().putFile("/docs/b", "x");
  remote().putFile("/c", "x");
  announce("/docs");
  EXPECT_TRUE(waitForNames({"a", "b"}, docs));
  EXPECT_TRUE(waitForNames({"docs", "never visited", "c"}));
  EXPECT_EQ(remote().asked(Ask::changes, "/never visited"), 0);
  EXPECT_EQ(remote().asked(Ask::items, "/docs"), 1);
}

TEST_F(RefresherTest, AnAnchorThatDidNotMoveNeedsNoQuestion) {
  remote().putFile("/a", "x");
  names();
  fileSystem().changesSignalled();
  fileSystem().changesSignalled();
  // What is asked after the next signal proves that the earlier ones are through.
  remote().putFile("/b", "x");
  announce();
  EXPECT_TRUE(waitForNames({"a", "b"}));
  EXPECT_EQ(remote().asked(Ask::changes, "/"), 1);
}

TEST_F(RefresherTest, ExaggeratedReportsChangeNothing) {
  remote().putFolder("/docs");
  remote().putFile("/a", "x");
  EXPECT_EQ(readPath("/a"), "x");
  const Entry before = find("/a");
  kernel().takeUpdates();
  remote().exaggerateChanges(true);
  remote().putFile("/b", "x");
  announce();
  ASSERT_TRUE(waitForNames({"docs", "a", "b"}));
  EXPECT_EQ(find("/a").node, before.node);
  EXPECT_EQ(readPath("/a"), "x");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
  for (const auto& update : kernel().takeUpdates()) EXPECT_NE(update.name, "a");
}

TEST_F(RefresherTest, ASilentFailureIsAskedAgainAfterGrowingDelays) {
  names();
  remote().failChangesSilently(true);
  remote().putFile("/a", "x");
  announce();
  int questions = 1;
  for (const int delay : {2, 4, 8, 16, 32, 60, 60}) {
    ASSERT_TRUE(timers().waitForTimer(seconds(delay))) << delay;
    EXPECT_EQ(remote().asked(Ask::changes, "/"), questions);
    if (delay == 60) remote().failChangesSilently(questions == 6);
    timers().advance(seconds(delay));
    ASSERT_TRUE(remote().waitUntilAsked(Ask::changes, "/", ++questions));
  }
  EXPECT_TRUE(waitForNames({"a"}));
  EXPECT_EQ(timers().count(), 0U);
}

TEST_F(RefresherTest, AnErrorIsAskedAgainAndASignalDoesNotWaitForThat) {
  const support::CapturingLogSink log;
  names();
  remote().failWith(Ask::changes, "/",
                    NSFileProviderError(NSFileProviderError::serverUnreachable).share());
  remote().putFile("/a", "x");
  announce();
  ASSERT_TRUE(timers().waitForTimer(seconds(2)));
  EXPECT_TRUE(log.contains("bring '/' up to date: The server could not be reached."));
  remote().failWith(Ask::changes, "/", nullptr);
  announce();
  EXPECT_TRUE(waitForNames({"a"}));
  EXPECT_EQ(timers().count(), 0U);
}

TEST_F(RefresherTest, AnExpiredAnchorHasTheFolderEnumeratedAnew) {
  remote().putFile("/a", "x");
  remote().putFile("/b", "x");
  names();
  remote().expireAnchors(true);
  remote().remove("/a");
  remote().putFile("/c", "x");
  announce();
  EXPECT_TRUE(waitForNames({"b", "c"}));
  EXPECT_EQ(remote().asked(Ask::items, "/"), 2);
}

TEST_F(RefresherTest, ChangesThatComeInPiecesAreAllApplied) {
  names();
  remote().setChangesAtOnce(1);
  for (const char* path : {"/a", "/b", "/c"}) {
    remote().putFile(path, "x");
    remote().announce();
  }
  fileSystem().changesSignalled();
  EXPECT_TRUE(waitForNames({"a", "b", "c"}));
  EXPECT_EQ(remote().asked(Ask::changes, "/"), 3);
}

TEST_F(RefresherTest, WhatWasMovedHereAndMovedBackByOthersIsFoundAgain) {
  remote().usePathsAsIdentifiers();
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "x");
  names();
  const NodeId docs = find("/docs").node;
  names(docs);
  ASSERT_EQ(rename("/docs/a", "/a"), 0);
  ASSERT_TRUE(waitUntilSent());
  ASSERT_TRUE(remote().tryRename("/a", "/docs/a"));
  announce("/docs");
  EXPECT_TRUE(waitForNames({"a"}, docs));
  EXPECT_TRUE(waitForNames({"docs"}));
}

TEST_F(RefresherTest, ASignalDuringAQuestionAsksOnceMore) {
  names();
  remote().hold(Ask::changes, "/");
  announce();
  remote().putFile("/a", "x");
  remote().announce();
  fileSystem().changesSignalled();
  fileSystem().changesSignalled();
  remote().putFile("/b", "x");
  remote().stopHolding(Ask::changes, "/");
  EXPECT_TRUE(waitForNames({"a", "b"}));
  EXPECT_LE(remote().asked(Ask::changes, "/"), 2);
}

TEST_F(RefresherTest, ASignalDuringTheFirstEnumerationIsNotLost) {
  remote().putFile("/a", "x");
  remote().hold(Ask::items, "/");
  const Awaited<Done> opened;
  fileSystem().openFolder(kRootNode, opened.reply());
  ASSERT_TRUE(remote().waitUntilAsked(Ask::items, "/", 1));
  remote().announce();
  fileSystem().changesSignalled();
  remote().release(Ask::items, "/");
  ASSERT_TRUE(opened.get().ok());
  // The anchor was taken before the enumeration, so it is behind.
  EXPECT_TRUE(remote().waitUntilAsked(Ask::changes, "/", 1));
}

TEST_F(RefresherTest, AFolderAskedDuringAFetchIsEnumeratedAnewAfterIt) {
  remote().putFolder("/docs");
  remote().putFile("/docs/big", "x");
  remote().putFile("/docs/old", "x");
  names();
  const NodeId docs = find("/docs").node;
  names(docs);
  remote().hold(Ask::contents, "/docs/big");
  const OpenFilePtr file = open(find("/docs/big").node);
  const auto read = startRead(file);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/docs/big", 1));
  remote().putFile("/docs/new", "x");
  announce("/docs");
  ASSERT_TRUE(waitForNames({"big", "old", "new"}, docs));
  // A deletion that the extension holds back, and never reports later.
  remote().remove("/docs/old");
  EXPECT_EQ(remote().asked(Ask::items, "/docs"), 1);
  remote().release(Ask::contents, "/docs/big");
  ASSERT_TRUE(read.get().ok());
  ASSERT_TRUE(passUntil([this] { return remote().asked(Ask::items, "/docs") == 2; }));
  EXPECT_TRUE(waitForNames({"big", "new"}, docs));
}

TEST_F(RefresherTest, SoIsOneWhoseFetchBeganAndEndedWhileItWasAsked) {
  remote().putFolder("/docs");
  remote().putFile("/docs/a", "x");
  remote().putFile("/docs/old", "x");
  names();
  const NodeId docs = find("/docs").node;
  names(docs);
  remote().hold(Ask::changes, "/docs");
  remote().putFile("/docs/new", "x");
  announce("/docs");
  EXPECT_EQ(readPath("/docs/a"), "x");
  remote().stopHolding(Ask::changes, "/docs");
  // It rests if the fetch is still known when its question ends.
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::items, "/docs") == 2; }));
  EXPECT_TRUE(waitForNames({"a", "old", "new"}, docs));
}

TEST_F(RefresherTest, OnlyAFewFoldersAreAskedAtATime) {
  constexpr int kFolders = 20;
  for (int i = 0; i < kFolders; ++i) remote().putFolder("/f" + std::to_string(i));
  for (int i = 0; i < kFolders; ++i) {
    names(find("/f" + std::to_string(i)).node);
    remote().hold(Ask::changes, "/f" + std::to_string(i));
  }
  const auto asked = [&] {
    int total = 0;
    for (int i = 0; i < kFolders; ++i)
      total += remote().asked(Ask::changes, "/f" + std::to_string(i));
    return total;
  };
  remote().announce();
  fileSystem().changesSignalled();
  ASSERT_TRUE(support::waitUntil([&] { return asked() == static_cast<int>(Refresher::kAtOnce); }));
  for (int i = 0; i < kFolders; ++i) remote().stopHolding(Ask::changes, "/f" + std::to_string(i));
  EXPECT_TRUE(support::waitUntil([&] { return asked() == kFolders; }));
}

TEST_F(RefresherTest, AFolderRestsFourTimesAsLongAsTheQuestionTook) {
  names();
  remote().hold(Ask::changes, "/");
  remote().putFile("/a", "x");
  announce();
  timers().advance(milliseconds(100));
  remote().stopHolding(Ask::changes, "/");
  ASSERT_TRUE(timers().waitForTimer(milliseconds(400)));
  remote().putFile("/b", "x");
  for (int i = 0; i < 5; ++i) signal();
  timers().advance(milliseconds(399));
  EXPECT_TRUE(staysAsked("/", 1));
  timers().advance(milliseconds(1));
  EXPECT_TRUE(waitForNames({"a", "b"}));
  EXPECT_EQ(remote().asked(Ask::changes, "/"), 2);
}

TEST_F(RefresherTest, ButASecondAtMost) {
  names();
  remote().hold(Ask::changes, "/");
  remote().putFile("/a", "x");
  announce();
  timers().advance(seconds(30));
  remote().stopHolding(Ask::changes, "/");
  EXPECT_TRUE(timers().waitForTimer(seconds(1)));
  signal();
  timers().advance(seconds(1));
  EXPECT_TRUE(remote().waitUntilAsked(Ask::changes, "/", 2));
}

TEST_F(RefresherTest, WhileContentsAreOnTheirWayItIsAskedOnceASecond) {
  remote().putFile("/big", "x");
  names();
  remote().hold(Ask::contents, "/big");
  const auto read = startRead(open(find("/big").node));
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/big", 1));
  announce("/");
  for (int second = 1; second < 4; ++second) {
    ASSERT_TRUE(timers().waitForTimer(Refresher::kLongestRest));
    for (int i = 0; i < 5; ++i) signal();
    EXPECT_TRUE(staysAsked("/", second));
    timers().advance(Refresher::kLongestRest);
    ASSERT_TRUE(remote().waitUntilAsked(Ask::changes, "/", second + 1));
  }
  remote().release(Ask::contents, "/big");
  EXPECT_TRUE(read.get().ok());
}

TEST_F(RefresherTest, OfFoldersThatNobodyLookedIntoLatelyTwoAreAskedAtATime) {
  constexpr std::size_t kFolders = 40;
  // The root is always among those that are asked at once.
  constexpr std::size_t kOthers = kFolders + 1 - Refresher::kRecent;
  const auto path = [](std::size_t i) { return "/f" + std::to_string(i); };
  for (std::size_t i = 0; i < kFolders; ++i) remote().putFolder(path(i));
  for (std::size_t i = 0; i < kFolders; ++i) {
    names(find(path(i)).node);
    remote().hold(Ask::changes, path(i));
  }
  const auto asked = [&](std::size_t begin, std::size_t end) {
    std::size_t total = 0;
    for (std::size_t i = begin; i < end; ++i)
      total += static_cast<std::size_t>(remote().asked(Ask::changes, path(i)));
    return total;
  };
  signal();
  ASSERT_TRUE(support::waitUntil([&] { return asked(0, kFolders) == Refresher::kAtOnce; }));
  EXPECT_EQ(asked(0, kOthers), 0U);
  for (std::size_t i = kOthers; i < kFolders; ++i) remote().stopHolding(Ask::changes, path(i));
  const auto slow = [&] { return asked(0, kOthers) == Refresher::kLaterAtOnce; };
  ASSERT_TRUE(support::waitUntil(slow));
  EXPECT_TRUE(support::staysTrue(slow, milliseconds(50)));
  EXPECT_EQ(asked(kOthers, kFolders), kFolders - kOthers);
  // Who looks into one does not wait for the others.
  std::size_t waiting = 0;
  while (remote().asked(Ask::changes, path(waiting)) != 0) ++waiting;
  names(find(path(waiting)).node);
  EXPECT_TRUE(remote().waitUntilAsked(Ask::changes, path(waiting), 1));
  for (std::size_t i = 0; i < kOthers; ++i) remote().stopHolding(Ask::changes, path(i));
  EXPECT_TRUE(support::waitUntil([&] { return asked(0, kFolders) == kFolders; }));
}

// Answers about changes that come when the folder was listed meanwhile.
class RefresherCrossingTest : public RefresherTest {
 protected:
  RefresherCrossingTest() {
    remote().usePathsAsIdentifiers();
    remote().moveAnchorWithEveryChange();
    remote().putFile("/a", "x");
    remote().putFile("/b", "x");
    names();
  }
  /// What changed so far is asked for, and the answer comes with `arrive`.
  void askForChanges() {
    remote().setWeather([](Ask ask) {
      using Kind = FakeRemote::Treatment::Kind;
      return FakeRemote::Treatment{ask == Ask::changes ? Kind::late : Kind::fair, nullptr};
    });
    fileSystem().changesSignalled();
    ASSERT_TRUE(support::waitUntil([&] { return remote().countHeld() == 1; }));
    remote().setWeather(nullptr);
  }
  void list() {
    const Awaited<Done> listed;
    fileSystem().lister()->list(kRootItem, listed.reply());
    ASSERT_TRUE(listed.get().ok());
  }
  void arrive() {
    remote().releaseAll();
    ASSERT_TRUE(support::waitUntil([&] { return !fileSystem().refresher()->isAsking(); }));
  }
};

TEST_F(RefresherCrossingTest, WhatWasGoneWhenItWasListedIsNotShownByThem) {
  remote().putFile("/c", "x");
  askForChanges();
  remote().remove("/c");
  list();
  arrive();
  EXPECT_THAT(names(), ElementsAre("a", "b"));
}

// What goes between two pages has the next one begin behind something that was not shown yet.
class RefresherPagesTest : public RefresherTest {
 protected:
  RefresherPagesTest() {
    remote().moveAnchorWithEveryChange();
    remote().setPageSize(1);
    for (const char* path : {"/a", "/b", "/c"}) remote().putFile(path, "x");
    remote().setWeather([](Ask ask) {
      using Kind = FakeRemote::Treatment::Kind;
      return FakeRemote::Treatment{ask == Ask::items ? Kind::late : Kind::fair, nullptr};
    });
    fileSystem().openFolder(kRootNode, opened_.reply());
  }
  bool waitForFirstPage() {
    return support::waitUntil([&] { return remote().countHeld() == 1; });
  }
  const Awaited<Done> opened_;
};

TEST_F(RefresherPagesTest, WhatTheyMayHavePassedOverIsShown) {
  ASSERT_TRUE(waitForFirstPage());
  remote().setWeather(nullptr);
  remote().remove("/a");
  remote().releaseAll();
  ASSERT_TRUE(timers().waitForTimer(FolderLister::kMoves));
  EXPECT_FALSE(opened_.ready());
  timers().advance(FolderLister::kMoves);
  ASSERT_TRUE(opened_.get().ok());
  EXPECT_THAT(names(), ElementsAre("b", "c"));
  EXPECT_EQ(remote().asked(Ask::items, "/"), 2);
}

TEST_F(RefresherPagesTest, WhereSomethingAlwaysChangesTheFolderIsShownAndListedAtTheNextSignal) {
  for (int time = 0; time < FolderLister::kMostGaps; ++time) {
    ASSERT_TRUE(waitForFirstPage()) << time;
    remote().putFolder("/new " + std::to_string(time));
    remote().releaseAll();
    ASSERT_TRUE(timers().waitForTimer(FolderLister::kMoves)) << time;
    timers().advance(FolderLister::kMoves);
  }
  ASSERT_TRUE(waitForFirstPage());
  remote().remove("/a");
  remote().setWeather(nullptr);
  remote().releaseAll();
  ASSERT_TRUE(opened_.get().ok());
  EXPECT_THAT(names(), ElementsAre("a", "c", "new 0", "new 1", "new 2"));
  fileSystem().changesSignalled();
  EXPECT_TRUE(waitForNames({"c", "new 0", "new 1", "new 2", "b"}));
}

TEST_F(RefresherTest, AfterTheEndNothingIsAsked) {
  names();
  remote().failChangesSilently(true);
  announce();
  ASSERT_TRUE(timers().waitForTimer(seconds(2)));
  fileSystem().stop();
  EXPECT_EQ(timers().count(), 0U);
  fileSystem().changesSignalled();
  EXPECT_EQ(remote().asked(Ask::changes, "/"), 1);
}

}  // namespace
}  // namespace kestrune::host::test
