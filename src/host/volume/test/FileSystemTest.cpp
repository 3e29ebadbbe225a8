#include "host/volume/FileSystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "host/volume/test/HostHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::NSFileProviderError;
using testing::ElementsAre;
using testing::IsEmpty;

platform::NSErrorPtr unreachable() {
  return NSFileProviderError(NSFileProviderError::serverUnreachable).share();
}

class FileSystemTest : public testing::Test, public HostHarness {};

TEST_F(FileSystemTest, AFolderIsEnumeratedOnFirstVisitOnly) {
  remote().putFile("/a", "x");
  EXPECT_EQ(remote().asked(Ask::items, "/"), 0);
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_THAT(names(), ElementsAre("a"));
  find("/a");
  EXPECT_EQ(remote().asked(Ask::items, "/"), 1);
}

TEST_F(FileSystemTest, WhatWaitsForTheStoreAtTheEndIsAnsweredWhenTheStoreAnswers) {
  remote().putFolder("/docs");
  find("/docs");
  remote().hold(Ask::items, "/docs");
  const Awaited<Done> removed;
  fileSystem().removeFolder(kRootNode, "docs", removed.reply());
  ASSERT_TRUE(remote().waitUntilAsked(Ask::items, "/docs", 1));
  destroyFileSystem();
  EXPECT_FALSE(removed.ready());
  remote().release(Ask::items, "/docs");
  EXPECT_EQ(errnoOf(removed.get()), ENOTCONN);
}

TEST_F(FileSystemTest, AReadThatWaitsForAFileToMoveEndsWithTheFolder) {
  remote().usePathsAsIdentifiers();
  remote().putFile("/a", "one");
  names();
  using Treatment = FakeRemote::Treatment;
  remote().setWeather([](Ask ask) {
    return ask == Ask::modify ? Treatment{Treatment::Kind::late, nullptr} : Treatment();
  });
  ASSERT_EQ(rename("/a", "/b"), 0);
  ASSERT_TRUE(passUntil([&] { return remote().names() == std::vector<std::string>{"b"}; }));
  const auto read = startRead(open(find("/b").node));
  ASSERT_TRUE(timers().waitForTimer(FolderLister::kMoves));
  EXPECT_FALSE(read.ready());
  fileSystem().stop();
  EXPECT_EQ(errnoOf(read.get()), ENOTCONN);
  remote().releaseAll();
}

TEST_F(FileSystemTest, VisitorsOfOneFolderWaitForOneEnumeration) {
  remote().putFile("/a", "x");
  remote().hold(Ask::items, "/");
  const Awaited<Done> opened;
  const Awaited<Entry> found;
  const Awaited<Entry> missing;
  fileSystem().openFolder(kRootNode, opened.reply());
  fileSystem().lookup(kRootNode, "a", found.reply());
  fileSystem().lookup(kRootNode, "b", missing.reply());
  ASSERT_TRUE(remote().waitUntilAsked(Ask::items, "/", 1));
  EXPECT_TRUE(support::staysTrue([&] { return remote().asked(Ask::items, "/") == 1; },
                                 std::chrono::milliseconds(100)));
  EXPECT_FALSE(opened.ready());
  EXPECT_FALSE(found.ready());
  remote().release(Ask::items, "/");
  EXPECT_TRUE(opened.get().ok());
  EXPECT_NE(found.get().value().node, 0U);
  EXPECT_EQ(missing.get().value().node, 0U);
  EXPECT_EQ(remote().asked(Ask::items, "/"), 1);
  EXPECT_EQ(timers().count(), 0U);
}

TEST_F(FileSystemTest, AFailedEnumerationAnswersWhoWaitsAndTheNextVisitTriesAgain) {
  const support::CapturingLogSink log;
  remote().putFile("/a", "x");
  remote().failWith(Ask::items, "/", unreachable());
  EXPECT_EQ(openFolderError(kRootNode), EHOSTUNREACH);
  EXPECT_EQ(errnoOf(lookup(kRootNode, "a")), EHOSTUNREACH);
  EXPECT_EQ(remote().asked(Ask::items, "/"), 2);
  EXPECT_TRUE(log.contains("list '/': The server could not be reached."));
  remote().failWith(Ask::items, "/", nullptr);
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(FileSystemTest, AVisitTimesOutWhileTheEnumerationGoesOn) {
  remote().putFile("/a", "x");
  remote().hold(Ask::items, "/");
  const Awaited<Done> first;
  fileSystem().openFolder(kRootNode, first.reply());
  ASSERT_TRUE(remote().waitUntilAsked(Ask::items, "/", 1));
  timers().advance(std::chrono::seconds(59));
  EXPECT_FALSE(first.ready());
  timers().advance(std::chrono::seconds(1));
  EXPECT_EQ(errnoOf(first.get()), ETIMEDOUT);
  const Awaited<Done> second;
  fileSystem().openFolder(kRootNode, second.reply());
  remote().release(Ask::items, "/");
  EXPECT_TRUE(second.get().ok());
  EXPECT_EQ(first.count(), 1);
  EXPECT_EQ(remote().asked(Ask::items, "/"), 1);
}

TEST_F(FileSystemTest, EveryPageIsShown) {
  for (int i = 0; i < 10; ++i) remote().putFile("/f" + std::to_string(i), "x");
  remote().setPageSize(3);
  EXPECT_EQ(names().size(), 10U);
}

TEST_F(FileSystemTest, HostileItemsAreLeftOutWithOneLogLine) {
  const support::CapturingLogSink log;
  using namespace std::string_literals;
  for (const auto& name : {""s, "."s, ".."s, "a/b"s, "/"s, "nul\0byte"s, std::string(256, 'l'),
                           "../../../etc/passwd"s}) {
    remote().putItem("/", {.identifier = "", .name = name});
  }
  remote().putFile("/good", "x");
  remote().putFile("/good", "again");
  EXPECT_THAT(names(), ElementsAre("good"));
  EXPECT_EQ(readPath("/good"), "x");
  EXPECT_EQ(log.messages().size(), 1U);
  EXPECT_TRUE(log.contains("9 items of a folder are not shown")) << log.messages().at(0);
}

TEST_F(FileSystemTest, NumbersAndDatesOutOfRangeAreClamped) {
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  remote().putItem(
      "/",
      {.identifier = "", .name = "negative", .listedSize = -1, .modified = platform::Date::min()});
  remote().putItem(
      "/",
      {.identifier = "", .name = "huge", .listedSize = kMost, .modified = platform::Date::max()});
  const Attributes negative = find("/negative").attributes;
  EXPECT_EQ(negative.sizeBytes, 0);
  EXPECT_EQ(platform::formatISO8601(negative.modified.date()), "0000-01-01T00:00:00Z");
  const Attributes huge = find("/huge").attributes;
  EXPECT_EQ(huge.sizeBytes, kMost);
  EXPECT_EQ(huge.storedBytes, 0);
  EXPECT_EQ(platform::formatISO8601(huge.modified.date()), "9999-12-31T23:59:59Z");
}

TEST_F(FileSystemTest, ReadersInPiecesNeitherRepeatNorSkipWhenNamesComeAndGo) {
  for (const char* path : {"/a", "/b", "/c", "/d"}) remote().putFile(path, "x");
  names();
  NameSink first(4);  // ".", "..", "a", "b"
  fileSystem().readFolder(kRootNode, 0, false, first);
  remote().remove("/a");
  remote().remove("/b");
  remote().overwrite("/c", "new version");
  remote().putFile("/e", "x");
  announce();
  ASSERT_TRUE(waitForNames({"c", "d", "e"}));
  NameSink rest;
  fileSystem().readFolder(kRootNode, first.last, false, rest);
  EXPECT_THAT(rest.names, ElementsAre("c", "d", "e"));
}

TEST_F(FileSystemTest, WrongKindsOfNodesAreRefused) {
  remote().putFile("/file", "x");
  remote().putFolder("/folder");
  const NodeId file = find("/file").node;
  EXPECT_EQ(openFolderError(file), ENOTDIR);
  EXPECT_EQ(errnoOf(lookup(file, "x")), ENOTDIR);
  EXPECT_EQ(openError(find("/folder").node), EISDIR);
  EXPECT_EQ(openError(4711), ESTALE);
  EXPECT_EQ(errnoOf(fileSystem().attributes(4711)), ESTALE);
  EXPECT_EQ(openFolderError(4711), ESTALE);
}

TEST_F(FileSystemTest, WhoWaitsForAFolderThatIsDeletedIsTold) {
  remote().putFolder("/gone");
  const NodeId gone = find("/gone").node;
  remote().setWeather([](Ask ask) {
    using Kind = FakeRemote::Treatment::Kind;
    return FakeRemote::Treatment{ask == Ask::items ? Kind::late : Kind::fair, nullptr};
  });
  const Awaited<Done> opened;
  fileSystem().openFolder(gone, opened.reply());
  ASSERT_TRUE(support::waitUntil([this] { return remote().countHeld() == 1; }));
  remote().remove("/gone");
  announce();
  ASSERT_TRUE(waitForNames({}));
  EXPECT_EQ(openFolderError(gone), ESTALE);
  remote().releaseAll();
  EXPECT_EQ(errnoOf(opened.get()), ESTALE);
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(FileSystemTest, AFolderKeepsItsInodeWhenItIsRenamedRemotely) {
  remote().putFolder("/old");
  remote().putFile("/old/a", "x");
  const Entry before = find("/old");
  find("/old/a");
  remote().rename("/old", "/new");
  announce();
  ASSERT_TRUE(waitForNames({"new"}));
  EXPECT_EQ(find("/new").node, before.node);
  EXPECT_EQ(remote().asked(Ask::items, "/old"), 1);
  EXPECT_EQ(find("/new/a").attributes.sizeBytes, 1);
  EXPECT_EQ(remote().asked(Ask::items, "/new"), 0);
}

TEST_F(FileSystemTest, AnExtensionThatDropsItsObserverDoesNotKeepAnybodyWaiting) {
  class Forgetful final : public platform::NSFileProviderReplicatedExtension {
   public:
    class Enumerator final : public platform::NSFileProviderEnumerator {
     public:
      void invalidate() override {}
      void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver>,
                          std::string) override {}
      void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver>,
                            std::string) override {}
      void currentSyncAnchor(std::function<void(std::optional<std::string>)> handler) override {
        handler("a");
      }
    };
    void invalidate() override {}
    platform::NSProgressPtr item(std::string, platform::NSFileProviderRequest,
                                 ItemHandler) override {
      return nullptr;
    }
    platform::NSProgressPtr fetchContents(std::string,
                                          std::optional<platform::NSFileProviderItemVersion>,
                                          platform::NSFileProviderRequest,
                                          ContentsHandler) override {
      return nullptr;
    }
    std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
        std::string, platform::NSFileProviderRequest) override {
      return std::make_shared<Enumerator>();
    }
  };
  const Awaited<Listing> listing;
  enumerateFolder(std::make_shared<Forgetful>(), "x", listing.reply());
  EXPECT_FALSE(listing.get().ok());
  const Awaited<ChangeSet> changes;
  enumerateFolderChanges(std::make_shared<Forgetful>(), "x", "a", changes.reply());
  EXPECT_FALSE(changes.get().ok());
}

TEST_F(FileSystemTest, StoppingInvalidatesTheExtensionOnce) {
  fileSystem().stop();
  EXPECT_TRUE(remote().invalidated());
  fileSystem().stop();
}

TEST_F(FileSystemTest, AnswersThatComeAfterTheEndAreHarmless) {
  remote().putFile("/a", "x");
  const NodeId a = find("/a").node;
  remote().putFolder("/b");
  remote().hold(Ask::contents, "/a");
  const OpenFilePtr file = open(a);
  const auto read = startRead(file);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  fileSystem().stop();
  destroyFileSystem();
  remote().release(Ask::contents, "/a");
  static_cast<void>(read.get());  // with an error: its bytes belong nowhere any more
  EXPECT_EQ(read.count(), 1);
}

}  // namespace
}  // namespace kestrune::host::test
