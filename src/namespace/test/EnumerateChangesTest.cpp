#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "namespace/FileProviderEnumerator.h"
#include "namespace/ListingCache.h"
#include "namespace/test/Observers.h"
#include "status/SyncStatusStore.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/DetachedTasks.h"
#include "tests/support/FileOpens.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using platform::LogLevel;
using support::Answer;
using support::DetachedTasks;
using support::ListedEntry;
using support::listingReply;
using support::ServiceFixture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using Names = std::vector<std::string>;

class EnumerateChangesTest : public testing::Test {
 protected:
  ~EnumerateChangesTest() override { SyncStatusStore::shared().drain(); }

  std::shared_ptr<ChangeRecorder> changesSince(const std::string& anchor,
                                               const std::string& path = "/Docs") {
    auto observer = std::make_shared<ChangeRecorder>();
    const DetachedTasks tasks(
        [&] { FileProviderEnumerator(path).enumerateChanges(observer, anchor); });
    EXPECT_TRUE(tasks.waitUntilEnded());
    return observer;
  }

  /// Lets the folder be known with these names, and the token be "new" since.
  void know(const Names& names, const std::string& path = "/Docs") {
    ListingCache::save(entries(names), "old", path);
    service_.writeInvalidationToken("new");
  }
  static std::vector<KestruneAPI::Entry> entries(const Names& names) {
    std::vector<KestruneAPI::Entry> list;
    for (const auto& name : names)
      list.push_back({name, "file", 0, *platform::parseISO8601("2024-05-01T12:00:00Z"), {}});
    return list;
  }
  static std::vector<ListedEntry> listed(const Names& names) {
    std::vector<ListedEntry> list;
    for (const auto& name : names) list.push_back({.name = name});
    return list;
  }
  void nextListing(const Names& names) {
    service_.http().next("GET", "/files", Answer(200, listingReply(listed(names))));
  }
  static Names cachedNames(const std::string& path = "/Docs") {
    Names names;
    const auto listing = ListingCache::load(path);
    if (!listing) return {"no listing"};
    for (const auto& entry : listing->entries) names.push_back(entry.name);
    return names;
  }
  std::filesystem::path statusFile() const {
    return service_.storage().shared() / "sync-status.json";
  }
  std::int64_t activeEnumerations() {
    SyncStatusStore::shared().drain();
    return SyncStatus::decode(support::contentsOf(statusFile())).activeEnumerations;
  }

  ServiceFixture service_;
  const support::CapturingLogSink log_;
};

TEST_F(EnumerateChangesTest, WithAnUnchangedTokenTheAnswerIsTheAnchorAtOnce) {
  for (const char* token : {"", "T5\n", "\xC3\xA9"}) {
    if (*token != '\0') service_.writeInvalidationToken(token);
    ListingCache::save({}, "t", "/Docs");
    support::FileOpens cacheOpens(ListingCache::dir() / "listing-_Docs.json");
    const std::string anchor = FileProviderEnumerator::currentToken();
    auto observer = std::make_shared<ChangeRecorder>();
    FileProviderEnumerator("/Docs").enumerateChanges(observer, anchor);
    EXPECT_THAT(observer->calls(), ElementsAre("finish"));
    EXPECT_EQ(observer->anchor(), anchor);
    EXPECT_TRUE(observer->onMyThread());
    EXPECT_EQ(cacheOpens.take(), 0U);
  }
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
  EXPECT_EQ(service_.http().requestCount(), 0U);
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(EnumerateChangesTest, AnyOtherAnchorIsAnsweredFromATask) {
  service_.writeInvalidationToken("T");
  service_.setListing("/Docs", {});
  for (const std::string& anchor : {std::string(), std::string("t"), std::string("T "),
                                    std::string("\xFF"), std::string("T\0", 2)}) {
    const auto observer = changesSince(anchor);
    EXPECT_THAT(observer->calls(), ElementsAre("finish"));
    EXPECT_EQ(observer->anchor(), "T");
    EXPECT_FALSE(observer->onMyThread());
  }
  EXPECT_EQ(service_.listingCount(), 5U);
}

TEST_F(EnumerateChangesTest, AnAnchorThatIsNoTextDiffersFromEveryToken) {
  service_.writeInvalidationToken("\xFF");  // reads as "initial"
  service_.setListing("/Docs", {});
  EXPECT_EQ(changesSince("\xFF")->anchor(), "initial");
  EXPECT_EQ(service_.listingCount(), 1U);
}

TEST_F(EnumerateChangesTest, WithoutACachedListingEverythingIsAnUpdate) {
  service_.writeInvalidationToken("new");
  service_.setListing("/Docs", {{.name = "b", .size = 3}, {.name = "a", .type = "directory"}});
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->calls(), ElementsAre("updated", "finish"));
  EXPECT_THAT(observer->updated(), ElementsAre("/Docs/b", "/Docs/a"));
  EXPECT_EQ(observer->updatedItems()[0]->documentSize(), 3);
  EXPECT_EQ(observer->anchor(), "new");
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateChanges: updated 2 items in /Docs"));
  EXPECT_THAT(cachedNames(), ElementsAre("b", "a"));
}

TEST_F(EnumerateChangesTest, AnEmptyCachedListingIsComparedWith) {
  know({});
  service_.setListing("/Docs", listed({"a"}));
  EXPECT_THAT(changesSince("old")->updated(), ElementsAre("/Docs/a"));
}

TEST_F(EnumerateChangesTest, DeletionsComeBeforeUpdatesAndUpdatesInTheServicesOrder) {
  know({"same", "gone", "grown", "gone too", "touched", "turned"});
  service_.setListing("/Docs", {{.name = "new 2"},
                                {.name = "turned", .type = "directory"},
                                {.name = "grown", .size = 1},
                                {.name = "same"},
                                {.name = "touched", .modifiedAt = "2024-05-01T12:00:01.5Z"},
                                {.name = "new 1"}});
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->calls(), ElementsAre("deleted", "updated", "finish"));
  EXPECT_THAT(observer->deleted(), UnorderedElementsAre("/Docs/gone", "/Docs/gone too"));
  EXPECT_THAT(observer->updated(), ElementsAre("/Docs/new 2", "/Docs/turned", "/Docs/grown",
                                               "/Docs/touched", "/Docs/new 1"));
  EXPECT_EQ(observer->anchor(), "new");
  EXPECT_EQ(service_.listingCount(), 2U);

  const auto records = log_.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].format, "enumerateChanges: deleted %ld items in %{public}s");
  EXPECT_EQ(records[0].message(), "enumerateChanges: deleted 2 items in /Docs");
  EXPECT_EQ(records[1].format, "enumerateChanges: updated %ld items in %{public}s");
  EXPECT_EQ(records[1].message(), "enumerateChanges: updated 5 items in /Docs");
  for (const auto& record : records) {
    EXPECT_EQ(record.category, "enumerator");
    EXPECT_EQ(record.level, LogLevel::standard);
  }
}

TEST_F(EnumerateChangesTest, NoDifferenceIsNoCallAndNoLine) {
  know({"a", "b"});
  service_.setListing("/Docs", {{.name = "b", .modifiedAt = "2024-05-01T12:00:00.9Z"},
                                {.name = "a"},
                                {.name = ".DS_Store"}});
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->calls(), ElementsAre("finish"));
  EXPECT_EQ(observer->anchor(), "new");
  EXPECT_EQ(service_.listingCount(), 1U);
  EXPECT_THAT(log_.records(), IsEmpty());
  EXPECT_EQ(ListingCache::load("/Docs")->token, "new");
}

TEST_F(EnumerateChangesTest, ARenamedFileIsADeletionAndAnUpdate) {
  know({"before.txt"}, "/");
  service_.setListing("/", listed({"after.txt"}));
  const auto observer = changesSince("old", "/");
  EXPECT_THAT(observer->calls(), ElementsAre("deleted", "updated", "finish"));
  EXPECT_THAT(observer->deleted(), ElementsAre("/before.txt"));
  EXPECT_THAT(observer->updated(), ElementsAre("/after.txt"));
}

TEST_F(EnumerateChangesTest, ANameListedTwiceBecomesTwoItems) {
  know({"x"});
  service_.setListing("/Docs",
                      {{.name = "x", .size = 1}, {.name = "y"}, {.name = "x"}, {.name = "y"}});
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->updated(), ElementsAre("/Docs/x", "/Docs/y", "/Docs/x", "/Docs/y"));
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateChanges: updated 4 items in /Docs"));
}

TEST_F(EnumerateChangesTest, IdentifiersOfDeletedItemsFollowFromTheFolder) {
  const struct {
    const char* folder;
    const char* name;
    const char* identifier;
  } cases[] = {
      {"/", "a", "/a"},
      {"/", "", platform::NSFileProviderRootContainerItemIdentifier},
      {"/Docs", "", "/Docs/"},
      {"/Docs", "..", "/Docs/.."},
      {"/Docs", "a/b", "/Docs/a/b"},
      {"", "a", "/a"},
  };
  for (const auto& [folder, name, identifier] : cases) {
    know({name}, folder);
    service_.setListing(folder, {});
    EXPECT_THAT(changesSince("old", folder)->deleted(), ElementsAre(identifier));
  }
}

TEST_F(EnumerateChangesTest, TheAnchorIsTheTokenReadDuringTheFetch) {
  know({});
  service_.http().hold("GET", "/files");
  auto observer = std::make_shared<ChangeRecorder>();
  const DetachedTasks tasks(
      [&] { FileProviderEnumerator("/Docs").enumerateChanges(observer, "old"); });
  const auto listing = service_.http().nextHeld();
  service_.writeInvalidationToken("newer");
  listing.answer(Answer(200, listingReply({})));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(observer->anchor(), "newer");
  EXPECT_EQ(ListingCache::load("/Docs")->token, "newer");
}

TEST_F(EnumerateChangesTest, ItIsCountedFromTheCallToItsEnd) {
  know({"a"});
  service_.http().hold("GET", "/files");
  auto observer = std::make_shared<ChangeRecorder>();
  const DetachedTasks tasks([&] {
    FileProviderEnumerator("/Docs").enumerateChanges(observer, "old");
    EXPECT_EQ(activeEnumerations(), 1);
    EXPECT_THAT(observer->calls(), IsEmpty());
  });
  service_.http().nextHeld().answer(Answer(200, listingReply({})));
  const auto second = service_.http().nextHeld();
  EXPECT_EQ(activeEnumerations(), 1);
  EXPECT_THAT(observer->calls(), IsEmpty());
  second.answer(Answer(200, listingReply({})));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(activeEnumerations(), 0);
  EXPECT_THAT(observer->calls(), ElementsAre("deleted", "finish"));
}

TEST_F(EnumerateChangesTest, AFailedListingKeepsTheOldAnchorAndTheCache) {
  know({"a"});
  const struct {
    Answer answer;
    const char* message;
  } cases[] = {
      {Answer(503, "busy"), "enumerateChanges failed: HTTP 503: busy"},
      {Answer(404, "gone"), "enumerateChanges failed: HTTP 404: gone"},
      {Answer(200, "{}"),
       "enumerateChanges failed: Decode error: The data is not in the correct format: "
       "\"entries\" is missing"},
  };
  std::size_t logged = 0;
  for (const auto& [answer, message] : cases) {
    service_.http().next("GET", "/files", answer);
    const auto observer = changesSince("old \xFF");
    EXPECT_THAT(observer->calls(), ElementsAre("finish"));
    EXPECT_EQ(observer->anchor(), "old \xFF");
    const auto records = log_.records();
    ASSERT_EQ(records.size(), ++logged);
    EXPECT_EQ(records.back().level, LogLevel::error);
    EXPECT_EQ(records.back().format, "enumerateChanges failed: %{public}s");
    EXPECT_EQ(records.back().message(), message);
    EXPECT_EQ(activeEnumerations(), 0);
  }
  EXPECT_EQ(ListingCache::load("/Docs")->token, "old");
  EXPECT_THAT(cachedNames(), ElementsAre("a"));
}

TEST_F(EnumerateChangesTest, DeletionsAreHeldBackWhileATransferRunsBelowAndAreLostThen) {
  know({"a", "b", "kept"});
  service_.setListing("/Docs", listed({"kept", "new"}));
  SyncStatusStore::shared().begin("t", "/Docs/deep/x", 0, SyncTransfer::Direction::upload);
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->calls(), ElementsAre("updated", "finish"));
  EXPECT_THAT(observer->updated(), ElementsAre("/Docs/new"));
  EXPECT_EQ(service_.listingCount(), 1U);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(
      records[0].format,
      "enumerateChanges: %ld candidate-deletions in %{public}s suppressed \xE2\x80\x94 active "
      "transfers under this path");
  EXPECT_EQ(records[0].level, LogLevel::standard);
  EXPECT_EQ(records[0].message(),
            "enumerateChanges: 2 candidate-deletions in /Docs suppressed \xE2\x80\x94 active "
            "transfers under this path");

  SyncStatusStore::shared().finish("t");
  service_.writeInvalidationToken("newer");
  EXPECT_THAT(changesSince("new")->calls(), ElementsAre("finish"));
}

TEST_F(EnumerateChangesTest, TransfersElsewhereHoldNothingBack) {
  for (const char* path : {"/Docs", "/Docs2/x", "/Other/Docs/x", "/docs/x"}) {
    know({"a"});
    service_.setListing("/Docs", {});
    SyncStatusStore::shared().begin("t", path, 0, SyncTransfer::Direction::download);
    EXPECT_THAT(changesSince("old")->deleted(), ElementsAre("/Docs/a")) << path;
    SyncStatusStore::shared().finish("t");
  }
}

TEST_F(EnumerateChangesTest, WithoutDeletionsATransferIsOfNoInterest) {
  know({"a"});
  service_.setListing("/Docs", listed({"a"}));
  SyncStatusStore::shared().begin("t", "/Docs/x", 0, SyncTransfer::Direction::upload);
  EXPECT_THAT(changesSince("old")->calls(), ElementsAre("finish"));
  EXPECT_THAT(log_.records(), IsEmpty());
  SyncStatusStore::shared().finish("t");
}

TEST_F(EnumerateChangesTest, NamesThatASecondListingShowsAreNotDeleted) {
  know({"a", "b", "c"});
  nextListing({});
  nextListing({"new", "c", "a"});
  const auto observer = changesSince("old");
  EXPECT_THAT(observer->calls(), ElementsAre("deleted", "finish"));
  EXPECT_THAT(observer->deleted(), ElementsAre("/Docs/b"));
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].format,
            "enumerateChanges: %ld candidate-deletions in %{public}s reappeared on second fetch "
            "\xE2\x80\x94 suppressed");
  EXPECT_EQ(records[0].level, LogLevel::standard);
  EXPECT_EQ(records[0].message(),
            "enumerateChanges: 2 candidate-deletions in /Docs reappeared on second fetch "
            "\xE2\x80\x94 suppressed");
  EXPECT_EQ(records[1].message(), "enumerateChanges: deleted 1 items in /Docs");
  EXPECT_THAT(cachedNames(), IsEmpty());  // the second listing is not remembered
}

TEST_F(EnumerateChangesTest, WhenAllReappearNothingIsDeleted) {
  know({"a"});
  nextListing({});
  nextListing({"a"});
  EXPECT_THAT(changesSince("old")->calls(), ElementsAre("finish"));
  EXPECT_EQ(log_.records().size(), 1U);
}

TEST_F(EnumerateChangesTest, TheSecondListingIsNotFilteredForJunk) {
  know({".DS_Store", "a"});
  service_.setListing("/Docs", listed({".DS_Store"}));
  EXPECT_THAT(changesSince("old")->deleted(), ElementsAre("/Docs/a"));
}

TEST_F(EnumerateChangesTest, ASecondListingThatFailsRescuesNothing) {
  for (const auto& answer : {Answer(500, "x"), Answer(200, "[]"), Answer(200, "{}").closingAt(1)}) {
    know({"a"});
    nextListing({});
    service_.http().next("GET", "/files", answer);
    const auto observer = changesSince("old");
    EXPECT_THAT(observer->calls(), ElementsAre("deleted", "finish"));
    EXPECT_THAT(observer->deleted(), ElementsAre("/Docs/a"));
    EXPECT_EQ(observer->anchor(), "new");
  }
  for (const auto& message : log_.messages())
    EXPECT_EQ(message, "enumerateChanges: deleted 1 items in /Docs");
}

TEST_F(EnumerateChangesTest, AnUnreadableCacheMakesEverythingAnUpdate) {
  const auto spoil = [this](int kind) {
    const std::string file = "listing-cache/listing-_Docs.json";
    if (kind == 0) service_.storage().writeShared(file, std::string("\x00\xFF{", 3));
    if (kind == 1) service_.storage().writeShared(file, R"({"entries":[]})");
    if (kind == 2) service_.storage().makeSharedPipe(file);
    if (kind == 3) service_.storage().makeSharedDirectory(file);
  };
  service_.setListing("/Docs", listed({"a"}));
  for (int kind = 0; kind < 4; ++kind) {
    know({"a", "gone"});
    spoil(kind);
    const auto observer = changesSince("old");
    EXPECT_THAT(observer->calls(), ElementsAre("updated", "finish")) << kind;
    EXPECT_THAT(observer->updated(), ElementsAre("/Docs/a")) << kind;
  }
}

TEST_F(EnumerateChangesTest, SpecialContainersNeverChange) {
  service_.writeInvalidationToken("new");
  for (const char* path : {platform::NSFileProviderWorkingSetContainerItemIdentifier,
                           platform::NSFileProviderTrashContainerItemIdentifier,
                           "/Archive/TrashContainer", "/WorkingSet"}) {
    auto observer = std::make_shared<ChangeRecorder>();
    FileProviderEnumerator(path).enumerateChanges(observer, "any \xFF anchor");
    EXPECT_THAT(observer->calls(), ElementsAre("finish")) << path;
    EXPECT_EQ(observer->anchor(), "any \xFF anchor") << path;
    EXPECT_TRUE(observer->onMyThread()) << path;
  }
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
  EXPECT_EQ(service_.http().requestCount(), 0U);
}

TEST_F(EnumerateChangesTest, TwoAtOnceBothCompareWithWhatWasKnownBefore) {
  know({"a"});
  service_.http().hold("GET", "/files");
  auto first = std::make_shared<ChangeRecorder>();
  auto second = std::make_shared<ChangeRecorder>();
  const DetachedTasks tasks([&] {
    FileProviderEnumerator("/Docs").enumerateChanges(first, "old");
    FileProviderEnumerator("/Docs").enumerateChanges(second, "old");
  });
  const auto one = service_.http().nextHeld();
  const auto two = service_.http().nextHeld();
  one.answer(Answer(200, listingReply(listed({"a", "b"}))));
  two.answer(Answer(200, listingReply(listed({"a", "b"}))));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_THAT(first->updated(), ElementsAre("/Docs/b"));
  EXPECT_THAT(second->updated(), ElementsAre("/Docs/b"));
}

}  // namespace
}  // namespace kestrune
