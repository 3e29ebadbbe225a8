// Enumerations and anchors.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/test/ConsoleHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"

namespace kestrune {
namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using Items = std::vector<NSFileProviderItemPtr>;

struct ConsoleEnumeration : testing::Test {
  ConsoleEnumeration() {
    extension->onEnumerator = [this](const std::string& container) {
      containers.push_back(container);
      return enumerator;
    };
  }

  std::shared_ptr<FakeEnumerator> enumerator = std::make_shared<FakeEnumerator>();
  std::shared_ptr<FakeExtension> extension = std::make_shared<FakeExtension>();
  std::vector<std::string> containers;
};

TEST_F(ConsoleEnumeration, ItemsComeFromTheTask) {
  enumerator->onItems = [](const auto& observer) {
    inTask([observer] {
      auto folder =
          std::make_shared<FakeItem>("/f", NSFileProviderRootContainerItemIdentifier, "f");
      folder->type = UTType::folder();
      observer->didEnumerateItems({folder});
      observer->finishEnumeratingUpToPage(std::nullopt);
    });
  };
  EXPECT_THAT(
      consoleLines(extension,
                   {R"({"id":1,"op":"enumerateItems","container":"/Docs","watch":true})"}),
      ElementsAre(
          R"({"id":1,"event":"returned","seq":1})",
          R"({"id":1,"event":"didEnumerateItems","seq":2,"thread":"task","items":[{"identifier":"/f","parentIdentifier":"NSFileProviderRootContainerItemIdentifier","filename":"f","contentType":"folder","capabilities":null,"documentSize":null,"contentModificationDate":null,"creationDate":null,"contentPolicy":0,"contentVersion":null,"metadataVersion":null}]})",
          R"({"id":1,"event":"finishEnumeratingUpToPage","seq":3,"thread":"task","nextPage":null})",
          R"({"id":1,"event":"settled","seq":4})"));
  EXPECT_THAT(containers, ElementsAre("/Docs"));
  EXPECT_EQ(enumerator->page, NSFileProviderInitialPageSortedByName);
  EXPECT_EQ(enumerator->invalidations, 1);
}

TEST_F(ConsoleEnumeration, AnEmptyContainerIsAnsweredBeforeTheReturn) {
  enumerator->onItems = [](const auto& observer) {
    observer->didEnumerateItems({});
    observer->finishEnumeratingUpToPage("next");
  };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"enumerateItems","container":"x"})"}),
      ElementsAre(
          R"({"id":1,"event":"didEnumerateItems","seq":1,"thread":"caller","items":[]})",
          R"({"id":1,"event":"finishEnumeratingUpToPage","seq":2,"thread":"caller","nextPage":"next"})",
          R"({"id":1,"event":"returned","seq":3})", R"({"id":1,"event":"settled","seq":4})"));
}

TEST_F(ConsoleEnumeration, AnErrorEndsIt) {
  enumerator->onItems = [](const auto& observer) {
    observer->finishEnumeratingWithError(std::make_shared<URLError>(URLError::timedOut));
  };
  EXPECT_EQ(
      consoleLines(extension, {R"({"id":1,"op":"enumerateItems","container":"x"})"}).at(0),
      R"({"id":1,"event":"finishEnumeratingWithError","seq":1,"thread":"caller","error":{"domain":"NSURLErrorDomain","code":-1001,"description":"The request timed out."}})");
}

TEST_F(ConsoleEnumeration, ACallAfterTheFinishIsPrinted) {
  enumerator->onItems = [](const auto& observer) {
    observer->finishEnumeratingUpToPage(std::nullopt);
    observer->didEnumerateItems({});
  };
  EXPECT_THAT(consoleLines(extension, {R"({"id":1,"op":"enumerateItems","container":"x"})"}),
              ElementsAre(HasSubstr("finishEnumeratingUpToPage"), HasSubstr("didEnumerateItems"),
                          HasSubstr("returned"), HasSubstr("settled")));
}

TEST_F(ConsoleEnumeration, ContainersWithoutAnEnumeratorAnswerWithTheirError) {
  extension->onEnumerator = [](const std::string&) -> std::shared_ptr<NSFileProviderEnumerator> {
    throw NSFileProviderError(NSFileProviderError::noSuchItem);
  };
  const auto lines = consoleLines(
      extension,
      {R"({"id":1,"op":"enumerateItems","container":"x"})", R"({"id":0,"op":"wait"})",
       R"({"id":2,"op":"enumerateChanges","container":"x","anchor":"a"})",
       R"({"id":0,"op":"wait"})", R"({"id":3,"op":"currentSyncAnchor","container":"x"})"});
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_THAT(lines[0], HasSubstr(R"({"id":1,"event":"finishEnumeratingWithError")"));
  EXPECT_THAT(lines[4], HasSubstr(R"({"id":2,"event":"finishEnumeratingWithError")"));
  EXPECT_THAT(
      lines[8],
      HasSubstr(
          R"({"id":3,"event":"completion","seq":9,"thread":"caller","anchor":null,"error":{)"));
}

TEST_F(ConsoleEnumeration, ChangesArePrintedInTheirOrder) {
  enumerator->onChanges = [](const auto& observer, const std::string& anchor) {
    EXPECT_EQ(anchor, "old");
    observer->didDeleteItemsWithIdentifiers({"/gone", "/away"});
    observer->didUpdateItems({nullptr});
    observer->finishEnumeratingChangesUpToSyncAnchor("new", true);
  };
  EXPECT_THAT(
      consoleLines(extension,
                   {R"({"id":1,"op":"enumerateChanges","container":"/","anchor":"old"})"}),
      ElementsAre(
          R"({"id":1,"event":"didDeleteItems","seq":1,"thread":"caller","identifiers":["/gone","/away"]})",
          R"({"id":1,"event":"didUpdateItems","seq":2,"thread":"caller","items":[null]})",
          R"({"id":1,"event":"finishEnumeratingChanges","seq":3,"thread":"caller","anchor":"new","moreComing":true})",
          R"({"id":1,"event":"returned","seq":4})", R"({"id":1,"event":"settled","seq":5})"));
}

TEST_F(ConsoleEnumeration, AnchorsMayBeAnyBytes) {
  enumerator->onChanges = [](const auto& observer, const std::string& anchor) {
    EXPECT_EQ(anchor, "\xFF\xFE");
    observer->finishEnumeratingChangesUpToSyncAnchor(anchor, false);
  };
  enumerator->onAnchor = [](const auto& handler) { handler("\x80"); };
  EXPECT_EQ(
      consoleLines(extension,
                   {R"({"id":1,"op":"enumerateChanges","container":"/","anchorBase64":"//4="})"})
          .at(0),
      R"({"id":1,"event":"finishEnumeratingChanges","seq":1,"thread":"caller","anchor":null,"anchorBase64":"//4=","moreComing":false})");
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"currentSyncAnchor","container":"/"})"}),
      ElementsAre(
          R"({"id":1,"event":"completion","seq":1,"thread":"caller","anchor":null,"anchorBase64":"gA=="})"));
}

TEST_F(ConsoleEnumeration, AnEmptyAnchorIsAnAnchor) {
  std::vector<std::string> anchors;
  enumerator->onChanges = [&](const auto& observer, const std::string& anchor) {
    anchors.push_back(anchor);
    observer->finishEnumeratingChangesUpToSyncAnchor(anchor, false);
  };
  consoleLines(extension,
               {R"({"id":1,"op":"enumerateChanges","container":"/","anchor":""})",
                R"({"id":2,"op":"enumerateChanges","container":"/","anchorBase64":""})"});
  EXPECT_THAT(anchors, ElementsAre("", ""));
}

TEST_F(ConsoleEnumeration, TheCurrentAnchorIsOneCompletionAndNothingMore) {
  enumerator->onAnchor = [](const auto& handler) { handler("token-1"); };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"currentSyncAnchor","container":"/"})"}),
      ElementsAre(R"({"id":1,"event":"completion","seq":1,"thread":"caller","anchor":"token-1"})"));
  enumerator->onAnchor = [](const auto& handler) { inTask([handler] { handler(std::nullopt); }); };
  EXPECT_THAT(
      consoleLines(extension, {R"({"id":1,"op":"currentSyncAnchor","container":"/"})"}),
      ElementsAre(R"({"id":1,"event":"completion","seq":1,"thread":"task","anchor":null})"));
  EXPECT_EQ(enumerator->invalidations, 2);
}

}  // namespace
}  // namespace kestrune
