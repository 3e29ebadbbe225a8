// The manager that the console plays, as an extension meets it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "companion/test/ConsoleHarness.h"
#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune {
namespace {

using namespace platform;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

struct ConsoleManagerTest : testing::Test {
  std::shared_ptr<NSFileProviderManager> manager() {
    return NSFileProviderManager::forDomain(*console.domain());
  }

  /// Sends a call of the manager op and waits until it has been carried out.
  void order(const std::string& arguments) {
    const std::string id = std::to_string(++lastOrder);
    console.send(R"({"id":)" + id + R"(,"op":"manager")" + arguments + "}");
    EXPECT_THAT(console.lineWith(R"({"id":)" + id + ","), HasSubstr(R"("event":"completion")"));
  }

  NSErrorPtr evict(const std::string& identifier) {
    std::promise<NSErrorPtr> answer;
    manager()->evictItem(identifier, [&](NSErrorPtr error) { answer.set_value(std::move(error)); });
    return answer.get_future().get();
  }

  NSErrorPtr download(const std::string& identifier, std::optional<NSRange> range = std::nullopt) {
    std::promise<NSErrorPtr> answer;
    manager()->requestDownloadForItem(
        identifier, range, [&](NSErrorPtr error) { answer.set_value(std::move(error)); });
    return answer.get_future().get();
  }

  ConsoleHarness console{std::make_shared<FakeExtension>()};
  int lastOrder = 0;
};

TEST_F(ConsoleManagerTest, SucceedsAndPrintsWhatItIsAsked) {
  EXPECT_EQ(evict("/a"), nullptr);
  EXPECT_EQ(download("/b"), nullptr);
  EXPECT_EQ(download("/c", NSRange{10, 20}), nullptr);
  EXPECT_THAT(
      console.finish(),
      testing::ElementsAre(
          R"({"id":null,"event":"evict","seq":1,"identifier":"/a","failed":false})",
          R"({"id":null,"event":"requestDownload","seq":2,"identifier":"/b","failed":false,"range":null})",
          R"({"id":null,"event":"requestDownload","seq":3,"identifier":"/c","failed":false,"range":{"location":10,"length":20}})"));
}

TEST_F(ConsoleManagerTest, FailsForTheItemsNamed) {
  order(R"(,"failEvict":["/a"],"failDownload":["/b"])");
  const auto evictError = evict("/a");
  ASSERT_NE(evictError, nullptr);
  EXPECT_EQ(evictError->domain(), kNSFileProviderErrorDomain);
  EXPECT_THAT(evictError->localizedDescription(), HasSubstr("/a"));
  EXPECT_EQ(evict("/b"), nullptr);
  const auto downloadError = download("/b");
  ASSERT_NE(downloadError, nullptr);
  EXPECT_THAT(downloadError->localizedDescription(), HasSubstr("/b"));
  EXPECT_EQ(download("/a"), nullptr);
  EXPECT_TRUE(console.hasLineWith(R"("event":"evict","seq":2,"identifier":"/a","failed":true})"));
  EXPECT_TRUE(console.hasLineWith(R"("identifier":"/b","failed":true,"range":null})"));
}

TEST_F(ConsoleManagerTest, AnOrderChangesOnlyWhatItNames) {
  order(R"(,"failEvict":["/a"])");
  order(R"(,"failDownload":["/b"])");
  order("");
  EXPECT_NE(evict("/a"), nullptr);
  EXPECT_NE(download("/b"), nullptr);
  order(R"(,"failEvict":[])");
  EXPECT_EQ(evict("/a"), nullptr);
}

TEST_F(ConsoleManagerTest, CanBeTakenAwayAndGivenBack) {
  order(R"(,"present":false)");
  EXPECT_EQ(manager(), nullptr);
  order(R"(,"failEvict":["/a"])");
  EXPECT_EQ(manager(), nullptr);
  order(R"(,"present":true)");
  EXPECT_NE(evict("/a"), nullptr);
}

TEST_F(ConsoleManagerTest, SignallingAnEnumeratorPrintsNothing) {
  std::promise<NSErrorPtr> answer;
  manager()->signalEnumerator("/", [&](NSErrorPtr error) { answer.set_value(std::move(error)); });
  EXPECT_EQ(answer.get_future().get(), nullptr);
  EXPECT_TRUE(console.finish().empty());
}

}  // namespace
}  // namespace kestrune
