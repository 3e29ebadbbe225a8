#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include "extension/test/ExtensionTesting.h"
#include "namespace/FileProviderEnumerator.h"
#include "namespace/test/Observers.h"
#include "platform/net/URLError.h"
#include "status/SyncStatusStore.h"
#include "tests/support/FileOpens.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using platform::NSFileProviderManager;
using platform::URLError;
using support::Answer;
using support::DetachedTasks;
using support::ServiceFixture;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_default_constructible_v<FileProviderExtension>);
static_assert(!std::is_copy_constructible_v<FileProviderExtension>);

class ExtensionLifecycleTest : public ExtensionTesting {
 protected:
  ~ExtensionLifecycleTest() override {
    NSFileProviderManager::setProvider(nullptr);
    SyncStatusStore::shared().drain();
  }

  Answered fetch(FileProviderExtension& extension, const std::string& identifier) {
    Recorder recorder;
    const DetachedTasks tasks([&] { recorder = askForContents(extension, identifier); });
    EXPECT_TRUE(tasks.waitUntilEnded());
    EXPECT_EQ(recorder->answer().calls, 1);
    return recorder->answer();
  }
};

TEST_F(ExtensionLifecycleTest, BeginsWithOneLineAboutItsConfiguration) {
  const std::string token = ServiceFixture::kToken;
  const struct {
    std::string configuration;
    std::string apiURL;
    std::string token;
  } cases[] = {
      {"", "nil", "missing"},
      {"not json", "nil", "missing"},
      {"{}", "nil", "missing"},
      {R"({"apiURL":"http://h"})", "http://h", "missing"},
      {R"({"apiURL":"http://h","token":null})", "http://h", "missing"},
      {R"({"apiURL":"http://h","token":7})", "nil", "missing"},
      {R"({"token":")" + token + "\"}", "nil", "present"},
      {R"({"apiURL":null,"token":"x"})", "nil", "present"},
      {R"({"apiURL":7,"token":"x"})", "nil", "missing"},
      {R"({"apiURL":"http://h","token":")" + token + "\"}", "http://h", "present"},
      {R"({"apiURL":"","token":""})", "", "present"},
      {R"({"apiURL":"no url at all","token":"x"})", "no url at all", "present"},
  };
  std::size_t lines = 0;
  for (const auto& [configuration, apiURL, expectedToken] : cases) {
    service_.writeConfiguration(configuration);
    makeExtension();
    const auto records = log_.records();
    ASSERT_EQ(records.size(), ++lines) << configuration;
    const platform::LogRecord& line = records.back();
    EXPECT_EQ(line.subsystem, "com.orvanta.kestrune.fileprovider");
    EXPECT_EQ(line.category, "extension");
    EXPECT_EQ(line.level, platform::LogLevel::standard);
    EXPECT_EQ(line.format, "init domain=%s apiURL=%s token=%s");
    EXPECT_EQ(line.arguments,
              (std::vector<platform::LogArgument>{std::string("domain-7"), apiURL, expectedToken}))
        << configuration;
    EXPECT_EQ(line.message(), "init domain=<private> apiURL=<private> token=<private>");
  }
}

TEST_F(ExtensionLifecycleTest, BeginsWithoutAnyConfiguration) {
  std::filesystem::remove_all(service_.storage().applicationSupport());
  ASSERT_NE(makeExtension(), nullptr);
  EXPECT_EQ(log_.records().at(0).arguments.at(1), platform::LogArgument(std::string("nil")));
  service_.storage().blockShared();
  ASSERT_NE(makeExtension(), nullptr);
  EXPECT_EQ(log_.records().at(1).arguments.at(2), platform::LogArgument(std::string("missing")));
}

TEST_F(ExtensionLifecycleTest, ReadsTheConfigurationOnceForEachValue) {
  support::FileOpens opens(service_.storage().shared() / "config.json");
  makeExtension();
  EXPECT_EQ(opens.take(), 2U);
}

TEST_F(ExtensionLifecycleTest, AsksForItsManagerOnceAndLivesWithoutOne) {
  std::vector<std::string> asked;
  NSFileProviderManager::setProvider([&asked](const platform::NSFileProviderDomain& domain) {
    asked.push_back(domain.identifier());
    return nullptr;
  });
  const auto extension = makeExtension();
  service_.setListing("/", {{.name = "a", .size = 1}});
  service_.setContents("/a", {Answer(200, "x")});
  EXPECT_TRUE(fetch(*extension, "/a").url);
  EXPECT_THAT(asked, ElementsAre("domain-7"));
}

TEST_F(ExtensionLifecycleTest, MakesANewEnumeratorForEachRequest) {
  const auto extension = makeExtension();
  const struct {
    const char* identifier;
    const char* path;
  } cases[] = {
      {platform::NSFileProviderRootContainerItemIdentifier, "/"},
      {platform::NSFileProviderWorkingSetContainerItemIdentifier,
       "NSFileProviderWorkingSetContainerItemIdentifier"},
      {platform::NSFileProviderTrashContainerItemIdentifier,
       "NSFileProviderTrashContainerItemIdentifier"},
      {"/Docs", "/Docs"},
      {"/", "/"},
      {"", ""},
      {"/a\\b \xFF", "/a\\b \xFF"},
  };
  for (const auto& [identifier, path] : cases) {
    const auto first = extension->enumerator(identifier, {});
    const auto* enumerator = dynamic_cast<const FileProviderEnumerator*>(first.get());
    ASSERT_NE(enumerator, nullptr) << identifier;
    EXPECT_EQ(enumerator->containerPath(), path);
    EXPECT_NE(extension->enumerator(identifier, {}), first);
  }
}

TEST_F(ExtensionLifecycleTest, FetchingReturnsItsProgressAtOnce) {
  const auto extension = makeExtension();
  service_.setListing("/", {});
  service_.setContents("/a", {Answer(200, "hello")});
  Recorder recorder;
  const DetachedTasks tasks([&] {
    recorder = askForContents(*extension, "/a");
    EXPECT_EQ(recorder->progress()->totalUnitCount(), 100);
    EXPECT_EQ(recorder->progress()->completedUnitCount(), 0);
    EXPECT_EQ(recorder->answer().calls, 0);
  });
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_FALSE(recorder->answer().onCallersThread);
  EXPECT_EQ(recorder->answer().progressThen, 100);
  EXPECT_EQ(support::contentsOf(*recorder->answer().url), "hello");
}

TEST_F(ExtensionLifecycleTest, AfterInvalidationTransfersAreCancelledAndMetadataStillWorks) {
  const auto extension = makeExtension();
  service_.setListing("/", {{.name = "a", .size = 5}});
  service_.setContents("/a", {Answer(200, "hello")});
  extension->invalidate();
  extension->invalidate();

  const Answered contents = fetch(*extension, "/a");
  ASSERT_NE(contents.error, nullptr);
  EXPECT_EQ(contents.error->domain(), platform::kNSURLErrorDomain);
  EXPECT_EQ(contents.error->code(), URLError::cancelled);
  EXPECT_EQ(service_.presignCount(), 4U);
  EXPECT_THAT(service_.downloadTargets(), IsEmpty());

  Recorder item;
  const DetachedTasks lookup([&] { item = askForItem(*extension, "/a"); });
  ASSERT_TRUE(lookup.waitUntilEnded());
  EXPECT_NE(item->answer().item, nullptr);

  const auto observer = std::make_shared<EnumerationRecorder>();
  const DetachedTasks enumeration(
      [&] { extension->enumerator("/", {})->enumerateItems(observer, ""); });
  ASSERT_TRUE(enumeration.waitUntilEnded());
  EXPECT_THAT(observer->identifiers(), ElementsAre("/a"));
}

TEST_F(ExtensionLifecycleTest, InvalidationCancelsWhatIsUnderway) {
  const auto extension = makeExtension();
  service_.setListing("/", {});
  service_.setContents("/a", {});
  service_.http().on("GET", "/storage/0", Answer(200, "hello").stallingAt(2));
  Recorder recorder;
  const DetachedTasks tasks([&] { recorder = askForContents(*extension, "/a"); });
  ASSERT_TRUE(waitUntil([&] { return service_.downloadTargets().size() == 1; }));
  EXPECT_EQ(recorder->answer().calls, 0);
  extension->invalidate();
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(recorder->answer().error->code(), URLError::cancelled);
  EXPECT_EQ(service_.downloadTargets().size(), 1U);
}

TEST_F(ExtensionLifecycleTest, ADownloadOutlivesItsExtension) {
  auto extension = makeExtension();
  service_.setListing("/", {});
  service_.setContents("/a", {});
  service_.http().hold("GET", "/storage/0");
  Recorder recorder;
  const DetachedTasks tasks([&] { recorder = askForContents(*extension, "/a"); });
  const auto download = service_.http().nextHeld();
  const std::weak_ptr<FileProviderExtension> gone = extension;
  extension.reset();
  EXPECT_TRUE(gone.expired());
  download.answer(Answer(200, "hello"));
  ASSERT_TRUE(tasks.waitUntilEnded());
  ASSERT_TRUE(recorder->answer().url);
  EXPECT_EQ(support::contentsOf(*recorder->answer().url), "hello");
}

TEST_F(ExtensionLifecycleTest, TwoExtensionsAreCancelledOneByOne) {
  const auto first = makeExtension();
  const auto second = makeExtension();
  service_.setListing("/", {});
  service_.setContents("/a", {Answer(200, "hello")});
  first->invalidate();
  EXPECT_TRUE(fetch(*second, "/a").url);
  EXPECT_TRUE(fetch(*first, "/a").error);
}

TEST_F(ExtensionLifecycleTest, UpTo32TransfersRunToOneHost) {
  constexpr std::size_t kFiles = 36;
  constexpr std::size_t kAtOnce = 32;
  const auto extension = makeExtension();
  support::HttpFixture storage;
  storage.hold("GET", "/object");
  service_.http().on(
      "POST", "/files/presign-download",
      Answer(200, "{\"url\":\"" + storage.url("/object") + "\",\"method\":\"GET\",\"path\":\"\"}"));
  service_.setListing("/", {});
  const DetachedTasks tasks([&] {
    for (std::size_t i = 0; i < kFiles; ++i) askForContents(*extension, "/" + std::to_string(i));
  });
  ASSERT_TRUE(storage.waitForRequests(kAtOnce));
  ASSERT_TRUE(waitUntil([&] { return service_.presignCount() == kFiles; }));
  EXPECT_TRUE(support::staysTrue([&] { return storage.requestCount() == kAtOnce; },
                                 std::chrono::milliseconds(100)));
  for (std::size_t i = 0; i < kFiles; ++i) storage.nextHeld().answer(Answer(200, "x"));
  ASSERT_TRUE(tasks.waitUntilEnded());
  EXPECT_EQ(storage.maxConcurrentRequests(), kAtOnce);
}

TEST_F(ExtensionLifecycleTest, ContentsAreNeverTakenFromACache) {
  const auto extension = makeExtension();
  service_.http().on("POST", "/files/presign-download",
                     Answer(200, "{\"url\":\"" + service_.http().url("/object") +
                                     "\",\"method\":\"GET\",\"path\":\"\"}"));
  service_.http().on("GET", "/object",
                     Answer(200, "x").with("Cache-Control", "max-age=3600").with("ETag", "\"1\""));
  service_.setListing("/", {});
  fetch(*extension, "/a");
  fetch(*extension, "/a");
  EXPECT_EQ(service_.http().requestCount("GET", "/object"), 2U);
}

TEST_F(ExtensionLifecycleTest, CallsComeFromAnyThreadAtOnce) {
  const auto extension = makeExtension();
  service_.setListing("/", {{.name = "a", .size = 5}});
  service_.setContents("/a", {Answer(200, "hello")});
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      Recorder item;
      Recorder contents;
      auto observer = std::make_shared<EnumerationRecorder>();
      const DetachedTasks tasks([&] {
        item = askForItem(*extension, "/a");
        contents = askForContents(*extension, "/a");
        extension->enumerator(platform::NSFileProviderRootContainerItemIdentifier, {})
            ->enumerateItems(observer, "");
      });
      EXPECT_TRUE(tasks.waitUntilEnded());
      EXPECT_NE(item->answer().item, nullptr);
      EXPECT_TRUE(contents->answer().url);
      EXPECT_THAT(observer->identifiers(), ElementsAre("/a"));
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace kestrune
