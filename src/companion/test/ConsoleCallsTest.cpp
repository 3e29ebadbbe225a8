// The calls that return a progress: what they hand to the extension and what they print.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "companion/test/ConsoleHarness.h"
#include "platform/file_provider/NSFileProviderError.h"

namespace kestrune {
namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::shared_ptr<FakeItem> reportItem() {
  auto item = std::make_shared<FakeItem>("/Docs/a.pdf", "/Docs", "a.pdf");
  item->type = UTType::named("application/pdf");
  item->itemCapabilities = static_cast<NSFileProviderItemCapabilities>(47);
  item->size = 5120;
  item->modified = item->created = Date(std::chrono::milliseconds(86400500));
  item->policy = NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
  item->version = NSFileProviderItemVersion{"86400-5120", "86400-5120"};
  return item;
}

constexpr const char* kReportJson =
    R"({"identifier":"/Docs/a.pdf","parentIdentifier":"/Docs","filename":"a.pdf",)"
    R"("contentType":"application/pdf","capabilities":47,"documentSize":5120,)"
    R"("contentModificationDate":"1970-01-02T00:00:00.500Z","creationDate":"1970-01-02T00:00:00.500Z",)"
    R"("contentPolicy":3,"contentVersion":"86400-5120","metadataVersion":"86400-5120"})";

NSErrorPtr noSuchItem() {
  return std::make_shared<NSFileProviderError>(NSFileProviderError::noSuchItem);
}

TEST(ConsoleCalls, AnItemAnsweredByATaskIsPrintedAfterTheReturn) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string& identifier, auto handler) {
    EXPECT_EQ(identifier, "/Docs/a.pdf");
    auto progress = std::make_shared<NSProgress>(1);
    inTask([handler, progress] {
      handler(reportItem(), nullptr);
      progress->setCompletedUnitCount(1);
    });
    return progress;
  };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"item","identifier":"/Docs/a.pdf"})"}),
      ElementsAre(R"({"id":1,"event":"returned","seq":1,"progress":{"total":1,"completed":0}})",
                  std::string(R"({"id":1,"event":"completion","seq":2,"thread":"task","item":)") +
                      kReportJson + R"(,"error":null,"progress":{"total":1,"completed":0}})",
                  R"({"id":1,"event":"settled","seq":3,"progress":{"total":1,"completed":1}})"));
}

TEST(ConsoleCalls, AnAnswerBeforeTheReturnShowsTheProgressAsItStood) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string&, auto handler) {
    auto progress = std::make_shared<NSProgress>(1);
    handler(nullptr, noSuchItem());
    progress->setCompletedUnitCount(1);
    return progress;
  };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":"a","op":"item","identifier":"/x"})"}),
      ElementsAre(
          R"({"id":"a","event":"completion","seq":1,"thread":"caller","item":null,"error":{"domain":"NSFileProviderErrorDomain","code":-1005,"description":"The file doesn’t exist."},"progress":{"total":1,"completed":0}})",
          R"({"id":"a","event":"returned","seq":2,"progress":{"total":1,"completed":1}})",
          R"({"id":"a","event":"settled","seq":3,"progress":{"total":1,"completed":1}})"));
}

TEST(ConsoleCalls, AnAnswerBeforeAnyProgressIsMadeShowsNone) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string&, auto handler) {
    handler(nullptr, nullptr);
    return std::make_shared<NSProgress>(1);
  };
  EXPECT_THAT(consoleLines(extension, {R"({"id":1,"op":"item","identifier":"/x"})"}).at(0),
              HasSubstr(R"("error":null,"progress":null})"));
}

TEST(ConsoleCalls, IdsOfAnyKindAreEchoed) {
  auto extension = std::make_shared<FakeExtension>();
  for (const std::string id : {"null", "true", "-1", "1.5", R"("é\n")", R"([1,{"a":[]}])",
                               R"({"b":1,"a":2})", "18446744073709551615"}) {
    const auto lines = consoleLines(extension, {R"({"op":"invalidate","id":)" + id + "}"});
    ASSERT_EQ(lines.size(), 1U) << id;
    EXPECT_EQ(Json::parse(lines[0])["id"], Json::parse(id));
  }
  EXPECT_EQ(extension->invalidations, 8);
}

TEST(ConsoleCalls, FetchContentsPrintsFileAndItem) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onFetchContents = [](const std::string& identifier, auto handler) {
    auto progress = std::make_shared<NSProgress>(100);
    inTask([identifier, handler, progress] {
      progress->setCompletedUnitCount(100);
      handler("/tmp/4711", std::make_shared<FakeItem>(identifier, "/", "b"), nullptr);
    });
    return progress;
  };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"fetchContents","identifier":"/b"})"}),
      ElementsAre(
          R"({"id":1,"event":"returned","seq":1,"progress":{"total":100,"completed":0}})",
          R"({"id":1,"event":"completion","seq":2,"thread":"task","url":"/tmp/4711","item":{"identifier":"/b","parentIdentifier":"/","filename":"b","contentType":null,"capabilities":null,"documentSize":null,"contentModificationDate":null,"creationDate":null,"contentPolicy":0,"contentVersion":null,"metadataVersion":null},"error":null,"progress":{"total":100,"completed":100}})",
          R"({"id":1,"event":"settled","seq":3,"progress":{"total":100,"completed":100}})"));
}

TEST(ConsoleCalls, FetchPartialContentsPassesItsNumbersOn) {
  auto extension = std::make_shared<FakeFullExtension>();
  extension->onFetchPartial = [](const std::string& identifier, NSRange range,
                                 std::int64_t alignment, auto handler) {
    EXPECT_EQ(identifier, "/big");
    EXPECT_EQ(range, (NSRange{9007199254740993, -1}));
    EXPECT_EQ(alignment, 4096);
    auto progress = std::make_shared<NSProgress>(7);
    handler(std::nullopt, nullptr, NSRange{4096, 8192},
            NSFileProviderMaterializationFlags::knownSparseRanges, nullptr);
    return progress;
  };
  EXPECT_EQ(
      consoleLines(
          extension,
          {R"({"id":1,"op":"fetchPartialContents","identifier":"/big","location":9007199254740993,"length":-1,"alignment":4096})"})
          .at(0),
      R"({"id":1,"event":"completion","seq":1,"thread":"caller","url":null,"item":null,"location":4096,"length":8192,"flags":1,"error":null,"progress":{"total":7,"completed":0}})");
}

TEST(ConsoleCalls, CreateItemDescribesTheNewItem) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onCreateItem = [](const NSFileProviderItemPtr& item, NSFileProviderItemFields fields,
                               const auto& url, auto handler) {
    EXPECT_EQ(item->parentItemIdentifier(), "/Docs");
    EXPECT_EQ(item->filename(), "new");
    EXPECT_EQ(item->contentType(), UTType::folder());
    EXPECT_EQ(item->documentSize(), std::nullopt);
    EXPECT_EQ(static_cast<std::uint32_t>(fields), 7U);
    EXPECT_EQ(url, std::filesystem::path("/tmp/contents"));
    handler(nullptr, NSFileProviderItemFields::filename, true, nullptr);
    return std::make_shared<NSProgress>(1);
  };
  EXPECT_EQ(
      consoleLines(
          extension,
          {R"({"id":1,"op":"createItem","parent":"/Docs","filename":"new","contentType":"folder","contents":"/tmp/contents"})"})
          .at(0),
      R"({"id":1,"event":"completion","seq":1,"thread":"caller","item":null,"pendingFields":2,"shouldFetchContent":true,"error":null,"progress":null})");
}

TEST(ConsoleCalls, ATemplateDoesNotAnswerToWhatWasNotGiven) {
  auto extension = std::make_shared<FakeExtension>();
  int calls = 0;
  extension->onCreateItem = [&](const NSFileProviderItemPtr& item, NSFileProviderItemFields fields,
                                const auto& url, auto handler) {
    ++calls;
    EXPECT_EQ(item->contentType(), std::nullopt);
    EXPECT_EQ(static_cast<std::uint32_t>(fields), 6U);
    EXPECT_EQ(url, std::nullopt);
    handler(nullptr, NSFileProviderItemFields::none, false, nullptr);
    return std::make_shared<NSProgress>(1);
  };
  consoleLines(
      extension,
      {R"({"id":1,"op":"createItem","parent":"/","filename":"f"})",
       R"({"id":2,"op":"createItem","parent":"/","filename":"f","contentType":null,"contents":null})"});
  EXPECT_EQ(calls, 2);
}

TEST(ConsoleCalls, ModifyItemPassesTheNewStateAndTheFields) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onModifyItem = [](const NSFileProviderItemPtr& item, NSFileProviderItemFields fields,
                               const auto& contents, auto handler) {
    EXPECT_EQ(item->itemIdentifier(), "/a");
    EXPECT_EQ(item->parentItemIdentifier(), "/Docs");
    EXPECT_EQ(item->filename(), "b");
    EXPECT_EQ(item->contentType(), UTType::named("text/plain"));
    EXPECT_EQ(item->documentSize(), 12);
    EXPECT_EQ(static_cast<std::uint32_t>(fields), 1025U);
    EXPECT_EQ(contents, std::filesystem::path("c"));
    handler(reportItem(), NSFileProviderItemFields::none, false, nullptr);
    return std::make_shared<NSProgress>(1);
  };
  const auto lines = consoleLines(
      extension,
      {R"({"id":1,"op":"modifyItem","identifier":"/a","parent":"/Docs","filename":"b","changedFields":1025,"contentType":"text/plain","documentSize":12,"contents":"c"})"});
  EXPECT_EQ(lines.at(0),
            std::string(R"({"id":1,"event":"completion","seq":1,"thread":"caller","item":)") +
                kReportJson +
                R"(,"pendingFields":0,"shouldFetchContent":false,"error":null,"progress":null})");
}

TEST(ConsoleCalls, DeleteItemAndPerformActionPrintTheirError) {
  auto extension = std::make_shared<FakeFullExtension>();
  extension->onDeleteItem = [](const std::string& identifier, auto handler) {
    EXPECT_EQ(identifier, "/a");
    handler(nullptr);
    return std::make_shared<NSProgress>(1);
  };
  extension->onAction = [](const std::string& action, const std::vector<std::string>& items,
                           auto handler) {
    EXPECT_EQ(action, "com.example.download-now");
    EXPECT_THAT(items, ElementsAre("/a", "/b"));
    handler(std::make_shared<NSFileProviderError>(NSFileProviderError::providerNotFound));
    return std::make_shared<NSProgress>(2);
  };
  ConsoleHarness console(extension);
  console.send(R"({"id":1,"op":"deleteItem","identifier":"/a"})");
  EXPECT_EQ(
      console.lineWith(R"("completion")"),
      R"({"id":1,"event":"completion","seq":1,"thread":"caller","error":null,"progress":null})");
  console.send(
      R"({"id":2,"op":"performAction","action":"com.example.download-now","items":["/a","/b"]})");
  EXPECT_THAT(console.lineWith(R"({"id":2,"event":"completion")"), HasSubstr(R"("code":-2001)"));
}

TEST(ConsoleCalls, TasksBeginOnlyWhenTheReturnIsPrinted) {
  auto extension = std::make_shared<FakeExtension>();
  std::promise<void> letReturn;
  auto mayReturn = letReturn.get_future().share();
  std::atomic<bool> hasBegun = false;
  std::promise<void> called;
  extension->onItem = [&](const std::string&, auto handler) {
    inTask([&hasBegun, handler] {
      hasBegun = true;
      handler(nullptr, nullptr);
    });
    called.set_value();
    mayReturn.wait();
    return std::make_shared<NSProgress>(1);
  };
  ConsoleHarness console(extension);
  console.send(R"({"id":1,"op":"item","identifier":"/x"})");
  called.get_future().wait();
  EXPECT_FALSE(hasBegun);
  letReturn.set_value();
  const auto lines = console.finish();
  EXPECT_THAT(lines.at(0), HasSubstr("returned"));
  EXPECT_THAT(lines.at(1), HasSubstr(R"("thread":"task")"));
}

TEST(ConsoleCalls, SettledComesAfterTheTaskAndAfterTheStatusStore) {
  auto extension = std::make_shared<FakeExtension>();
  std::promise<void> letTaskEnd, letDrain;
  auto taskMayEnd = letTaskEnd.get_future().share();
  auto mayDrain = letDrain.get_future().share();
  extension->onItem = [&](const std::string&, auto handler) {
    inTask([handler, taskMayEnd] {
      handler(nullptr, nullptr);
      taskMayEnd.wait();
      Logger("sub", "cat").write(LogLevel::standard, "after the handler");
    });
    return std::make_shared<NSProgress>(1);
  };
  std::promise<void> draining;
  auto hasBegunToDrain = draining.get_future();
  ConsoleHarness console(extension, {}, [&] {
    draining.set_value();
    mayDrain.wait();
  });
  console.send(R"({"id":1,"op":"item","identifier":"/x"})");
  console.lineWith("completion");
  EXPECT_EQ(hasBegunToDrain.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  letTaskEnd.set_value();
  ASSERT_EQ(hasBegunToDrain.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(console.hasLineWith("after the handler"));
  EXPECT_FALSE(console.hasLineWith("settled"));
  letDrain.set_value();
  const auto lines = console.finish();
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_THAT(lines[2], HasSubstr("after the handler"));
  EXPECT_THAT(lines[3], HasSubstr("settled"));
}

TEST(ConsoleCalls, AnAnswerFromElsewhereIsWaitedForAfterTheTasksHaveEnded) {
  auto extension = std::make_shared<FakeExtension>();
  std::promise<FakeExtension::ItemHandler> given;
  extension->onItem = [&](const std::string&, auto handler) {
    given.set_value(handler);
    return std::make_shared<NSProgress>(1);
  };
  ConsoleHarness console(extension);
  console.send(R"({"id":1,"op":"item","identifier":"/x"})");
  console.lineWith("returned");
  console.closeInput();
  EXPECT_FALSE(console.hasEnded());
  EXPECT_FALSE(console.hasLineWith("settled"));
  std::thread([handler = given.get_future().get()] { handler(nullptr, nullptr); }).join();
  const auto lines = console.finish();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[1], HasSubstr(R"("thread":"task")"));
  EXPECT_THAT(lines[2], HasSubstr("settled"));
}

TEST(ConsoleCalls, ASecondCompletionIsPrintedLikeTheFirst) {
  auto extension = std::make_shared<FakeExtension>();
  FakeExtension::ItemHandler kept;
  const auto progress = std::make_shared<NSProgress>(1);
  extension->onItem = [&](const std::string&, auto handler) {
    kept = handler;
    inTask([handler] {
      handler(nullptr, nullptr);
      handler(nullptr, noSuchItem());
    });
    return progress;
  };
  ConsoleHarness console(extension);
  console.send(R"({"id":1,"op":"item","identifier":"/x"})");
  console.lineWith("settled");
  kept(nullptr, noSuchItem());
  kept = nullptr;
  const auto lines = console.finish();
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_THAT(lines[2],
              HasSubstr(R"("event":"completion","seq":3,"thread":"task","item":null,"error":{)"));
  EXPECT_THAT(lines[3], HasSubstr("settled"));
  EXPECT_THAT(lines[4],
              HasSubstr(R"("event":"completion","seq":5,"thread":"task","item":null,"error":{)"));
  EXPECT_THAT(lines[4], HasSubstr(R"("progress":{"total":1,"completed":0})"));
}

TEST(ConsoleCalls, ACallWhoseHandlerIsDroppedEndsWithoutAnAnswer) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string&, auto handler) {
    inTask([handler] {});
    return std::make_shared<NSProgress>(1);
  };
  EXPECT_THAT(consoleLines(extension, {R"({"id":1,"op":"item","identifier":"/x"})"}),
              ElementsAre(HasSubstr("returned"), HasSubstr("settled")));
}

FakeExtension::Progress moveInTask(FakeExtension::ItemHandler handler) {
  auto progress = std::make_shared<NSProgress>(100);
  inTask([progress, handler = std::move(handler)] {
    progress->setCompletedUnitCount(40);
    progress->setCompletedUnitCount(40);
    progress->setTotalUnitCount(80);
    handler(nullptr, nullptr);
    progress->setCompletedUnitCount(80);
  });
  return progress;
}

TEST(ConsoleCalls, AWatchedCallPrintsEveryChangeOfItsProgress) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string&, auto handler) { return moveInTask(handler); };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"item","identifier":"/x","watch":true})"}),
      ElementsAre(R"({"id":1,"event":"returned","seq":1,"progress":{"total":100,"completed":0}})",
                  R"({"id":1,"event":"progress","seq":2,"progress":{"total":100,"completed":40}})",
                  R"({"id":1,"event":"progress","seq":3,"progress":{"total":80,"completed":40}})",
                  HasSubstr(R"("progress":{"total":80,"completed":40}})"),
                  R"({"id":1,"event":"progress","seq":5,"progress":{"total":80,"completed":80}})",
                  R"({"id":1,"event":"settled","seq":6,"progress":{"total":80,"completed":80}})"));
}

TEST(ConsoleCalls, ACallThatIsNotWatchedPrintsNoProgress) {
  auto extension = std::make_shared<FakeExtension>();
  extension->onItem = [](const std::string&, auto handler) { return moveInTask(handler); };
  for (const auto* watch : {"", R"(,"watch":false)"}) {
    const auto lines = consoleLines(
        extension, {std::string(R"({"id":1,"op":"item","identifier":"/x")") + watch + "}"});
    EXPECT_THAT(lines, testing::Each(Not(HasSubstr(R"("event":"progress")"))));
    EXPECT_EQ(lines.size(), 3U);
  }
}

TEST(ConsoleCalls, CancelReachesEveryOpenCallOfThatId) {
  auto extension = std::make_shared<FakeExtension>();
  std::vector<FakeExtension::Progress> made;
  extension->onItem = [&](const std::string&, const auto& handler) {
    auto progress = std::make_shared<NSProgress>(1);
    progress->setCancellationHandler([handler] { handler(nullptr, CancellationError().share()); });
    made.push_back(progress);
    return progress;
  };
  ConsoleHarness console(extension);
  console.send(R"({"id":[1],"op":"item","identifier":"/x"})");
  console.send(R"({"id":[1],"op":"item","identifier":"/x"})");
  console.send(R"({"id":2,"op":"item","identifier":"/x"})");
  console.send(R"({"id":"c","op":"cancel","for":[1]})");
  console.send(R"({"id":"w","op":"wait","for":[1]})");
  console.lineWith(R"({"id":"w","event":"completion")");
  EXPECT_TRUE(made.at(0)->isCancelled());
  EXPECT_TRUE(made.at(1)->isCancelled());
  EXPECT_FALSE(made.at(2)->isCancelled());
  console.send(R"({"id":"d","op":"cancel","for":2})");
  const auto lines = console.finish();
  EXPECT_THAT(
      lines, testing::Contains(HasSubstr(R"("domain":"NSCocoaErrorDomain","code":3072)")).Times(3));
  EXPECT_THAT(lines, testing::Contains(StartsWith(R"({"id":"c","event":"completion",)")));
}

TEST(ConsoleCalls, CancelOfWhatIsNotOpenDoesNothing) {
  EXPECT_THAT(consoleLines(std::make_shared<FakeExtension>(),
                           {R"({"id":1,"op":"cancel","for":"nothing"})"}),
              ElementsAre(R"({"id":1,"event":"completion","seq":1})"));
}

}  // namespace
}  // namespace kestrune
