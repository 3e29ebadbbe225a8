#include "host/launch/LaunchedEnumerator.h"

#include <gtest/gtest.h>

#include "host/launch/LaunchedExtension.h"
#include "host/launch/test/MortalExtension.h"

namespace kestrune::host::test {
namespace {

using Words = std::vector<std::string>;

// Writes down what is reported.
class Noting final : public NSFileProviderEnumerationObserver, public NSFileProviderChangeObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override { note("+", items); }
  void didUpdateItems(std::vector<NSFileProviderItemPtr> items) override { note("+", items); }
  void didDeleteItemsWithIdentifiers(Words identifiers) override {
    for (const auto& identifier : identifiers) heard.push_back("-" + identifier);
  }
  void finishEnumeratingUpToPage(std::optional<std::string> page) override {
    heard.push_back("end " + page.value_or("none"));
  }
  void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool more) override {
    heard.push_back("end " + anchor + (more ? " more" : ""));
  }
  void finishEnumeratingWithError(NSErrorPtr failure) override {
    heard.emplace_back("error");
    error = std::move(failure);
  }
  Words heard;
  NSErrorPtr error;

 private:
  void note(const std::string& sign, const std::vector<NSFileProviderItemPtr>& items) {
    for (const auto& item : items) heard.push_back(sign + item->itemIdentifier());
  }
};

class LaunchedEnumeratorTest : public testing::Test {
 protected:
  void askItems() { enumerator->enumerateItems(observer, "page"); }
  void askChanges() { enumerator->enumerateChanges(observer, "since"); }
  void askAnchor() {
    enumerator->currentSyncAnchor([this, held = held](std::optional<std::string> told) {
      ++anchors;
      anchor = std::move(told);
    });
  }

  const std::shared_ptr<MortalSource> source = std::make_shared<MortalSource>();
  const std::shared_ptr<NSFileProviderEnumerator> enumerator =
      makeLaunchedExtension(source, {})->enumerator("folder", {});
  const std::shared_ptr<Noting> observer = std::make_shared<Noting>();
  std::shared_ptr<int> held = std::make_shared<int>(0);
  int anchors = 0;
  std::optional<std::string> anchor;
};

TEST_F(LaunchedEnumeratorTest, AsksNobodyBeforeItIsAsked) {
  EXPECT_EQ(source->started, 0);
  enumerator->invalidate();
  EXPECT_EQ(source->started, 0);
}

TEST_F(LaunchedEnumeratorTest, ItemsAreReportedOnceAndInOrder) {
  askItems();
  source->killInCall();
  source->killInCall();
  ASSERT_EQ(source->count(), 3U);
  EXPECT_EQ(source->last().identifier, "page");
  EXPECT_EQ(observer->heard, Words());
  const auto told = std::exchange(source->last().items, nullptr);
  told->didEnumerateItems({anItem("a"), anItem("b")});
  told->didEnumerateItems({anItem("c")});
  told->finishEnumeratingUpToPage("next");
  EXPECT_EQ(observer->heard, (Words{"+a", "+b", "+c", "end next"}));
  EXPECT_EQ(source->enumerators, (Words{"folder", "folder", "folder"}));
}

TEST_F(LaunchedEnumeratorTest, ChangesAreReportedOnceAndInOrder) {
  askChanges();
  source->killInCall();
  ASSERT_EQ(source->count(), 2U);
  EXPECT_EQ(source->last().identifier, "since");
  const auto told = std::exchange(source->last().changes, nullptr);
  told->didUpdateItems({anItem("a")});
  told->didDeleteItemsWithIdentifiers({"b"});
  told->didUpdateItems({anItem("c")});
  told->finishEnumeratingChangesUpToSyncAnchor("now", true);
  EXPECT_EQ(observer->heard, (Words{"+a", "-b", "+c", "end now more"}));
}

TEST_F(LaunchedEnumeratorTest, OtherErrorsArePassedOn) {
  askItems();
  const auto error = boundary::test::someError();
  std::exchange(source->last().items, nullptr)->finishEnumeratingWithError(error);
  EXPECT_EQ(observer->error, error);
  askChanges();
  observer->error = nullptr;
  std::exchange(source->last().changes, nullptr)->finishEnumeratingWithError(error);
  EXPECT_EQ(observer->error, error);
  EXPECT_EQ(source->count(), 2U);
  EXPECT_EQ(observer->heard, (Words{"error", "error"}));
}

TEST_F(LaunchedEnumeratorTest, WhatKillsEverybodyFailsInTheEnd) {
  for (const bool changes : {false, true}) {
    changes ? askChanges() : askItems();
    observer->heard.clear();
    source->started = 1;
    for (int death = 1; death < RepeatedCall::kMostInterruptions; ++death) source->killInCall();
    EXPECT_EQ(observer->heard, Words());
    source->killInCall();
    EXPECT_EQ(source->started, RepeatedCall::kMostInterruptions);
    EXPECT_EQ(observer->heard, Words{"error"});
    EXPECT_TRUE(observer->error && isInterruption(*observer->error));
    source->started = 0;
  }
}

TEST_F(LaunchedEnumeratorTest, WithoutAnExtensionTheReasonIsTheAnswer) {
  source->refusal = boundary::test::someError();
  askItems();
  EXPECT_EQ(observer->error, source->refusal);
  askChanges();
  EXPECT_EQ(observer->heard, (Words{"error", "error"}));
  askAnchor();
  EXPECT_EQ(anchors, 1);
  EXPECT_EQ(anchor, std::nullopt);
}

TEST_F(LaunchedEnumeratorTest, WhyTheExtensionHasNoEnumeratorIsTheAnswer) {
  source->noEnumerator = boundary::test::someError();
  askItems();
  ASSERT_TRUE(observer->error);
  EXPECT_EQ(observer->error->code(), source->noEnumerator->code());
  EXPECT_EQ(source->count(), 0U);
}

TEST_F(LaunchedEnumeratorTest, AnAnchorThatIsNoneBecauseNobodyIsLeftIsAskedForAgain) {
  askAnchor();
  source->killInCall();
  source->killInCall();
  EXPECT_EQ(anchors, 0);
  ASSERT_EQ(source->count(), 3U);
  std::exchange(source->last().anchor, nullptr)("here");
  EXPECT_EQ(anchors, 1);
  EXPECT_EQ(anchor, "here");
}

TEST_F(LaunchedEnumeratorTest, AnAnchorThatIsNoneIsTheAnswerOfOneThatRuns) {
  askAnchor();
  std::exchange(source->last().anchor, nullptr)(std::nullopt);
  EXPECT_EQ(anchors, 1);
  EXPECT_EQ(anchor, std::nullopt);
  EXPECT_EQ(source->count(), 1U);
}

TEST_F(LaunchedEnumeratorTest, AnAnchorOfOneThatDiedAfterwardsIsTheAnswer) {
  askAnchor();
  source->kill();
  std::exchange(source->last().anchor, nullptr)("here");
  EXPECT_EQ(anchors, 1);
  EXPECT_EQ(anchor, "here");
}

TEST_F(LaunchedEnumeratorTest, AnAnchorThatKillsEverybodyIsNone) {
  askAnchor();
  for (int death = 1; death < RepeatedCall::kMostInterruptions; ++death) source->killInCall();
  EXPECT_EQ(anchors, 0);
  source->killInCall();
  EXPECT_EQ(anchors, 1);
  EXPECT_EQ(anchor, std::nullopt);
  EXPECT_EQ(source->started, RepeatedCall::kMostInterruptions);
}

TEST_F(LaunchedEnumeratorTest, HoldsTheExtensionUntilItIsAnswered) {
  askItems();
  askChanges();
  askAnchor();
  EXPECT_EQ(source->uses(), 3U);
  for (const auto& call : source->calls) call->drop();
  EXPECT_EQ(source->uses(), 0U);
}

TEST_F(LaunchedEnumeratorTest, WhatTheExtensionDropsIsLetGo) {
  askItems();
  askChanges();
  askAnchor();
  EXPECT_GT(observer.use_count(), 1);
  EXPECT_GT(held.use_count(), 1);
  for (const auto& call : source->calls) call->drop();
  EXPECT_EQ(observer.use_count(), 1);
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(observer->heard, Words());
}

TEST_F(LaunchedEnumeratorTest, OneExtensionIsAskedForOneEnumerator) {
  askItems();
  askChanges();
  EXPECT_EQ(source->enumerators.size(), 1U);
  enumerator->invalidate();
  EXPECT_EQ(source->invalidated, 1);
  enumerator->invalidate();
  EXPECT_EQ(source->invalidated, 1);
}

}  // namespace
}  // namespace kestrune::host::test
