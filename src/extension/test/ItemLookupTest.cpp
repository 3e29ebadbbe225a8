#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "api/APIError.h"
#include "extension/test/ExtensionTesting.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"
#include "status/SyncStatusStore.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using platform::NSFileProviderError;
using support::Answer;
using support::DetachedTasks;
using ::testing::IsEmpty;

constexpr const char* kRoot = platform::NSFileProviderRootContainerItemIdentifier;

class ItemLookupTest : public ExtensionTesting {
 protected:
  Answered lookUp(const std::string& identifier) {
    Recorder recorder;
    const DetachedTasks tasks([&] { recorder = askForItem(*extension_, identifier); });
    EXPECT_EQ(recorder->progress()->totalUnitCount(), 1);
    EXPECT_TRUE(tasks.waitUntilEnded());
    EXPECT_EQ(recorder->progress()->completedUnitCount(), 1);
    EXPECT_EQ(recorder->answer().calls, 1);
    return recorder->answer();
  }
  void expectError(const Answered& answer, const char* domain, std::int64_t code) {
    EXPECT_EQ(answer.item, nullptr);
    ASSERT_NE(answer.error, nullptr);
    EXPECT_EQ(answer.error->domain(), domain);
    EXPECT_EQ(answer.error->code(), code);
  }
  void expectMissing(const std::string& identifier) {
    const Answered answer = lookUp(identifier);
    expectError(answer, platform::kNSFileProviderErrorDomain, -1005);
    EXPECT_THAT(answer.error->userInfo(), IsEmpty());
  }

  const std::shared_ptr<FileProviderExtension> extension_ = makeExtension();
};

TEST_F(ItemLookupTest, TheRootIsAnsweredAtOnceWithoutARequest) {
  const platform::Date before = platform::dateNow();
  const Recorder recorder = askForItem(*extension_, kRoot);
  const Answered answer = recorder->answer();
  EXPECT_EQ(answer.calls, 1);
  EXPECT_TRUE(answer.onCallersThread);
  EXPECT_EQ(answer.error, nullptr);
  EXPECT_EQ(recorder->progress()->totalUnitCount(), 1);
  EXPECT_EQ(recorder->progress()->completedUnitCount(), 1);
  ASSERT_NE(answer.item, nullptr);
  EXPECT_EQ(answer.item->itemIdentifier(), kRoot);
  EXPECT_EQ(answer.item->parentItemIdentifier(), kRoot);
  EXPECT_EQ(answer.item->filename(), "Kestrune");
  EXPECT_EQ(answer.item->contentType(), platform::UTType::folder());
  EXPECT_EQ(answer.item->documentSize(), std::nullopt);
  EXPECT_GE(*answer.item->contentModificationDate(), before);
  EXPECT_LE(*answer.item->contentModificationDate(), platform::dateNow());
  EXPECT_TRUE(answer.item->itemVersion()->contentVersion.ends_with("-0"));
  EXPECT_EQ(service_.http().requestCount(), 0U);
}

TEST_F(ItemLookupTest, AnItemIsFoundByOneListingOfItsParent) {
  service_.setListing("/x", {{.name = "z"},
                             {.name = "y", .size = 7, .modifiedAt = "1970-01-02T00:00:00.9Z"},
                             {.name = "y", .type = "directory", .size = 8}});
  const Answered answer = lookUp("/x/y");
  EXPECT_EQ(answer.error, nullptr);
  ASSERT_NE(answer.item, nullptr);
  EXPECT_EQ(answer.item->itemIdentifier(), "/x/y");
  EXPECT_EQ(answer.item->parentItemIdentifier(), "/x");
  EXPECT_EQ(answer.item->documentSize(), 7);
  EXPECT_EQ(answer.item->itemVersion()->contentVersion, "86400-7");
  EXPECT_FALSE(answer.onCallersThread);
  EXPECT_EQ(answer.progressThen, 0);  // moved only after the handler
  EXPECT_EQ(service_.http().onlyRequest().target, "/files?path=%2Fx");
}

TEST_F(ItemLookupTest, ParentsAndNamesFollowFromTheIdentifier) {
  const struct {
    std::string identifier;
    std::string target;
    std::string name;
    std::string found;
  } cases[] = {
      {"/a.txt", "/files?path=%2F", "a.txt", "/a.txt"},
      {"/a b/c&d", "/files?path=%2Fa%20b", "c&d", "/a b/c&d"},
      {"/d/e/", "/files?path=%2Fd", "e", "/d/e"},
      {"/d//e", "/files?path=%2Fd", "e", "/d/e"},
      {"a.txt", "/files?path=%2F", "a.txt", "/a.txt"},
      {"/d/..", "/files?path=%2Fd", "..", "/d/.."},
      {"/\xC3\xA9/x", "/files?path=%2F%C3%A9", "x", "/\xC3\xA9/x"},
      {std::string("/n\0l", 4), "/files?path=%2F", std::string("n\0l", 3), std::string("/n\0l", 4)},
      {"/.DS_Store", "/files?path=%2F", ".DS_Store", "/.DS_Store"},
      {platform::NSFileProviderTrashContainerItemIdentifier, "/files?path=%2F",
       platform::NSFileProviderTrashContainerItemIdentifier,
       "/NSFileProviderTrashContainerItemIdentifier"},
  };
  for (const auto& [identifier, target, name, found] : cases) {
    service_.http().next("GET", "/files",
                         Answer(200, support::listingReply({{.name = name, .size = 3}})));
    const Answered answer = lookUp(identifier);
    EXPECT_EQ(service_.http().requests().back().target, target);
    ASSERT_NE(answer.item, nullptr) << identifier;
    EXPECT_EQ(answer.item->itemIdentifier(), found);
  }
}

TEST_F(ItemLookupTest, ANameThatIsNotListedIsMissing) {
  service_.setListing("/x", {{.name = "y"}, {.name = "y "}, {.name = "e\xCC\x81"}});
  service_.setListing("/", {{.name = "x", .type = "directory"}});
  for (const char* identifier : {"/x/Y", "/x/z", "/x/\xC3\xA9", "/X", "/", "",
                                 platform::NSFileProviderWorkingSetContainerItemIdentifier,
                                 platform::NSFileProviderTrashContainerItemIdentifier})
    expectMissing(identifier);
  EXPECT_EQ(service_.listingCount("/x"), 3U);
  EXPECT_EQ(service_.listingCount("/"), 5U);
}

TEST_F(ItemLookupTest, AFailedListingsErrorPassesUnchanged) {
  const struct {
    Answer answer;
    const char* domain;
    std::int64_t code;
  } cases[] = {
      {Answer(404, "no such folder"), APIError::kDomain, 0},
      {Answer(503, "busy"), APIError::kDomain, 0},
      {Answer(200, "[]"), APIError::kDomain, 1},
      {Answer(200, "{}").closingAt(1), platform::kNSURLErrorDomain,
       platform::URLError::networkConnectionLost},
  };
  for (const auto& [answer, domain, code] : cases) {
    service_.http().next("GET", "/files", answer);
    const Answered given = lookUp("/x/y");
    expectError(given, domain, code);
    EXPECT_EQ(given.progressThen, 0);
  }
  service_.http().next("GET", "/files", Answer(404, "no such folder"));
  const Answered given = lookUp("/x/y");
  const auto* error = dynamic_cast<const APIError*>(given.error.get());
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->status(), 404);
  EXPECT_EQ(error->localizedDescription(), "HTTP 404: no such folder");
  EXPECT_EQ(service_.http().requestCount(), 5U);
}

TEST_F(ItemLookupTest, WithoutAConfigurationItFailsAsNotConfigured) {
  service_.writeConfiguration("{\"apiURL\":\"http://127.0.0.1:1\"}");
  expectError(lookUp("/x/y"), APIError::kDomain, 2);
  service_.configure("");
  expectError(lookUp("/x/y"), platform::kNSURLErrorDomain, platform::URLError::unsupportedURL);
}

TEST_F(ItemLookupTest, LeavesNothingBehind) {
  service_.setListing("/x", {{.name = "y"}});
  lookUp("/x/y");
  lookUp("/x/z");
  SyncStatusStore::shared().drain();
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(service_.storage().shared()))
    names.push_back(entry.path().filename());
  EXPECT_THAT(names, testing::ElementsAre("config.json"));
  EXPECT_EQ(log_.records().size(), 1U);  // the extension's own beginning
}

TEST_F(ItemLookupTest, ACachedListingIsNotAsked) {
  service_.storage().writeShared("listing-cache/listing-_x.json",
                                 R"({"entries":[{"name":"y","type":"file","size":1,)"
                                 R"("modifiedAt":"2024-05-01T12:00:00Z"}],"token":"t"})");
  service_.setListing("/x", {});
  expectMissing("/x/y");
}

TEST_F(ItemLookupTest, CancellingItsProgressStopsNothing) {
  service_.http().hold("GET", "/files");
  Recorder recorder;
  const DetachedTasks tasks([&] { recorder = askForItem(*extension_, "/x/y"); });
  const auto listing = service_.http().nextHeld();
  recorder->progress()->cancel();
  EXPECT_EQ(recorder->answer().calls, 0);
  listing.answer(Answer(200, support::listingReply({{.name = "y"}})));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_NE(recorder->answer().item, nullptr);
}

TEST_F(ItemLookupTest, ManyAtOnceEachGetTheirOwnAnswer) {
  constexpr std::size_t kItems = 30;
  std::vector<Recorder> recorders;
  const DetachedTasks tasks([&] {
    for (std::size_t i = 0; i < kItems; ++i) {
      const std::string number = std::to_string(i);
      service_.setListing("/" + number, {{.name = "n" + number}});
      recorders.push_back(askForItem(*extension_, "/" + number + "/n" + number));
    }
  });
  ASSERT_TRUE(tasks.waitUntilEnded());
  for (std::size_t i = 0; i < kItems; ++i) {
    ASSERT_NE(recorders[i]->answer().item, nullptr) << i;
    EXPECT_EQ(recorders[i]->answer().item->filename(), "n" + std::to_string(i));
  }
  EXPECT_EQ(service_.listingCount(), kItems);
}

}  // namespace
}  // namespace kestrune
