#include "host/volume/Contents.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <span>
#include <thread>

#include "host/volume/test/HostHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::NSFileProviderError;
namespace fs = std::filesystem;

class ContentsTest : public testing::Test, public HostHarness {
 protected:
  std::vector<std::string> stored() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(replica() / "contents")) {
      std::ifstream file(entry.path(), std::ios::binary);  // it may be going
      if (file && entry.path().extension().empty())
        names.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return names;
  }
  std::size_t temporaryFiles() {
    const auto entries = fs::directory_iterator(replica() / "tmp");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
  }
  // A new version is announced and the name stands for it.
  void overwriteAndAnnounce(const std::string& path, const std::string& contents) {
    const NodeId before = find(path).node;
    remote().overwrite(path, contents);
    announce();
    ASSERT_TRUE(support::waitUntil([&] { return find(path).node != before; }));
  }
};

TEST_F(ContentsTest, ListingExaminingAndOpeningFetchNothing) {
  remote().putFile("/a", "hello");
  names();
  const OpenFilePtr file = open(find("/a").node);
  EXPECT_EQ(fileSystem().present(*file, 0, 1), nullptr);
  fileSystem().release(file);
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 0);
}

TEST_F(ContentsTest, TheFirstReadFetchesAndLaterOnesDoNot) {
  remote().putFile("/a", "hello");
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(ContentsTest, ConcurrentReadersShareOneFetch) {
  remote().putFile("/a", "hello");
  remote().hold(Ask::contents, "/a");
  const NodeId node = find("/a").node;
  const OpenFilePtr one = open(node);
  const OpenFilePtr other = open(node);
  const auto reads = {startRead(one), startRead(one), startRead(other)};
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  EXPECT_TRUE(support::staysTrue([&] { return remote().asked(Ask::contents, "/a") == 1; },
                                 std::chrono::milliseconds(100)));
  for (const auto& read : reads) EXPECT_FALSE(read.ready());
  remote().release(Ask::contents, "/a");
  for (const auto& read : reads) EXPECT_EQ(bytes(read.get().value()), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(ContentsTest, ContentsAreTakenOverByRename) {
  remote().putFile("/a", "hello");
  readPath("/a");
  EXPECT_THAT(stored(), testing::ElementsAre("hello"));
  EXPECT_EQ(temporaryFiles(), 0U);
  const auto file = fs::directory_iterator(replica() / "contents")->path();
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(ContentsTest, AFetchedFileTakesSpaceAndAnUnfetchedOneDoesNot) {
  remote().putFile("/a", "hello");
  EXPECT_EQ(find("/a").attributes.storedBytes, 0);
  readPath("/a");
  EXPECT_GE(find("/a").attributes.storedBytes, 5);
}

TEST_F(ContentsTest, AFailedFetchAnswersAllWhoWaitAndTheNextReadTriesAgain) {
  const support::CapturingLogSink log;
  remote().putFile("/a", "hello");
  remote().hold(Ask::contents, "/a");
  const OpenFilePtr file = open(find("/a").node);
  const auto one = startRead(file);
  const auto other = startRead(file);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  remote().release(Ask::contents, "/a",
                   NSFileProviderError(NSFileProviderError::serverUnreachable).share());
  EXPECT_EQ(errnoOf(one.get()), EHOSTUNREACH);
  EXPECT_EQ(errnoOf(other.get()), EHOSTUNREACH);
  EXPECT_TRUE(log.contains("fetch '/a': The server could not be reached."));
  remote().stopHolding(Ask::contents, "/a");
  // The kernel repeats a failed read at once, in several ways.
  EXPECT_EQ(errnoOf(startRead(file).get()), EHOSTUNREACH);
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
  timers().advance(FileObject::kFailureHolds);
  EXPECT_EQ(readAll(file), "hello");
}

TEST_F(ContentsTest, AHandleFinishesOnTheVersionThatItHas) {
  remote().putFile("/a", "first");
  const Entry before = find("/a");
  const OpenFilePtr old = open(before.node);
  EXPECT_EQ(readAll(old), "first");
  overwriteAndAnnounce("/a", "second version");
  EXPECT_EQ(find("/a").attributes.inode, before.attributes.inode);
  EXPECT_EQ(find("/a").attributes.sizeBytes, 14);
  EXPECT_EQ(readPath("/a"), "second version");
  EXPECT_EQ(readAll(old), "first");
  EXPECT_EQ(fileSystem().attributes(before.node).value().sizeBytes, 5);
  fileSystem().release(old);
  EXPECT_TRUE(
      support::waitUntil([&] { return stored() == std::vector<std::string>{"second version"}; }));
  EXPECT_FALSE(fileSystem().attributes(before.node).ok());
}

TEST_F(ContentsTest, ANewVersionIsFetchedAnewThoughTheOldOneIsHere) {
  remote().putFile("/a", "first");
  EXPECT_EQ(readPath("/a"), "first");
  overwriteAndAnnounce("/a", "second");
  EXPECT_TRUE(support::waitUntil([&] { return stored().empty(); }));
  EXPECT_EQ(readPath("/a"), "second");
}

TEST_F(ContentsTest, BytesFetchedForAnOldVersionAreNotTakenForTheNewOne) {
  remote().putFile("/a", "first");
  remote().hold(Ask::contents, "/a");
  const OpenFilePtr file = open(find("/a").node);
  const auto read = startRead(file);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  remote().overwrite("/a", "second version");
  announce();
  ASSERT_TRUE(support::waitUntil([&] {
    return find("/a").attributes.modified.date() !=
           platform::Date(std::chrono::seconds(1'700'000'000));
  }));
  remote().stopHolding(Ask::contents, "/a");
  const std::string text = bytes(read.get().value());
  EXPECT_TRUE(text == "first" || text == "second version") << text;
  EXPECT_TRUE(support::waitUntil([&] { return readPath("/a") == "second version"; }));
  EXPECT_EQ(readAll(file), text) << "who has read something of one version finishes on it";
  fileSystem().release(file);
  EXPECT_EQ(readPath("/a"), "second version");
  EXPECT_EQ(temporaryFiles(), 0U);
}

TEST_F(ContentsTest, AHandleThatReadNothingGetsTheNewVersion) {
  remote().putFile("/a", "first");
  const OpenFilePtr file = open(find("/a").node);
  remote().overwrite("/a", "second version");
  announce();
  EXPECT_TRUE(support::waitUntil([&] {
    return find("/a").attributes.modified.date() !=
           platform::Date(std::chrono::seconds(1'700'000'000));
  }));
  EXPECT_EQ(readAll(file), "second version");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
  fileSystem().release(file);
}

TEST_F(ContentsTest, ADeletedFileStaysForThoseWhoHaveItOpen) {
  remote().putFile("/a", "hello");
  const OpenFilePtr file = open(find("/a").node);
  EXPECT_EQ(readAll(file), "hello");
  remote().remove("/a");
  announce();
  ASSERT_TRUE(waitForNames({}));
  EXPECT_EQ(readAll(file), "hello");
  fileSystem().release(file);
  EXPECT_TRUE(support::waitUntil([&] { return stored().empty(); }));
}

TEST_F(ContentsTest, TheSizeFollowsWhatIsServedAndTheKernelKnowsItFirst) {
  remote().putFileListedAs("/a", "much longer than listed", 4);
  const Entry listed = find("/a");
  EXPECT_EQ(listed.attributes.sizeBytes, 4);
  kernel().takeUpdates();
  kernel().hold();
  const OpenFilePtr file = open(listed.node);
  const auto read = startRead(file);
  const CacheUpdate sizeChanged{CacheUpdate::Kind::attributes, listed.node};
  std::vector<CacheUpdate> told;
  ASSERT_TRUE(support::waitUntil([&] {
    told = kernel().takeUpdates();
    return !told.empty();
  }));
  EXPECT_THAT(told, testing::ElementsAre(sizeChanged));
  EXPECT_FALSE(read.ready());
  // Nor does a reader who comes now get around it.
  const auto later = startRead(file);
  EXPECT_FALSE(later.ready());
  kernel().release();
  EXPECT_EQ(bytes(read.get().value()), "much longer than listed");
  EXPECT_TRUE(later.get().ok());
  EXPECT_EQ(find("/a").attributes.sizeBytes, 23);
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(ContentsTest, AFetchThatNobodyWantsAnyMoreIsCancelled) {
  remote().putFile("/a", "hello");
  remote().hold(Ask::contents, "/a");
  const OpenFilePtr file = open(find("/a").node);
  const auto read = startRead(file);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  fileSystem().release(file);
  EXPECT_TRUE(support::waitUntil([&] { return remote().cancelled() == 1; }));
  // The extension did not stop for it: what it brings is kept.
  remote().release(Ask::contents, "/a");
  remote().stopHolding(Ask::contents, "/a");
  ASSERT_TRUE(support::waitUntil([&] { return !stored().empty(); }));
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(ContentsTest, WhoComesWhileACancelledFetchEndsGetsAFetchOfTheirOwn) {
  remote().putFile("/a", "hello");
  remote().hold(Ask::contents, "/a");
  const NodeId node = find("/a").node;
  const OpenFilePtr first = open(node);
  startRead(first);
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 1));
  fileSystem().release(first);
  const OpenFilePtr second = open(node);
  const auto read = startRead(second);
  remote().release(Ask::contents, "/a", platform::CancellationError().share());
  ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, "/a", 2));
  EXPECT_FALSE(read.ready());
  remote().release(Ask::contents, "/a");
  EXPECT_EQ(bytes(read.get().value()), "hello");
}

TEST_F(ContentsTest, ContentsThatSomebodyRemovedAreFetchedAgain) {
  remote().putFile("/a", "hello");
  readPath("/a");
  fs::remove(fs::directory_iterator(replica() / "contents")->path());
  EXPECT_EQ(readPath("/a"), "hello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 2);
}

TEST_F(ContentsTest, EmptyFilesAreFetchedOnceToo) {
  remote().putFile("/a", "");
  EXPECT_EQ(readPath("/a"), "");
  EXPECT_EQ(readPath("/a"), "");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 1);
}

TEST_F(ContentsTest, AMissingFileHasItsFolderEnumeratedAnew) {
  remote().putFile("/a", "hello");
  remote().putFile("/b", "x");
  names();
  remote().remove("/a");  // and nobody says so
  const OpenFilePtr file = open(find("/a").node);
  EXPECT_THAT(errnoOf(startRead(file).get()), testing::AnyOf(ENOENT, ESTALE));
  EXPECT_TRUE(waitForNames({"b"}));
}

TEST_F(ContentsTest, ManyThreadsReadOpenAndCloseWhileVersionsChange) {
  remote().putFile("/a", "version 0");
  names();
  std::atomic<bool> stop = false;
  std::atomic<int> reads = 0;
  std::atomic<int> mixed = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        const Awaited<OpenFilePtr> opening;
        fileSystem().open(find("/a").node, OpenMode(), Caller(), opening.reply());
        const auto opened = opening.get();
        if (!opened.ok()) continue;
        const auto answer = startRead(opened.value()).get();
        if (answer.ok()) {
          ++reads;
          const std::string text = bytes(answer.value());
          if (text.rfind("version ", 0) != 0) ++mixed;
          if (bytes(startRead(opened.value()).get().value()) != text) ++mixed;
        }
        fileSystem().release(opened.value());
      }
    });
  }
  for (int version = 1; version <= 30; ++version) {
    remote().overwrite("/a", "version " + std::string(static_cast<std::size_t>(version), '+'));
    remote().announce();
    fileSystem().changesSignalled();
  }
  ASSERT_TRUE(support::waitUntil([&] { return reads > 200; }));
  stop = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mixed, 0);
  // While contents are on their way a folder rests before it is asked again.
  EXPECT_TRUE(passUntil([&] { return readPath("/a").size() == 38; }));
  EXPECT_TRUE(support::waitUntil([&] { return stored().size() <= 1; }));
}

// A kill would take the file for one without changes, and drop what is not as long as the store's.
TEST_F(ContentsTest, AFetchThatEndsWhileTheFirstWriteIsRememberedDoesNotUndoThat) {
  constexpr int kFiles = 60;
  for (int i = 0; i < kFiles; ++i) remote().putFile("/" + std::to_string(i), "0123456789");
  for (int i = 0; i < kFiles; ++i) {
    const std::string path = "/" + std::to_string(i);
    const OpenFilePtr file = openForWriting(path);
    remote().hold(Ask::contents, path);
    const auto read = startRead(file);
    ASSERT_TRUE(remote().waitUntilAsked(Ask::contents, path, 1));
    const Awaited<Done> written;
    fileSystem().write(file, 10, std::as_bytes(std::span("more", 4)), written.reply());
    remote().stopHolding(Ask::contents, path);
    ASSERT_TRUE(written.get().ok());
    ASSERT_TRUE(read.get().ok());
    const bool isRemembered = fileSystem().volume()->look([&](Tree& tree, Nodes&) {
      return tree.child(tree.root(), path.substr(1))->content()->state.isEdited;
    });
    EXPECT_TRUE(isRemembered) << path;
    fileSystem().release(file);
  }
}

TEST_F(ContentsTest, WhatTheStoreMadeOfASendingIsKnownBetterThanWhatWasAnswered) {
  save("/a", "hello");
  ASSERT_TRUE(waitUntilSent());
  const OpenFilePtr file = openForWriting("/a");
  const FileObjectPtr object = fileSystem().volume()->look(
      [](Tree& tree, Nodes&) { return tree.child(tree.root(), "a")->object(); });
  // Told when the item has been looked at already.
  object->sent(object->state().edits, "as it was answered");
  write(file, "y", 0);
  close(file);
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "yello");
  EXPECT_EQ(remote().asked(Ask::contents, "/a"), 0);
}

// Its file goes with the version: an edit that is remembered would never find its bytes.
TEST_F(ContentsTest, AWriteThatIsRefusedBecauseTheVersionWentIsNotRemembered) {
  remote().putFile("/a", "0123456789");
  readPath("/a");
  const OpenFilePtr file = open(find("/a").node);
  const auto item = [](Tree& tree) { return tree.child(tree.root(), "a"); };
  const FileObjectPtr object =
      fileSystem().volume()->look([&](Tree& tree, Nodes&) { return item(tree)->object(); });
  const Awaited<Done> written;
  std::thread program;
  fileSystem().volume()->change([&](Tree& tree, Nodes&) {
    program = std::thread(
        [&] { object->write(10, std::as_bytes(std::span("more", 4)), written.reply()); });
    while (object->whole()) std::this_thread::yield();  // until the write has begun
    ItemRecord record;
    record.identifier = item(tree)->there->identifier;
    record.name = "a";
    record.contentVersion = "of others";
    record.sizeBytes = 4;
    tree.applyItem(*item(tree), record, tree.moment());
  });
  program.join();
  EXPECT_EQ(errnoOf(written.get()), ESTALE);
  EXPECT_FALSE(
      fileSystem().volume()->look([&](Tree& tree, Nodes&) { return item(tree)->isEdited(); }));
}

}  // namespace
}  // namespace kestrune::host::test
