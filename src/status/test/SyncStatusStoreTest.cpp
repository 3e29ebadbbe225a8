#include "status/SyncStatusStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "config/StorageLocations.h"
#include "platform/values/Date.h"
#include "platform/values/Json.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using platform::Json;
using support::contentsOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Direction = SyncTransfer::Direction;

class SyncStatusStoreTest : public testing::Test {
 protected:
  ~SyncStatusStoreTest() override { store_.drain(); }

  /// The file after everything said so far.
  std::string fileText() {
    store_.drain();
    return contentsOf(file());
  }
  SyncStatus status() { return SyncStatus::decode(fileText()); }
  bool fileExists() {
    store_.drain();
    return fs::exists(file());
  }
  fs::path file() const { return storage_.shared() / "sync-status.json"; }

  const support::IsolatedStorage storage_;
  SyncStatusStore& store_ = SyncStatusStore::shared();
};

TEST_F(SyncStatusStoreTest, TheFileHoldsExactlyTheDocumentedKeys) {
  const platform::Date before = platform::dateNow();
  store_.begin("ID", "/Docs/a.pdf", 1000, Direction::download);
  store_.beginEnumeration();
  Json root = Json::parse(fileText());
  const platform::Date after = platform::dateNow();
  store_.finish("ID");
  store_.endEnumeration();

  const auto isNow = [&](const Json& text) {
    const auto date = platform::parseISO8601(text.get<std::string>());
    return text.get<std::string>().ends_with("Z") && date &&
           *date >= std::chrono::floor<std::chrono::seconds>(before) && *date <= after;
  };
  EXPECT_TRUE(isNow(root.at("updatedAt"))) << root;
  EXPECT_TRUE(isNow(root.at("transfers").at(0).at("startedAt"))) << root;
  root.erase("updatedAt");
  root["transfers"][0].erase("startedAt");
  EXPECT_EQ(root, Json::parse(R"({"activeEnumerations":1,"transfers":[{"id":"ID",
      "path":"/Docs/a.pdf","bytesTransferred":0,"totalBytes":1000,"direction":"download"}]})"));
}

TEST_F(SyncStatusStoreTest, ATransferLivesFromBeginToFinish) {
  store_.begin("a", "/a", 10, Direction::upload);
  store_.begin("b", "/b", 20, Direction::download);
  store_.update("a", 7);
  store_.update("b", 9);
  store_.update("b", 3);  // a count, not an increment, and it may fall
  auto transfers = status().transfers;
  ASSERT_EQ(transfers.size(), 2U);
  if (transfers[0].id == "b") std::swap(transfers[0], transfers[1]);
  EXPECT_EQ(transfers[0].id, "a");
  EXPECT_EQ(transfers[0].bytesTransferred, 7);
  EXPECT_EQ(transfers[0].direction, Direction::upload);
  EXPECT_EQ(transfers[1].bytesTransferred, 3);
  EXPECT_EQ(transfers[1].totalBytes, 20);
  EXPECT_EQ(transfers[1].direction, Direction::download);

  store_.finish("a");
  EXPECT_EQ(status().transfers.size(), 1U);
  store_.finish("b");
  EXPECT_THAT(status().transfers, IsEmpty());
  EXPECT_THAT(fileText(), testing::HasSubstr(R"("transfers":[])"));
}

TEST_F(SyncStatusStoreTest, EveryChangeWritesAndAnUpdateOfNothingDoesNot) {
  const struct {
    const char* what;
    std::function<void(SyncStatusStore&)> change;
    bool writes;
  } steps[] = {
      {"update before begin", [](auto& store) { store.update("a", 1); }, false},
      {"begin", [](auto& store) { store.begin("a", "/a", 10, Direction::upload); }, true},
      {"update", [](auto& store) { store.update("a", 5); }, true},
      {"update to the same", [](auto& store) { store.update("a", 5); }, true},
      {"update of another", [](auto& store) { store.update("b", 5); }, false},
      {"finish", [](auto& store) { store.finish("a"); }, true},
      {"update after finish", [](auto& store) { store.update("a", 6); }, false},
      {"finish again", [](auto& store) { store.finish("a"); }, true},
      {"beginEnumeration", [](auto& store) { store.beginEnumeration(); }, true},
      {"endEnumeration", [](auto& store) { store.endEnumeration(); }, true},
      {"endEnumeration at zero", [](auto& store) { store.endEnumeration(); }, true},
      {"query", [](auto& store) { store.hasActiveTransfersUnder("/"); }, false},
  };
  for (const auto& [what, change, writes] : steps) {
    change(store_);
    EXPECT_EQ(fileExists(), writes) << what;
    fs::remove(file());
  }
}

TEST_F(SyncStatusStoreTest, BeginningAnIdAgainReplacesItsTransfer) {
  store_.begin("a", "/old", 10, Direction::upload);
  store_.update("a", 9);
  store_.begin("a", "/new", 20, Direction::download);
  const auto transfers = status().transfers;
  store_.finish("a");
  ASSERT_EQ(transfers.size(), 1U);
  EXPECT_EQ(transfers[0].path, "/new");
  EXPECT_EQ(transfers[0].bytesTransferred, 0);
  EXPECT_EQ(transfers[0].totalBytes, 20);
  EXPECT_EQ(transfers[0].direction, Direction::download);
}

TEST_F(SyncStatusStoreTest, EnumerationsAreCountedAndNeverBelowZero) {
  std::vector<std::int64_t> counts;
  const auto look = [&] { counts.push_back(status().activeEnumerations); };
  store_.endEnumeration();
  look();
  store_.beginEnumeration();
  store_.beginEnumeration();
  look();
  store_.endEnumeration();
  look();
  store_.endEnumeration();
  store_.endEnumeration();
  look();
  store_.beginEnumeration();
  look();
  store_.endEnumeration();
  EXPECT_THAT(counts, ElementsAre(0, 2, 1, 0, 1));
}

TEST_F(SyncStatusStoreTest, ATransferIsActiveUnderTheFoldersAboveIt) {
  const struct {
    std::string parent;
    bool active;
  } cases[] = {
      {"/", true},     {"", true},       {"/a", true},          {"/a/", true},
      {"/a/b", true},  {"/a/b/", true},  {"/a/b/c.txt", false}, {"/a/b/c.txt/", false},
      {"/ab", false},  {"/a/bc", false}, {"/A", false},         {"/a/b/c", false},
      {"/a//", false}, {"//", false},    {"a", false},          {"/a/b/c.txt/d", false},
  };
  for (const auto direction : {Direction::upload, Direction::download}) {
    for (const auto& [parent, active] : cases)
      EXPECT_FALSE(store_.hasActiveTransfersUnder(parent)) << parent;
    store_.begin("t", "/a/b/c.txt", 0, direction);
    for (const auto& [parent, active] : cases)
      EXPECT_EQ(store_.hasActiveTransfersUnder(parent), active) << parent;
    store_.finish("t");
  }
}

TEST_F(SyncStatusStoreTest, EverythingLiesUnderTheRootHoweverItIsNamed) {
  store_.begin("t", "not absolute", 0, Direction::upload);
  EXPECT_TRUE(store_.hasActiveTransfersUnder("/"));
  EXPECT_TRUE(store_.hasActiveTransfersUnder(""));
  EXPECT_FALSE(store_.hasActiveTransfersUnder("/not absolute"));
  store_.finish("t");
}

TEST_F(SyncStatusStoreTest, AnyOfSeveralTransfersCounts) {
  store_.begin("1", "/x/1", 0, Direction::upload);
  store_.begin("2", "/y/2", 0, Direction::download);
  store_.begin("3", "/y/z/3", 0, Direction::download);
  for (const auto* parent : {"/x", "/y", "/y/z"})
    EXPECT_TRUE(store_.hasActiveTransfersUnder(parent)) << parent;
  store_.finish("2");
  EXPECT_TRUE(store_.hasActiveTransfersUnder("/y"));
  store_.finish("3");
  EXPECT_FALSE(store_.hasActiveTransfersUnder("/y"));
  EXPECT_TRUE(store_.hasActiveTransfersUnder("/x"));
  store_.finish("1");
}

TEST_F(SyncStatusStoreTest, TheFirstWriteDropsWhatAnEarlierProcessLeft) {
  storage_.writeShared("sync-status.json",
                       R"({"transfers":[{"id":"old"}],"activeEnumerations":7,"updatedAt":""})");
  store_.beginEnumeration();
  EXPECT_THAT(status().transfers, IsEmpty());
  EXPECT_EQ(status().activeEnumerations, 1);
  store_.endEnumeration();
}

TEST_F(SyncStatusStoreTest, FailedWritesAreSilentAndTheNextChangeWritesEverything) {
  const support::CapturingLogSink log;
  storage_.blockShared();
  store_.begin("a", "/a", 10, Direction::upload);
  store_.beginEnumeration();
  EXPECT_TRUE(store_.hasActiveTransfersUnder("/"));
  fs::remove(storage_.shared());
  EXPECT_FALSE(fileExists());

  storage_.makeSharedDirectory("sync-status.json");  // a rename cannot replace it
  store_.update("a", 3);
  store_.drain();
  fs::remove(file());

  store_.update("a", 4);
  EXPECT_EQ(status().transfers.at(0).bytesTransferred, 4);
  EXPECT_EQ(status().activeEnumerations, 1);
  store_.finish("a");
  store_.endEnumeration();
  store_.drain();
  EXPECT_THAT(log.records(), IsEmpty());
}

TEST_F(SyncStatusStoreTest, ATextThatCannotBeWrittenKeepsTheOldFileUntilItHasGone) {
  store_.begin("a", "/a", 10, Direction::upload);
  const std::string before = fileText();
  store_.begin("b", "/\xFF", 10, Direction::upload);
  store_.update("a", 5);
  EXPECT_EQ(fileText(), before);
  EXPECT_TRUE(store_.hasActiveTransfersUnder("/"));
  store_.finish("b");
  EXPECT_EQ(status().transfers.at(0).bytesTransferred, 5);
  store_.finish("a");
}

TEST_F(SyncStatusStoreTest, StrangeIdsPathsAndCountsAreKept) {
  const std::string path =
      "/line\nquote\" back\\ null" + std::string(1, '\0') + " \xF0\x9F\x98\x80/..";
  store_.begin("", path, std::numeric_limits<std::int64_t>::max(), Direction::upload);
  store_.update("", std::numeric_limits<std::int64_t>::min());
  const auto transfers = status().transfers;
  store_.finish("");
  ASSERT_EQ(transfers.size(), 1U);
  EXPECT_EQ(transfers[0].path, path);
  EXPECT_EQ(transfers[0].totalBytes, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(transfers[0].bytesTransferred, std::numeric_limits<std::int64_t>::min());
}

TEST_F(SyncStatusStoreTest, NothingLiesBesideTheFile) {
  store_.begin("a", "/a", 10, Direction::upload);
  for (int i = 0; i < 20; ++i) store_.update("a", i);
  store_.finish("a");
  store_.drain();
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(storage_.shared()))
    names.push_back(entry.path().filename());
  EXPECT_THAT(names, ElementsAre("sync-status.json"));
}

TEST_F(SyncStatusStoreTest, TheFileIsFoundAnewForEachWrite) {
  store_.beginEnumeration();
  store_.drain();
  const support::IsolatedStorage elsewhere;
  store_.endEnumeration();
  store_.drain();
  EXPECT_TRUE(fs::exists(elsewhere.shared() / "sync-status.json"));
}

TEST_F(SyncStatusStoreTest, AReaderSeesWholeFilesOnly) {
  store_.begin("a", "/a", 10, Direction::upload);
  store_.drain();
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    while (!stop) {
      for (int i = 0; i < 50; ++i) store_.update("a", i);
      store_.drain();
    }
  });
  for (int i = 0; i < 500; ++i) {
    EXPECT_NO_THROW(SyncStatus::decode(contentsOf(file())));
  }
  stop = true;
  writer.join();
  store_.finish("a");
}

TEST_F(SyncStatusStoreTest, ManyThreadsLoseNothing) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 25;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      const std::string folder = "/" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        const std::string id = folder + "/" + std::to_string(i);
        store_.beginEnumeration();
        store_.begin(id, id, 2, Direction::upload);
        store_.update(id, 1);
        EXPECT_TRUE(store_.hasActiveTransfersUnder(folder));
        if (i > 0) store_.finish(id);
        if (i > 0) store_.endEnumeration();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const SyncStatus left = status();
  EXPECT_EQ(left.transfers.size(), static_cast<std::size_t>(kThreads));
  EXPECT_EQ(left.activeEnumerations, kThreads);
  for (const auto& transfer : left.transfers) {
    EXPECT_EQ(transfer.bytesTransferred, 1);
    store_.finish(transfer.id);
    store_.endEnumeration();
  }
}

}  // namespace
}  // namespace kestrune
