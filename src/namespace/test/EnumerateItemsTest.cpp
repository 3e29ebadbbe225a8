#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "api/APIError.h"
#include "namespace/FileProviderEnumerator.h"
#include "namespace/ListingCache.h"
#include "namespace/test/Observers.h"
#include "platform/net/URLError.h"
#include "status/SyncStatusStore.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/DetachedTasks.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using platform::LogLevel;
using support::Answer;
using support::DetachedTasks;
using support::listingReply;
using support::ServiceFixture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_default_constructible_v<FileProviderEnumerator>);

class EnumerateItemsTest : public testing::Test {
 protected:
  std::shared_ptr<EnumerationRecorder> enumerate(const std::string& path,
                                                 const std::string& page = "") {
    auto observer = std::make_shared<EnumerationRecorder>();
    const DetachedTasks tasks([&] { FileProviderEnumerator(path).enumerateItems(observer, page); });
    EXPECT_TRUE(tasks.waitUntilEnded());
    return observer;
  }

  std::int64_t activeEnumerations() {
    SyncStatusStore::shared().drain();
    return SyncStatus::decode(support::contentsOf(statusFile())).activeEnumerations;
  }
  std::filesystem::path statusFile() const {
    return service_.storage().shared() / "sync-status.json";
  }

  ServiceFixture service_;
  const support::CapturingLogSink log_;
};

TEST_F(EnumerateItemsTest, AFoldersEntriesComeInOneBatchInTheServicesOrder) {
  service_.writeInvalidationToken("T7\n");
  service_.setListing("/Docs", {{.name = "z.txt", .size = 7},
                                {.name = "a", .type = "directory"},
                                {.name = "m n&o.txt", .size = 9}});
  const auto observer = enumerate("/Docs");
  EXPECT_THAT(observer->calls(), ElementsAre("items", "finish"));
  EXPECT_THAT(observer->identifiers(), ElementsAre("/Docs/z.txt", "/Docs/a", "/Docs/m n&o.txt"));
  EXPECT_EQ(observer->items()[0]->documentSize(), 7);
  EXPECT_EQ(observer->items()[1]->contentType(), platform::UTType::folder());
  EXPECT_EQ(service_.http().onlyRequest().target, "/files?path=%2FDocs");

  const auto records = log_.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].category, "enumerator");
  EXPECT_EQ(records[0].level, LogLevel::standard);
  EXPECT_EQ(records[0].format, "enumerateItems %{public}s: %ld items, token=%{public}s");
  EXPECT_EQ(records[0].message(), "enumerateItems /Docs: 3 items, token=T7");
}

TEST_F(EnumerateItemsTest, AnEmptyFolderIsAnEmptyBatch) {
  service_.setListing("/", {});
  const auto observer = enumerate("/");
  EXPECT_THAT(observer->calls(), ElementsAre("items", "finish"));
  EXPECT_THAT(observer->items(), IsEmpty());
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateItems /: 0 items, token=initial"));
}

TEST_F(EnumerateItemsTest, JunkIsLeftOutAndWhatIsKeptIsCachedWithTheToken) {
  service_.writeInvalidationToken("T1");
  service_.setListing("/", {{.name = ".DS_Store"},
                            {.name = "b", .size = 2},
                            {.name = "._b"},
                            {.name = ".Trash", .type = "directory"},
                            {.name = "a", .type = "directory"},
                            {.name = ".Spotlight-V100"}});
  const auto observer = enumerate("/");
  EXPECT_THAT(observer->identifiers(), ElementsAre("/b", "/a"));
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateItems /: 2 items, token=T1"));
  const auto cached = ListingCache::load("/");
  ASSERT_TRUE(cached);
  EXPECT_EQ(cached->token, "T1");
  ASSERT_EQ(cached->entries.size(), 2U);
  EXPECT_EQ(cached->entries[0].name, "b");
  EXPECT_EQ(cached->entries[0].size, 2);
  EXPECT_EQ(cached->entries[1].type, "directory");
}

TEST_F(EnumerateItemsTest, ThePageIsIgnored) {
  service_.setListing("/", {{.name = "a"}});
  for (const char* page : {"", platform::NSFileProviderInitialPageSortedByName, "\xFF page 5"}) {
    const auto observer = enumerate("/", page);
    EXPECT_THAT(observer->calls(), ElementsAre("items", "finish"));
    EXPECT_THAT(observer->identifiers(), ElementsAre("/a"));
  }
}

TEST_F(EnumerateItemsTest, TheTokenIsReadAfterTheListing) {
  service_.writeInvalidationToken("before");
  service_.http().hold("GET", "/files");
  auto observer = std::make_shared<EnumerationRecorder>();
  const DetachedTasks tasks([&] { FileProviderEnumerator("/").enumerateItems(observer, ""); });
  const auto listing = service_.http().nextHeld();
  service_.writeInvalidationToken("meanwhile");
  listing.answer(Answer(200, listingReply({})));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(ListingCache::load("/")->token, "meanwhile");
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateItems /: 0 items, token=meanwhile"));
}

TEST_F(EnumerateItemsTest, ItIsCountedFromTheCallToItsEndAndAnsweredFromATask) {
  service_.http().hold("GET", "/files");
  auto observer = std::make_shared<EnumerationRecorder>();
  FileProviderEnumerator enumerator("/");
  const DetachedTasks tasks([&] {
    enumerator.enumerateItems(observer, "");
    EXPECT_EQ(activeEnumerations(), 1);  // before any of the task has run
    EXPECT_EQ(service_.http().requestCount(), 0U);
    EXPECT_THAT(observer->calls(), IsEmpty());
  });
  const auto listing = service_.http().nextHeld();
  EXPECT_EQ(activeEnumerations(), 1);
  enumerator.invalidate();  // changes nothing
  listing.answer(Answer(200, listingReply({{.name = "a"}})));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(activeEnumerations(), 0);
  EXPECT_THAT(observer->calls(), ElementsAre("items", "finish"));
  EXPECT_FALSE(observer->onMyThread());
}

TEST_F(EnumerateItemsTest, AFailureIsLoggedAndHandedOnUnchanged) {
  const struct {
    Answer answer;
    const char* domain;
    std::int64_t code;
    const char* description;
  } cases[] = {
      {Answer(404, "no such folder"), APIError::kDomain, 0, "HTTP 404: no such folder"},
      {Answer(500, "\xFF"), APIError::kDomain, 0, "HTTP 500: "},
      {Answer(200, "[]"), APIError::kDomain, 1,
       "Decode error: The data is not in the correct format: the listing is not an object"},
      {Answer(200, "{}").closingAt(1), platform::kNSURLErrorDomain,
       platform::URLError::networkConnectionLost, nullptr},
  };
  ListingCache::save({}, "older", "/x");
  std::size_t logged = 0;
  for (const auto& [answer, domain, code, description] : cases) {
    service_.http().next("GET", "/files", answer);
    const auto observer = enumerate("/x");
    EXPECT_THAT(observer->calls(), ElementsAre("error"));
    ASSERT_NE(observer->error(), nullptr);
    EXPECT_EQ(observer->error()->domain(), domain);
    EXPECT_EQ(observer->error()->code(), code);
    if (description) EXPECT_EQ(observer->error()->localizedDescription(), description);
    const auto records = log_.records();
    ASSERT_EQ(records.size(), ++logged);
    EXPECT_EQ(records.back().level, LogLevel::error);
    EXPECT_EQ(records.back().format, "enumerateItems failed: %{public}s");
    EXPECT_EQ(records.back().message(),
              "enumerateItems failed: " + observer->error()->localizedDescription());
    EXPECT_EQ(activeEnumerations(), 0);
  }
  EXPECT_EQ(ListingCache::load("/x")->token, "older");
}

TEST_F(EnumerateItemsTest, WithoutAConfigurationItFailsAsNotConfigured) {
  service_.writeConfiguration("{}");
  const auto observer = enumerate("/");
  const auto* error = dynamic_cast<const APIError*>(observer->error().get());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->which(), APIError::Case::notConfigured);
  EXPECT_THAT(log_.messages(), ElementsAre("enumerateItems failed: API URL or auth token missing"));
}

TEST_F(EnumerateItemsTest, SpecialContainersAreEmptyAtOnce) {
  for (const char* path :
       {platform::NSFileProviderWorkingSetContainerItemIdentifier,
        platform::NSFileProviderTrashContainerItemIdentifier, "NSFileProvider", "NSFileProviderX/y",
        "/Archive/TrashContainer", "/My WorkingSet 2/x", "/aTrashContainerb", "WorkingSet"}) {
    auto observer = std::make_shared<EnumerationRecorder>();
    FileProviderEnumerator(path).enumerateItems(observer, "");
    EXPECT_THAT(observer->calls(), ElementsAre("finish")) << path;
    EXPECT_TRUE(observer->onMyThread()) << path;
  }
  SyncStatusStore::shared().drain();
  EXPECT_FALSE(std::filesystem::exists(statusFile()));
  EXPECT_FALSE(std::filesystem::exists(service_.storage().shared() / "listing-cache"));
  EXPECT_EQ(service_.http().requestCount(), 0U);
  EXPECT_THAT(log_.records(), IsEmpty());
}

TEST_F(EnumerateItemsTest, FoldersWithNearlySuchNamesAreOrdinary) {
  for (const char* path : {"/NSFileProvider", "/workingset", "/Working Set", "/trashcontainer",
                           "/Trash", "/nsfileprovider", "/WorkingSe", "/Trash/Container"}) {
    service_.setListing(path, {{.name = "a"}});
    EXPECT_THAT(enumerate(path)->calls(), ElementsAre("items", "finish")) << path;
  }
}

TEST_F(EnumerateItemsTest, NamesOfEveryKindBecomeItems) {
  service_.http().on("GET", "/files", Answer(200, R"({"path":"/","entries":[
      {"name":"","type":"file","size":0,"modified_at":""},
      {"name":".","type":"directory","size":0,"modified_at":""},
      {"name":"..","type":"directory","size":0,"modified_at":""},
      {"name":"a/b","type":"file","size":-5,"modified_at":""},
      {"name":"nul\u0000l","type":"file","size":9223372036854775807,"modified_at":""},
      {"name":"twice","type":"file","size":1,"modified_at":"0000-01-01T00:00:00Z"},
      {"name":"twice","type":"file","size":2,"modified_at":"99999-01-01T00:00:00Z"}]})"));
  const auto observer = enumerate("/d");
  EXPECT_THAT(observer->identifiers(),
              ElementsAre("/d/", "/d/.", "/d/..", "/d/a/b", std::string("/d/nul\0l", 8), "/d/twice",
                          "/d/twice"));
  for (const auto& item : observer->items()) {
    // Whatever a host reads, nothing falls over.
    item->filename();
    item->parentItemIdentifier();
    item->contentType();
    item->itemVersion();
    item->contentPolicy();
  }
}

TEST_F(EnumerateItemsTest, AFolderOfManyEntriesIsStillOneBatch) {
  std::vector<support::ListedEntry> entries(20'000);
  for (std::size_t i = 0; i < entries.size(); ++i) entries[i].name = std::to_string(i);
  service_.setListing("/", entries);
  const auto observer = enumerate("/");
  EXPECT_THAT(observer->calls(), ElementsAre("items", "finish"));
  ASSERT_EQ(observer->items().size(), entries.size());
  EXPECT_EQ(observer->items().back()->filename(), "19999");
}

TEST_F(EnumerateItemsTest, AnUnwritableCacheIsNobodysProblem) {
  service_.setListing("/", {{.name = "a"}});
  service_.storage().makeSharedDirectory("listing-cache/listing-_.json");
  EXPECT_THAT(enumerate("/")->calls(), ElementsAre("items", "finish"));
  EXPECT_EQ(log_.records().size(), 1U);
}

TEST_F(EnumerateItemsTest, ManyEnumerationsRunAtOnce) {
  constexpr std::size_t kFolders = 12;
  std::vector<std::shared_ptr<EnumerationRecorder>> observers;
  const DetachedTasks tasks([&] {
    for (std::size_t i = 0; i < kFolders; ++i) {
      const std::string path = "/" + std::to_string(i);
      service_.setListing(path, {{.name = "of" + path.substr(1)}});
      observers.push_back(std::make_shared<EnumerationRecorder>());
      FileProviderEnumerator(path).enumerateItems(observers.back(), "");
    }
    EXPECT_EQ(activeEnumerations(), static_cast<std::int64_t>(kFolders));
  });
  ASSERT_TRUE(tasks.waitUntilEnded());
  for (std::size_t i = 0; i < kFolders; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_THAT(observers[i]->identifiers(), ElementsAre("/" + number + "/of" + number));
  }
  EXPECT_EQ(activeEnumerations(), 0);
}

}  // namespace
}  // namespace kestrune
