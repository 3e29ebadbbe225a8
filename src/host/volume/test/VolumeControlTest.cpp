// What a person may ask of a mounted folder.
#include "host/volume/VolumeControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>

#include "host/volume/test/HostHarness.h"
#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune::host::test {

namespace {

using platform::NSFileProviderContentPolicy;

class VolumeControlTest : public testing::Test {
 protected:
  VolumeControlTest()
      : control_(host_.fileSystem(), {[] { return true; },
                                      [this](const std::string& identifier) {
                                        unpinned_ = identifier;
                                        host_.remote().setPolicy(
                                            "/docs/a.txt", NSFileProviderContentPolicy::inherited);
                                      },
                                      [] { return std::string(); }}) {
    host_.remote().putFolder("/docs");
    identifier_ = host_.remote().putFile("/docs/a.txt", "hello");
  }
  HostStatus status() {
    const Awaited<HostStatus> answer;
    control_.status(answer.reply());
    return answer.get().value();
  }
  HostCondition condition() {
    const Awaited<HostCondition> answer;
    control_.condition(answer.reply());
    return answer.get().value();
  }
  PendingChanges pending(const std::string& path, std::size_t most = 100) {
    const Awaited<PendingChanges> answer;
    control_.pending(path, most, answer.reply());
    return answer.get().value();
  }
  Answer<ItemState> state(const std::string& path) {
    const Awaited<Each<ItemState>> answer;
    control_.states({path}, answer.reply());
    return answer.get().value().at(0);
  }
  ItemReasons reasons(const std::string& path) {
    const Awaited<Each<ItemReasons>> answer;
    control_.reasons({path}, answer.reply());
    return answer.get().value().at(0).value();
  }
  Each<Done> act(ItemAction action, const std::vector<std::string>& paths) {
    const Awaited<Each<Done>> answer;
    control_.act(action, paths, answer.reply());
    return answer.get().value();
  }

  std::map<std::string, ItemState> folderStates(const std::string& folder) {
    const Awaited<std::vector<EntryState>> answer;
    control_.folderStates(folder, answer.reply());
    std::map<std::string, ItemState> entries;
    const auto told = answer.get();
    for (const EntryState& entry : told.value()) entries.emplace(entry.name, entry.state);
    return entries;
  }

  std::atomic<int> wakes_ = 0;
  HostHarness host_;
  std::string unpinned_;
  std::string identifier_;
  VolumeControl control_;
};

TEST_F(VolumeControlTest, FindsItemsThatNobodyHasVisited) {
  const auto answer = state("/docs/a.txt");
  ASSERT_TRUE(answer.ok());
  EXPECT_EQ(answer.value().sizeBytes, 5U);
  EXPECT_EQ(answer.value().bytesHere, 0U);
  EXPECT_FALSE(answer.value().pending);
  EXPECT_TRUE(state("/").value().isFolder);
  EXPECT_EQ(errnoOf(state("/docs/missing").error()), ENOENT);
  EXPECT_EQ(errnoOf(state("/docs/a.txt/below").error()), ENOENT);
}

TEST_F(VolumeControlTest, TellsWhoHadContentsFetched) {
  host_.remote().putFile("/docs/b.txt", "other");
  EXPECT_FALSE(reasons("/docs/a.txt").cause);
  EXPECT_TRUE(reasons("/docs/a.txt").isAtStore);
  EXPECT_TRUE(reasons("/docs").isAtStore);
  host_.readPath("/docs/a.txt");
  const auto byProgram = reasons("/docs/a.txt");
  ASSERT_TRUE(byProgram.cause);
  EXPECT_EQ(byProgram.cause->kind, DownloadCause::Kind::program);
  EXPECT_EQ(byProgram.cause->program, "") << "the harness names no process";
  EXPECT_EQ(byProgram.state.bytesHere, 5U);

  ASSERT_TRUE(act(ItemAction::download, {"/docs/a.txt"}).at(0).ok());
  EXPECT_EQ(reasons("/docs/a.txt").cause->kind, DownloadCause::Kind::program)
      << "there was nothing left to fetch";
  ASSERT_TRUE(act(ItemAction::download, {"/docs/b.txt"}).at(0).ok());
  EXPECT_EQ(reasons("/docs/b.txt").cause->kind, DownloadCause::Kind::command);
}

TEST_F(VolumeControlTest, NamesTheProgramThatRead) {
  const auto node = host_.find("/docs/a.txt").node;
  const Awaited<OpenFilePtr> opened;
  host_.fileSystem().open(node, {}, {::getpid()}, opened.reply());
  const OpenFilePtr file = opened.get().value();
  host_.readAll(file);
  const auto told = reasons("/docs/a.txt");
  ASSERT_TRUE(told.cause);
  EXPECT_EQ(told.cause->program,
            std::filesystem::read_symlink("/proc/self/exe").filename().string());
  EXPECT_NE(told.whyNotEvictable.find("is open in a program"), std::string::npos);
  host_.close(file);
  host_.readPath("/docs/a.txt");
  EXPECT_EQ(reasons("/docs/a.txt").cause->program, told.cause->program)
      << "who reads what is here has had nothing fetched";
  EXPECT_EQ(reasons("/docs/a.txt").whyNotEvictable, "");
  EXPECT_TRUE(reasons("/docs/a.txt").lastUsed);
}

TEST_F(VolumeControlTest, WhatIsNotAtTheStoreCannotBeEvicted) {
  host_.find("/docs/a.txt");
  host_.remote().setUnreachable(true);
  host_.save("/docs/new.txt", "mine");
  const auto told = reasons("/docs/new.txt");
  EXPECT_FALSE(told.isAtStore);
  EXPECT_NE(told.whyNotEvictable.find("not at the store yet"), std::string::npos);
  EXPECT_FALSE(told.cause);
}

TEST(FetchCausesTest, TheOldestAreForgotten) {
  FetchCauses causes;
  for (InodeNumber item = 1; item <= FetchCauses::kMost + 1; ++item) causes.note(item, {});
  EXPECT_FALSE(causes.of(1));
  EXPECT_TRUE(causes.of(2));
  causes.note(2, {DownloadCause::Kind::command, {}, {}});
  EXPECT_EQ(causes.of(2)->kind, DownloadCause::Kind::command);
  EXPECT_TRUE(causes.of(3));
}

TEST_F(VolumeControlTest, EndsAndTellsItsLogOnlyWhereTheHostCan) {
  const Awaited<Done> refused;
  control_.end(refused.reply());
  EXPECT_EQ(errnoOf(refused.get().error()), ENOTSUP);
  bool ended = false;
  VolumeControl able(host_.fileSystem(), {nullptr, nullptr, nullptr, nullptr, nullptr,
                                          [] { return std::vector<std::string>{"a line"}; },
                                          [&ended] { ended = true; }});
  const Awaited<Done> done;
  able.end(done.reply());
  EXPECT_TRUE(done.get().ok());
  EXPECT_TRUE(ended);
  const Awaited<std::vector<std::string>> lines;
  able.recentLog(lines.reply());
  EXPECT_EQ(lines.get().value(), std::vector<std::string>{"a line"});
}

TEST_F(VolumeControlTest, DownloadsEachPath) {
  const auto answers = act(ItemAction::download, {"/missing", "/docs"});
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(errnoOf(answers[0].error()), ENOENT);
  EXPECT_TRUE(answers[1].ok());
  EXPECT_EQ(state("/docs/a.txt").value().bytesHere, 5U);
  EXPECT_EQ(status().itemsHere, 1U);
  EXPECT_EQ(status().bytesHere, 5U);
}

TEST_F(VolumeControlTest, UnpinsAndAsksThePolicyAnew) {
  host_.remote().setPolicy("/docs/a.txt",
                           NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  ASSERT_TRUE(act(ItemAction::download, {"/docs"})[0].ok());
  ASSERT_TRUE(host_.passUntil([this] { return state("/docs/a.txt").value().isPinned; }));
  EXPECT_TRUE(act(ItemAction::unpin, {"/docs"})[0].ok());
  EXPECT_EQ(unpinned_, identifier_);
  EXPECT_FALSE(state("/docs/a.txt").value().isPinned);
  EXPECT_EQ(state("/docs/a.txt").value().bytesHere, 5U);
}

TEST_F(VolumeControlTest, TellsWhatIsNotSent) {
  host_.find("/docs/a.txt");
  host_.save("/docs/new.txt", "1234");
  host_.save("/top.txt", "1");
  EXPECT_EQ(status().pendingChanges, 2U);
  const PendingChanges below = pending("/docs");
  ASSERT_EQ(below.changes.size(), 1U);
  EXPECT_EQ(below.count, 1U);
  EXPECT_EQ(below.changes[0].path, "/docs/new.txt");
  EXPECT_EQ(below.changes[0].kind, PendingChange::Kind::create);
  EXPECT_EQ(below.changes[0].bytes, 4U);
  EXPECT_EQ(pending("/", 1).count, 2U);
  EXPECT_EQ(pending("/", 1).changes.size(), 1U);
  ASSERT_TRUE(state("/docs/new.txt").value().pending);
  ASSERT_TRUE(host_.waitUntilSent());
  EXPECT_EQ(status().pendingChanges, 0U);
  EXPECT_FALSE(state("/docs/new.txt").value().pending);
}

TEST_F(VolumeControlTest, TellsOfTheStoreAndOfSignals) {
  EXPECT_TRUE(status().usesPassthrough);
  EXPECT_FALSE(status().lastSignal);
  host_.fileSystem().changesSignalled();
  EXPECT_TRUE(status().lastSignal);
}

TEST_F(VolumeControlTest, TellsWhatTheLastRequestCameTo) {
  EXPECT_FALSE(status().isStoreReachable.has_value());
  const auto refused =
      platform::NSFileProviderError(platform::NSFileProviderError::notAuthenticated).share();
  host_.remote().failWith(Ask::items, "/", refused);
  EXPECT_EQ(errnoOf(state("/docs").error()), EACCES);
  EXPECT_EQ(status().isStoreReachable, false);
  EXPECT_EQ(status().storeError, refused->localizedDescription());

  host_.remote().failWith(Ask::items, "/", nullptr);
  ASSERT_TRUE(state("/docs").ok());
  EXPECT_EQ(status().isStoreReachable, true);

  host_.remote().failWith(Ask::create, "/docs/new.txt", refused);
  host_.remote().failWith(Ask::items, "/docs", refused);  // asked for when it failed
  host_.save("/docs/new.txt", "new");
  ASSERT_TRUE(host_.passUntil([this] { return status().failingChanges == 1; }));
  EXPECT_EQ(status().isStoreReachable, false);
}

TEST_F(VolumeControlTest, TellsAWholeFolderAtOnce) {
  host_.remote().putFile("/docs/b.txt", "there");
  host_.remote().putFolder("/docs/below");
  host_.remote().setPolicy("/docs/b.txt",
                           NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded);
  ASSERT_TRUE(act(ItemAction::download, {"/docs/a.txt"})[0].ok());
  ASSERT_TRUE(host_.passUntil([this] { return state("/docs/b.txt").value().isPinned; }));
  host_.save("/docs/new.txt", "1234");
  host_.save("/docs/x (conflict kestrel 2026-11-22 04.15).txt", "1");
  const auto entries = folderStates("/docs");
  ASSERT_EQ(entries.size(), 5U);
  EXPECT_TRUE(entries.at("below").isFolder);
  EXPECT_EQ(entries.at("a.txt").bytesHere, 5U);
  EXPECT_FALSE(entries.at("a.txt").isPinned);
  EXPECT_FALSE(entries.at("a.txt").pending);
  EXPECT_TRUE(entries.at("b.txt").isPinned);
  ASSERT_TRUE(entries.at("new.txt").pending);
  EXPECT_EQ(entries.at("new.txt").pending->kind, PendingChange::Kind::create);
  EXPECT_FALSE(entries.at("new.txt").isConflictCopy);
  EXPECT_TRUE(entries.at("x (conflict kestrel 2026-11-22 04.15).txt").isConflictCopy);

  const Awaited<std::vector<EntryState>> missing;
  control_.folderStates("/missing", missing.reply());
  EXPECT_EQ(errnoOf(missing.get().error()), ENOENT);
  const Awaited<std::vector<EntryState>> file;
  control_.folderStates("/docs/a.txt", file.reply());
  EXPECT_EQ(errnoOf(file.get().error()), ENOTDIR);
}

TEST_F(VolumeControlTest, WakesWhoWatchesAndTellsTheFolders) {
  host_.find("/docs/a.txt");
  std::atomic<int> wakes = 0;
  control_.watch([&wakes] { ++wakes; });
  EXPECT_TRUE(control_.takeChanges().folders.empty());

  ASSERT_TRUE(act(ItemAction::download, {"/docs/a.txt"})[0].ok());
  EXPECT_GT(wakes, 0);
  EXPECT_EQ(control_.takeChanges().folders, std::vector<std::string>{"/docs"});
  EXPECT_TRUE(control_.takeChanges().folders.empty());

  // That a change could not be sent changes no item.
  host_.remote().hold(Ask::create, "/docs/new.txt");
  host_.save("/docs/new.txt", "new");
  ASSERT_TRUE(
      host_.passUntil([this] { return host_.remote().asked(Ask::create, "/docs/new.txt") == 1; }));
  control_.takeChanges();
  host_.remote().release(Ask::create, "/docs/new.txt",
                         platform::NSPOSIXError(EPERM, "create").share());
  ASSERT_TRUE(host_.passUntil([this] { return status().failingChanges == 1; }));
  EXPECT_THAT(control_.takeChanges().folders, testing::Contains("/docs"));
  ASSERT_TRUE(state("/docs/new.txt").value().pending);
  EXPECT_TRUE(state("/docs/new.txt").value().pending->isRefused);

  control_.watch(nullptr);
  wakes = 0;
  host_.save("/docs/more.txt", "more");
  EXPECT_EQ(wakes, 0);
  EXPECT_TRUE(control_.takeChanges().folders.empty());
}

TEST(VolumeControlPartsTest, WakesWhoWatchesWhenAPartHasCome) {
  HostHarness host(true);
  VolumeControl control(host.fileSystem(), {[] { return true; }, [](const std::string&) {},
                                            [] { return std::string(); }});
  host.remote().putFile("/large", std::string(32U << 20U, 'x'));
  const OpenFilePtr file = host.open(host.find("/large").node);
  control.watch([] {});
  // The second adds to contents that are remembered already.
  for (const std::int64_t offset : {0, 20 << 20}) {
    const Awaited<LocalFilePtr> read;
    host.fileSystem().read(file, offset, 4096, read.reply());
    ASSERT_TRUE(read.get().ok());
    std::vector<std::string> folders;
    ASSERT_TRUE(host.passUntil([&] {
      folders = control.takeChanges().folders;
      return !folders.empty();
    })) << offset;
    EXPECT_EQ(folders[0], "/");
    host.pass(std::chrono::seconds(5));
    control.takeChanges();
  }
  const Awaited<std::vector<EntryState>> answer;
  control.folderStates("/", answer.reply());
  const auto entries = answer.get();
  ASSERT_EQ(entries.value().size(), 1U);
  EXPECT_GT(entries.value()[0].state.bytesHere, 0U);
  EXPECT_LT(entries.value()[0].state.bytesHere, 32U << 20U);
  host.close(file);
}

TEST_F(VolumeControlTest, TellsOfAConflictOnceItHasArisen) {
  host_.readPath("/docs/a.txt");
  control_.watch([] {});
  const OpenFilePtr file = host_.openForWriting("/docs/a.txt");
  host_.write(file, "mine ");
  host_.remote().overwrite("/docs/a.txt", "others");
  host_.close(file);
  std::vector<std::string> conflicts;
  ASSERT_TRUE(host_.passUntil([&] {
    for (auto& path : control_.takeChanges().conflicts) conflicts.push_back(std::move(path));
    return !conflicts.empty();
  }));
  EXPECT_THAT(conflicts[0], testing::StartsWith("/docs/a (conflict "));
  ASSERT_TRUE(host_.waitUntilSent());
}

TEST_F(VolumeControlTest, CountsConflictsUntilTheyAreSettled) {
  const std::string mine = "/docs/x (conflict kestrel 2026-11-22 04.15).txt";
  const std::string theirs = "/docs/a (conflict other 2026-11-21 10.00).txt";
  host_.remote().putFile(theirs, "others made it");
  EXPECT_EQ(condition().conflictCount, 0U);  // nobody has looked into the folder
  host_.find("/docs/a.txt");
  host_.save(mine, "1");
  EXPECT_EQ(condition().conflictCount, 2U);
  EXPECT_THAT(condition().conflicts, testing::ElementsAre(theirs, mine));
  ASSERT_TRUE(host_.waitUntilSent());
  EXPECT_EQ(condition().conflictCount, 2U);
  ASSERT_EQ(host_.rename(mine, "/docs/x.txt"), 0);
  EXPECT_THAT(condition().conflicts, testing::ElementsAre(theirs));
  ASSERT_EQ(host_.removeFile(theirs), 0);
  EXPECT_EQ(condition().conflictCount, 0U);
  EXPECT_TRUE(condition().conflicts.empty());
}

// How many changes wait is known by what wakes: who waits for the last of them must hear of it.
TEST_F(VolumeControlTest, WakesWhoWatchesForARemovalToo) {
  host_.remote().putFile("/top.txt", "1");
  host_.find("/top.txt");
  control_.watch([this] { ++wakes_; });
  ASSERT_EQ(host_.removeFile("/top.txt"), 0);
  EXPECT_EQ(condition().pendingChanges, 1U);
  EXPECT_GT(wakes_, 0);
  host_.remote().hold(Ask::remove, "/top.txt");
  ASSERT_TRUE(
      host_.passUntil([this] { return host_.remote().asked(Ask::remove, "/top.txt") == 1; }));
  control_.takeChanges();
  wakes_ = 0;
  host_.remote().release(Ask::remove, "/top.txt", nullptr);
  ASSERT_TRUE(host_.passUntil([this] { return condition().pendingChanges == 0; }));
  ASSERT_TRUE(host_.passUntil([this] { return wakes_ > 0; }));
}

TEST_F(VolumeControlTest, TellsWhatTheStoreDoesNotLetTheUserSend) {
  host_.find("/docs/a.txt");
  const auto forbidden =
      platform::NSError("store", 403, "not in this folder", {{platform::kHTTPStatusCodeKey, "403"}})
          .share();
  host_.remote().failWith(Ask::create, "/docs/new.txt", forbidden);
  host_.save("/docs/new.txt", "new");
  ASSERT_TRUE(host_.passUntil([this] { return pending("/").changes.at(0).attempts == 1; }));
  const PendingChange change = pending("/").changes.at(0);
  EXPECT_TRUE(change.isRefused);
  EXPECT_TRUE(change.isForbidden);
  EXPECT_EQ(change.reason, "not in this folder");
  // That others are answered changes nothing for it: it waits for its own time.
  host_.save("/docs/other.txt", "other");
  ASSERT_TRUE(host_.passUntil([this] { return pending("/").count == 1; }));
  EXPECT_EQ(pending("/").changes.at(0).attempts, 1U);
  host_.remote().failWith(Ask::create, "/docs/new.txt", nullptr);
  ASSERT_TRUE(host_.waitUntilSent());

  host_.remote().failWith(Ask::create, "/docs/more.txt",
                          platform::NSPOSIXError(ENOSPC, "write").share());
  host_.save("/docs/more.txt", "more");
  ASSERT_TRUE(host_.passUntil([this] { return pending("/").changes.at(0).attempts == 1; }));
  EXPECT_TRUE(pending("/").changes.at(0).isRefused);
  EXPECT_FALSE(pending("/").changes.at(0).isForbidden);
}

TEST_F(VolumeControlTest, SaysThatTheUserIsSignedOut) {
  EXPECT_FALSE(status().isSignedOut);
  control_.watch([this] { ++wakes_; });
  host_.remote().failWith(
      Ask::items, "/",
      platform::NSFileProviderError(platform::NSFileProviderError::notAuthenticated).share());
  EXPECT_FALSE(state("/docs").ok());
  EXPECT_TRUE(status().isSignedOut);
  EXPECT_EQ(wakes_, 1);
  host_.remote().failWith(Ask::items, "/", nullptr);
  ASSERT_TRUE(state("/docs").ok());
  EXPECT_FALSE(status().isSignedOut);
}

}  // namespace

}  // namespace kestrune::host::test
