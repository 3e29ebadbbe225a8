// Enumerators on both sides of the boundary: folders of any size, changes in their order, refusals.
#include <gtest/gtest.h>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

using testing::_;
using testing::Invoke;
using testing::Return;

// What an observer heard, in its order; every call after the last one fails the test.
struct Heard {
  std::vector<std::string> calls;
  std::vector<NSFileProviderItemPtr> items;
  NSErrorPtr error;
};

class Observer : public NSFileProviderEnumerationObserver, public NSFileProviderChangeObserver {
 public:
  explicit Observer(std::function<void(Heard)> ended) : ended_(std::move(ended)) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    note("items", items);
  }
  void didUpdateItems(std::vector<NSFileProviderItemPtr> items) override { note("updated", items); }
  void didDeleteItemsWithIdentifiers(std::vector<std::string> identifiers) override {
    std::string call = "deleted";
    for (const auto& each : identifiers) call += " " + each;
    heard_.calls.push_back(call);
  }
  void finishEnumeratingUpToPage(std::optional<std::string> page) override {
    end(page ? "page " + *page : "no page");
  }
  void finishEnumeratingChangesUpToSyncAnchor(std::string anchor, bool more) override {
    end("anchor " + anchor + (more ? " more" : ""));
  }
  void finishEnumeratingWithError(NSErrorPtr error) override {
    heard_.error = std::move(error);
    end("error");
  }

 private:
  void note(const std::string& call, std::vector<NSFileProviderItemPtr>& items) {
    heard_.calls.push_back(call + " " + std::to_string(items.size()));
    for (auto& item : items) heard_.items.push_back(std::move(item));
  }
  void end(const std::string& call) {
    heard_.calls.push_back(call);
    ended_(heard_);
  }
  const std::function<void(Heard)> ended_;
  Heard heard_;
};

class EnumerationTest : public ProtocolTest {
 protected:
  EnumerationTest() {
    ON_CALL(*extension, enumerator("folder", _)).WillByDefault(Return(enumerator));
  }
  ~EnumerationTest() override {
    disconnect();
    testing::Mock::VerifyAndClear(extension.get());  // it returns the enumerator, and so holds it
    waitUntilAlone(enumerator);
  }
  std::shared_ptr<NSFileProviderEnumerator> seen() {
    EXPECT_CALL(*extension, enumerator("folder", _)).Times(1);
    return host().enumerator("folder", request);
  }
  Heard listed(NSFileProviderEnumerator& from, const std::string& page) {
    Told<Heard> told;
    from.enumerateItems(std::make_shared<Observer>(told.handler()), page);
    return std::get<0>(told.wait());
  }
  Heard changed(NSFileProviderEnumerator& from, const std::string& anchor) {
    Told<Heard> told;
    from.enumerateChanges(std::make_shared<Observer>(told.handler()), anchor);
    return std::get<0>(told.wait());
  }

  const std::shared_ptr<MockEnumerator> enumerator = std::make_shared<MockEnumerator>();
};

TEST_P(EnumerationTest, AHundredThousandItemsAtOnceArriveAsTheyWere) {
  std::vector<NSFileProviderItemPtr> items;
  for (int i = 0; i < 100'000; ++i) items.push_back(TestItem::make(ItemValues::random(generator)));
  EXPECT_CALL(*enumerator, enumerateItems(_, "page")).WillOnce(Invoke([&](auto&& to, auto&&) {
    to->didEnumerateItems(items);
    to->finishEnumeratingUpToPage(std::nullopt);
  }));
  const Heard heard = listed(*seen(), "page");
  EXPECT_EQ(heard.calls, (std::vector<std::string>{"items 100000", "no page"}));
  ASSERT_EQ(heard.items.size(), items.size());
  for (std::size_t i = 0; i < items.size(); ++i)
    ASSERT_EQ(ItemValues::of(*heard.items[i]), ItemValues::of(*items[i])) << i;
}

TEST_P(EnumerationTest, PagesAndEmptyFoldersEndAsTheExtensionSays) {
  EXPECT_CALL(*enumerator, enumerateItems(_, "first")).WillOnce(Invoke([](auto&& to, auto&&) {
    to->finishEnumeratingUpToPage("second");
  }));
  EXPECT_CALL(*enumerator, enumerateItems(_, "second")).WillOnce(Invoke([](auto&& to, auto&&) {
    to->finishEnumeratingWithError(someError());
  }));
  const auto folder = seen();
  EXPECT_EQ(listed(*folder, "first").calls, std::vector<std::string>{"page second"});
  const Heard heard = listed(*folder, "second");
  EXPECT_EQ(heard.calls, std::vector<std::string>{"error"});
  EXPECT_TRUE(same(heard.error, someError()));
}

TEST_P(EnumerationTest, ChangesKeepTheOrderInWhichTheyWereReported) {
  EXPECT_CALL(*enumerator, enumerateChanges(_, "since")).WillOnce(Invoke([](auto&& to, auto&&) {
    to->didDeleteItemsWithIdentifiers({"a", "b"});
    to->didUpdateItems({TestItem::make({.identifier = "a"})});
    to->didDeleteItemsWithIdentifiers({"c"});
    to->finishEnumeratingChangesUpToSyncAnchor("until", true);
  }));
  const Heard heard = changed(*seen(), "since");
  EXPECT_EQ(heard.calls, (std::vector<std::string>{"deleted a b", "updated 1", "deleted c",
                                                   "anchor until more"}));
}

TEST_P(EnumerationTest, ManyDeletionsArrive) {
  std::vector<std::string> identifiers;
  std::string call = "deleted";
  for (int i = 0; i < 5'000; ++i) {
    identifiers.push_back(std::to_string(i));
    call += " " + identifiers.back();
  }
  EXPECT_CALL(*enumerator, enumerateChanges).WillOnce(Invoke([&](auto&& to, auto&&) {
    to->didDeleteItemsWithIdentifiers(identifiers);
    to->finishEnumeratingChangesUpToSyncAnchor("until", false);
  }));
  EXPECT_EQ(changed(*seen(), "since").calls, (std::vector<std::string>{call, "anchor until"}));
}

TEST_P(EnumerationTest, AnchorsAreToldWhereThereAreAny) {
  EXPECT_CALL(*enumerator, currentSyncAnchor)
      .WillOnce(Invoke([](auto&& handler) {
        handler(
            "an\xff"
            "chor");
      }))
      .WillOnce(Invoke([](auto&& handler) { handler(std::nullopt); }));
  const auto folder = seen();
  for (const auto& expected : {std::optional<std::string>("an\xff"
                                                          "chor"),
                               std::optional<std::string>()}) {
    Told<std::optional<std::string>> told;
    folder->currentSyncAnchor(told.handler());
    EXPECT_EQ(std::get<0>(told.wait()), expected);
  }
}

TEST_P(EnumerationTest, AnObserverThatIsForgottenIsLetGo) {
  EXPECT_CALL(*enumerator, enumerateItems).WillOnce(Invoke([](auto&& to, auto&&) {
    to->didEnumerateItems({TestItem::make({})});
  }));
  const Told<Heard> told;
  const auto folder = seen();
  folder->enumerateItems(std::make_shared<Observer>(told.handler()), "page");
  EXPECT_TRUE(told.waitUntilLetGo());
  EXPECT_FALSE(told.wasCalled());
}

TEST_P(EnumerationTest, TheEndIsPassedOn) {
  std::promise<void> ended;
  EXPECT_CALL(*enumerator, invalidate).WillOnce(Invoke([&] { ended.set_value(); }));
  seen()->invalidate();
  EXPECT_EQ(ended.get_future().wait_for(kSoon), std::future_status::ready);
}

TEST_P(EnumerationTest, ARefusalIsToldAtTheLatestByTheFirstQuestion) {
  EXPECT_CALL(*extension, enumerator("folder", _)).WillOnce(Invoke([](auto&&, auto&&) {
    someError()->raise();
    return std::shared_ptr<NSFileProviderEnumerator>();
  }));
  NSErrorPtr error;
  try {
    error = listed(*host().enumerator("folder", {}), "page").error;
  } catch (const NSError& thrown) {
    error = thrown.share();
  }
  EXPECT_TRUE(same(error, someError()));
}

INSTANTIATE_TEST_SUITE_P(, EnumerationTest, kBothSides, nameOfSide);

}  // namespace
}  // namespace kestrune::boundary::test
