// What there is only across the boundary: the greeting, what the extension asks of its host, and the death of either side.
#include <gtest/gtest.h>
#include <kj/io.h>
#include <sys/resource.h>
#include <unistd.h>

#include <any>

#include "boundary/BoundaryError.h"
#include "boundary/Loop.h"
#include "boundary/Protocol.h"
#include "boundary/test/ProtocolHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary::test {
namespace {

using testing::_;
using testing::Invoke;

// Hears how an enumeration ended.
class Interrupted final : public NSFileProviderEnumerationObserver {
 public:
  explicit Interrupted(std::function<void(NSErrorPtr)> ended) : ended_(std::move(ended)) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr>) override {}
  void finishEnumeratingUpToPage(std::optional<std::string>) override { ended_(nullptr); }
  void finishEnumeratingWithError(NSErrorPtr error) override { ended_(std::move(error)); }

 private:
  const std::function<void(NSErrorPtr)> ended_;
};

class BoundaryTest : public testing::Test {
 protected:
  ~BoundaryTest() override {
    boundary.reset();
    waitUntilAlone(extension);
  }
  const std::shared_ptr<MockExtension> extension =
      std::make_shared<testing::NiceMock<MockExtension>>();
  std::optional<Boundary> boundary{std::in_place, extension};
};

TEST_F(BoundaryTest, TheGreetingTellsTheDomainAndWhatIsOffered) {
  EXPECT_EQ(boundary->greetingError, nullptr);
  EXPECT_EQ(boundary->greeting.offers, (Offers{true, true, true}));
  EXPECT_EQ(boundary->greeting.notEnforced, std::vector<std::string>{"no walls"});
  EXPECT_EQ(boundary->domainIdentifier, "home");
  EXPECT_EQ(boundary->domainName, "My \"files\"");
}

TEST_F(BoundaryTest, TheManagerIsTheHostsOwn) {
  EXPECT_CALL(*boundary->manager, evictItem("one", _)).WillOnce(Invoke([](auto&&, auto&& handler) {
    handler(someError());
  }));
  EXPECT_CALL(*boundary->manager, requestDownloadForItem("two", std::optional(NSRange{1, 2}), _))
      .WillOnce(Invoke([](auto&&, auto&&, auto&& handler) { handler(nullptr); }));
  EXPECT_CALL(*boundary->manager, requestDownloadForItem("three", std::optional<NSRange>(), _))
      .WillOnce(Invoke([](auto&&, auto&&, auto&& handler) { handler(nullptr); }));
  EXPECT_CALL(*boundary->manager, signalEnumerator("four", _))
      .WillOnce(Invoke([](auto&&, auto&& handler) { handler(nullptr); }));
  Told<NSErrorPtr> evicted;
  boundary->host.manager->evictItem("one", evicted.handler());
  EXPECT_TRUE(same(std::get<0>(evicted.wait()), someError()));
  Told<NSErrorPtr> part;
  boundary->host.manager->requestDownloadForItem("two", NSRange{1, 2}, part.handler());
  EXPECT_EQ(std::get<0>(part.wait()), nullptr);
  Told<NSErrorPtr> whole;
  boundary->host.manager->requestDownloadForItem("three", std::nullopt, whole.handler());
  EXPECT_EQ(std::get<0>(whole.wait()), nullptr);
  Told<NSErrorPtr> signalled;
  boundary->host.manager->signalEnumerator("four", signalled.handler());
  EXPECT_EQ(std::get<0>(signalled.wait()), nullptr);
}

TEST_F(BoundaryTest, AnActionMayAskTheHostBeforeItEnds) {
  EXPECT_CALL(*boundary->manager, evictItem).WillOnce(Invoke([](auto&&, auto&& handler) {
    handler(nullptr);
  }));
  EXPECT_CALL(*extension, performAction).WillOnce(Invoke([&](auto&&, auto&&, const auto& done) {
    boundary->host.manager->evictItem("x", done);
    return std::make_shared<NSProgress>(1);
  }));
  Told<NSErrorPtr> told;
  boundary->remote->performAction("free", {"x"}, told.handler());
  EXPECT_EQ(std::get<0>(told.wait()), nullptr);
}

TEST_F(BoundaryTest, APastedTextArrivesAndARefusalIsThrown) {
  boundary->host.pasteboard->replaceContents("link \xff");
  EXPECT_EQ(*boundary->pasted, "link \xff");
  EXPECT_THROW(boundary->host.pasteboard->replaceContents("refused"), NSError);
}

TEST_F(BoundaryTest, WhatIsOpenWhenTheProgramDiesFailsAsInterrupted) {
  std::promise<void> all;
  std::atomic<int> begun = 0;
  const auto begin = [&](auto&&... arguments) -> NSProgressPtr {
    // Kept: an extension that dies forgets nothing before.
    static std::vector<std::any> kept;
    (kept.emplace_back(arguments), ...);
    if (++begun == 3) all.set_value();
    return std::make_shared<NSProgress>(1);
  };
  EXPECT_CALL(*extension, item).WillOnce(Invoke(begin));
  EXPECT_CALL(*extension, createItem).WillOnce(Invoke(begin));
  EXPECT_CALL(*extension, streamContents).WillOnce(Invoke(begin));
  Told<NSFileProviderItemPtr, NSErrorPtr> item;
  Told<NSFileProviderItemPtr, NSFileProviderItemFields, bool, NSErrorPtr> created;
  Told<NSFileProviderItemPtr, NSErrorPtr> streamed;
  boundary->remote->item("x", {}, item.handler());
  boundary->remote->createItem(TestItem::make({}), {}, std::nullopt, {}, {}, created.handler());
  boundary->remote->streamContents(
      "x", {}, {}, {0, 1}, [](auto&&...) { return true; }, streamed.handler());
  all.get_future().wait();
  EXPECT_FALSE(boundary->remote->isGone());
  boundary->killProgram();
  EXPECT_TRUE(platform::isInterruption(*std::get<1>(item.wait())));
  EXPECT_TRUE(platform::isInterruption(*std::get<3>(created.wait())));
  EXPECT_TRUE(platform::isInterruption(*std::get<1>(streamed.wait())));
  EXPECT_TRUE(boundary->remote->isGone());
}

TEST_F(BoundaryTest, WhatBeginsAfterTheDeathFailsAsInterrupted) {
  boundary->killProgram();
  Told<NSFileProviderItemPtr, NSErrorPtr> item;
  boundary->remote->item("x", {}, item.handler());
  EXPECT_TRUE(platform::isInterruption(*std::get<1>(item.wait())));
  Told<std::optional<std::string>> anchor;
  boundary->remote->enumerator("x", {})->currentSyncAnchor(anchor.handler());
  EXPECT_EQ(std::get<0>(anchor.wait()), std::nullopt);
  EXPECT_TRUE(boundary->remote->isGone());
}

TEST_F(BoundaryTest, AnEnumerationThatWasInterruptedHasFoundThatTheProgramIsGone) {
  const auto folder = std::make_shared<testing::NiceMock<MockEnumerator>>();
  std::promise<void> asked;
  std::shared_ptr<NSFileProviderEnumerationObserver> kept;  // as an extension that dies keeps it
  EXPECT_CALL(*extension, enumerator).WillOnce(testing::Return(folder));
  EXPECT_CALL(*folder, enumerateItems).WillOnce(Invoke([&](auto&& observer, auto&&) {
    kept = observer;
    asked.set_value();
  }));
  Told<NSErrorPtr, bool> told;
  const auto seen = boundary->remote->enumerator("x", {});
  seen->enumerateItems(
      std::make_shared<Interrupted>([&, handler = told.handler()](NSErrorPtr error) {
        handler(std::move(error), boundary->remote->isGone());
      }),
      "page");
  asked.get_future().wait();
  boundary->killProgram();
  const auto [error, wasGone] = told.wait();
  EXPECT_TRUE(platform::isInterruption(*error));
  EXPECT_TRUE(wasGone) << "asked again, the same program would be asked";
  testing::Mock::VerifyAndClear(extension.get());
}

TEST_F(BoundaryTest, AnAnchorThatIsNotToldHasFoundThatTheProgramIsGone) {
  const auto folder = std::make_shared<testing::NiceMock<MockEnumerator>>();
  std::promise<void> asked;
  std::function<void(std::optional<std::string>)> kept;
  EXPECT_CALL(*extension, enumerator).WillOnce(testing::Return(folder));
  EXPECT_CALL(*folder, currentSyncAnchor).WillOnce(Invoke([&](auto&& handler) {
    kept = handler;
    asked.set_value();
  }));
  Told<std::optional<std::string>, bool> told;
  const auto seen = boundary->remote->enumerator("x", {});
  seen->currentSyncAnchor([&, handler = told.handler()](std::optional<std::string> anchor) {
    handler(std::move(anchor), boundary->remote->isGone());
  });
  asked.get_future().wait();
  boundary->killProgram();
  const auto [anchor, wasGone] = told.wait();
  EXPECT_EQ(anchor, std::nullopt);
  EXPECT_TRUE(wasGone);
  testing::Mock::VerifyAndClear(extension.get());
}

TEST_F(BoundaryTest, ADeathIsNoticedByWhoAsksNothing) {
  boundary->killProgram();
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (!boundary->remote->isGone() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(boundary->remote->isGone());
}

TEST_F(BoundaryTest, WhatAHandlerHoldsIsLetGoInNoLoop) {
  std::atomic<int> inALoop = 0;
  std::atomic<int> letGo = 0;
  const auto held = [&] {
    return std::shared_ptr<void>(nullptr, [&](void*) {
      if (Loop::isInside()) ++inALoop;
      ++letGo;
    });
  };
  constexpr int kTimes = 300;
  const auto answering = std::make_shared<testing::NiceMock<MockEnumerator>>();
  ON_CALL(*answering, currentSyncAnchor).WillByDefault(Invoke([](auto&& handler) {
    handler("anchor");
  }));
  EXPECT_CALL(*extension, enumerator).WillOnce(testing::Return(answering));
  const auto folder = boundary->remote->enumerator("x", {});
  for (int i = 0; i < kTimes; ++i) {
    folder->currentSyncAnchor([held = held()](auto&&) {});
    boundary->remote->greet({"d", "d"}, [held = held()](auto&&...) {});
  }
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (letGo < 2 * kTimes && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(letGo, 2 * kTimes);
  EXPECT_EQ(inALoop, 0);
  testing::Mock::VerifyAndClear(extension.get());
}

// Takes the items of one enumeration.
class ItemTaker final : public NSFileProviderEnumerationObserver {
 public:
  explicit ItemTaker(std::function<void(std::vector<NSFileProviderItemPtr>)> taken)
      : taken_(std::move(taken)) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    items_ = std::move(items);
  }
  void finishEnumeratingUpToPage(std::optional<std::string>) override { taken_(items_); }
  void finishEnumeratingWithError(NSErrorPtr) override { taken_({}); }

 private:
  const std::function<void(std::vector<NSFileProviderItemPtr>)> taken_;
  std::vector<NSFileProviderItemPtr> items_;
};

TEST_F(BoundaryTest, HowListedItemsAreKeptIsUnknownWhenNobodyIsLeftToAsk) {
  const auto kept = NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
  const auto enumerator = std::make_shared<testing::NiceMock<MockEnumerator>>();
  EXPECT_CALL(*enumerator, enumerateItems).Times(2).WillRepeatedly(Invoke([&](auto&& to, auto&&) {
    to->didEnumerateItems({TestItem::make({.identifier = "a", .policy = kept})});
    to->finishEnumeratingUpToPage(std::nullopt);
  }));
  EXPECT_CALL(*extension, enumerator).WillOnce(testing::Return(enumerator));
  const auto listed = [folder = boundary->remote->enumerator("x", {})] {
    Told<std::vector<NSFileProviderItemPtr>> told;
    folder->enumerateItems(std::make_shared<ItemTaker>(told.handler()), "page");
    return std::get<0>(told.wait()).at(0);
  };
  const auto asked = listed();
  const auto unasked = listed();
  EXPECT_EQ(asked->contentPolicy(), kept);
  boundary->killProgram();
  EXPECT_EQ(asked->contentPolicy(), kept);
  EXPECT_THROW(unasked->contentPolicy(), NSError);  // not "inherited", which would give it up
  testing::Mock::VerifyAndClear(extension.get());
  boundary.reset();
  waitUntilAlone(enumerator);
}

TEST_F(BoundaryTest, TheProgramHearsThatTheHostIsGone) {
  boundary->remote = nullptr;
  EXPECT_EQ(boundary->hostWent.get_future().wait_for(kSoon), std::future_status::ready);
  Told<NSErrorPtr> told;
  boundary->host.manager->evictItem("x", told.handler());
  EXPECT_TRUE(platform::isInterruption(*std::get<0>(told.wait())));
  EXPECT_THROW(boundary->host.pasteboard->replaceContents("x"), NSError);
}

TEST_F(BoundaryTest, AStreamThatFillsTheMemoryIsLetGoWhenTheHostIsGone) {
  std::promise<void> returned;
  EXPECT_CALL(*extension, streamContents)
      .WillOnce(Invoke([&](auto&&, auto&&, auto&&, auto&&, const auto& bytes, const auto& end) {
        std::thread([&returned, bytes, end] {
          const std::string piece(1 << 20, 'x');
          while (bytes(0, piece)) {
          }
          returned.set_value();
        }).detach();
        return std::make_shared<NSProgress>(1);
      }));
  std::promise<void> blocked;
  std::promise<void> goOn;
  std::shared_future<void> may = goOn.get_future().share();
  std::atomic<bool> isFirst = true;
  Told<NSFileProviderItemPtr, NSErrorPtr> ended;
  boundary->remote->streamContents(
      "x", {}, {}, {0, INT64_MAX},
      [&, may](auto&&...) {
        if (isFirst.exchange(false)) blocked.set_value();
        may.wait();  // a disk that takes nothing
        return true;
      },
      ended.handler());
  blocked.get_future().wait();
  boundary->remote = nullptr;
  auto end = returned.get_future();
  EXPECT_EQ(end.wait_for(kSoon), std::future_status::ready);
  goOn.set_value();
  ended.wait();  // after the pieces that were told before
}

TEST(Connecting, WithoutDescriptorsLeftItFailsAndTheHostLives) {
#if __has_feature(undefined_behavior_sanitizer)
  GTEST_SKIP() << "that sanitizer looks at objects by descriptors of its own";
#endif
  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  int failures = 0;
  for (rlim_t spare = 0; spare < 8; ++spare) {
    const auto [hostEnd, otherEnd] = socketPair();
    const kj::AutoCloseFd other(otherEnd);
    const kj::AutoCloseFd lowestFree(::dup(hostEnd));
    const rlimit few{static_cast<rlim_t>(lowestFree.get()) + 1 + spare, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    try {
      RemoteExtension::connect(hostEnd, {});
    } catch (const NSPOSIXError& error) {
      EXPECT_EQ(error.code(), EMFILE);
      ++failures;
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  }
  EXPECT_GT(failures, 0);
  EXPECT_LT(failures, 8);
}

TEST(Greeting, BytesThatAreNoMessagesAreAnInterruption) {
  const auto [hostEnd, otherEnd] = socketPair();
  const auto remote = RemoteExtension::connect(hostEnd, {});
  Told<Greeting, NSErrorPtr> told;
  remote->greet({"d", "d"}, told.handler());
  const std::string noise(4096, '\x7f');
  EXPECT_EQ(::write(otherEnd, noise.data(), noise.size()), static_cast<ssize_t>(noise.size()));
  ::close(otherEnd);
  EXPECT_NE(std::get<1>(told.wait()), nullptr);
}

TEST(Greeting, AnotherVersionIsRefusedByTheSideThatIsOlderAndTheOneThatIsNewer) {
  const auto older = versionMismatch(3, 2);
  EXPECT_EQ(older->code(), NSFileProviderError::olderExtensionVersionRunning);
  EXPECT_EQ(older->localizedDescription(),
            "the extension's program speaks version 2 of the protocol and the host version 3: the "
            "extension is older; install both from one release");
  const auto newer = versionMismatch(2, 3);
  EXPECT_EQ(newer->code(), NSFileProviderError::newerExtensionVersionFound);
  EXPECT_NE(newer->localizedDescription().find("the host is older"), std::string::npos);
}

}  // namespace
}  // namespace kestrune::boundary::test
