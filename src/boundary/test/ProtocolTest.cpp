// What a host may rely on, whether the extension is in its own process or behind the boundary.
#include <gtest/gtest.h>

#include <thread>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

using testing::_;
using testing::Invoke;

bool equal(const NSFileProviderRequest& a, const NSFileProviderRequest& b) {
  return a.isSystemRequest == b.isSystemRequest && a.isFileViewerRequest == b.isFileViewerRequest &&
         a.requestingExecutable == b.requestingExecutable;
}

TEST_P(ProtocolTest, AnItemArrivesAsItWasDescribed) {
  for (int round = 0; round < 50; ++round) {
    const ItemValues values = ItemValues::random(generator);
    EXPECT_CALL(*extension, item(values.identifier, _, _))
        .WillOnce(Invoke([&](auto&&, const NSFileProviderRequest& asked, const auto& handler) {
          EXPECT_TRUE(equal(asked, request));
          handler(TestItem::make(values), nullptr);
          return std::make_shared<NSProgress>(1);
        }));
    Told<NSFileProviderItemPtr, NSErrorPtr> told;
    host().item(values.identifier, request, told.handler());
    const auto [item, error] = told.wait();
    EXPECT_EQ(error, nullptr);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(ItemValues::of(*item), values);
  }
}

TEST_P(ProtocolTest, AnErrorArrivesWithDomainCodeDescriptionAndDictionary) {
  EXPECT_CALL(*extension, item).WillOnce(Invoke([](auto&&, auto&&, const auto& handler) {
    handler(nullptr, someError());
    return std::make_shared<NSProgress>(1);
  }));
  Told<NSFileProviderItemPtr, NSErrorPtr> told;
  host().item("x", {}, told.handler());
  const auto [item, error] = told.wait();
  EXPECT_EQ(item, nullptr);
  EXPECT_TRUE(same(error, someError()));
}

TEST_P(ProtocolTest, ContentsAreAskedForWithAndWithoutAVersion) {
  for (const auto& wanted : {std::optional(version), std::optional<NSFileProviderItemVersion>()}) {
    EXPECT_CALL(*extension, fetchContents("file", wanted, _, _))
        .WillOnce(Invoke([](auto&&, auto&&, auto&&, const auto& handler) {
          handler("/tmp/contents \xff", TestItem::make({.identifier = "file"}), nullptr);
          return std::make_shared<NSProgress>(1);
        }));
    Told<Url, NSFileProviderItemPtr, NSErrorPtr> told;
    host().fetchContents("file", wanted, request, told.handler());
    const auto [url, item, error] = told.wait();
    EXPECT_EQ(url, Url("/tmp/contents \xff"));
    EXPECT_EQ(item->itemIdentifier(), "file");
    EXPECT_EQ(error, nullptr);
  }
}

TEST_P(ProtocolTest, PartsAreAskedForAndArriveWithTheirRange) {
  EXPECT_CALL(*extension,
              fetchPartialContents("file", version, _, NSRange{5, INT64_MAX - 5}, 4096,
                                   NSFileProviderFetchContentsOptions::strictVersioning, _))
      .WillOnce(Invoke([](auto&&, auto&&, auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        handler("/tmp/part", TestItem::make({}), {-1, 3},
                NSFileProviderMaterializationFlags::knownSparseRanges, nullptr);
        return std::make_shared<NSProgress>(1);
      }));
  Told<Url, NSFileProviderItemPtr, NSRange, NSFileProviderMaterializationFlags, NSErrorPtr> told;
  as<NSFileProviderPartialContentFetching>().fetchPartialContents(
      "file", version, request, {5, INT64_MAX - 5}, 4096,
      NSFileProviderFetchContentsOptions::strictVersioning, told.handler());
  const auto [url, item, range, flags, error] = told.wait();
  EXPECT_EQ(url, Url("/tmp/part"));
  EXPECT_EQ(range, (NSRange{-1, 3}));
  EXPECT_EQ(flags, NSFileProviderMaterializationFlags::knownSparseRanges);
  EXPECT_EQ(error, nullptr);
}

TEST_P(ProtocolTest, AStreamArrivesInOrderBeforeItsEnd) {
  std::string sent(21'000'001, '\0');
  for (std::size_t i = 0; i < sent.size(); i += 997) sent[i] = static_cast<char>(generator());
  EXPECT_CALL(*extension, streamContents("file", version, _, NSRange{7, 21'000'001}, _, _))
      .WillOnce(Invoke([&sent](auto&&, auto&&, auto&&, auto&&, const auto& bytes, const auto& end) {
        std::thread([&sent, bytes, end] {
          std::size_t at = 0;
          for (std::size_t length = 1; at < sent.size(); length = length * 7 % 9'000'011) {
            const auto piece = std::string_view(sent).substr(at, length);
            EXPECT_TRUE(bytes(7 + static_cast<std::int64_t>(at), piece));
            at += piece.size();
          }
          end(TestItem::make({.identifier = "now"}), someError());
        }).detach();
        return std::make_shared<NSProgress>(1);
      }));
  std::string got;
  Told<NSFileProviderItemPtr, NSErrorPtr> told;
  as<ContentStreaming>().streamContents(
      "file", version, request, {7, 21'000'001},
      [&got](std::int64_t offset, std::string_view bytes) {
        EXPECT_EQ(offset, 7 + static_cast<std::int64_t>(got.size()));
        got.append(bytes);
        return true;
      },
      told.handler());
  const auto [item, error] = told.wait();
  ASSERT_TRUE(same(error, someError())) << (error ? error->localizedDescription() : "none");
  EXPECT_EQ(got.size(), sent.size());
  EXPECT_TRUE(got == sent);
  EXPECT_EQ(item->itemIdentifier(), "now");
}

TEST_P(ProtocolTest, AStreamThatIsNotWantedAnyMoreIsTold) {
  EXPECT_CALL(*extension, streamContents)
      .WillOnce(Invoke([](auto&&, auto&&, auto&&, auto&&, const auto& bytes, const auto& end) {
        std::thread([bytes, end] {
          const std::string piece(1 << 20, 'x');
          std::int64_t at = 0;
          while (bytes(at, piece) && at < (1LL << 32)) at += 1 << 20;
          EXPECT_LT(at, 16LL << 20);
          end(nullptr, nullptr);
        }).detach();
        return std::make_shared<NSProgress>(1);
      }));
  int calls = 0;
  Told<NSFileProviderItemPtr, NSErrorPtr> told;
  as<ContentStreaming>().streamContents(
      "file", version, {}, {0, 1LL << 32},
      [&calls](std::int64_t, std::string_view) { return ++calls < 3; }, told.handler());
  told.wait();
  EXPECT_GE(calls, 3);
}

TEST_P(ProtocolTest, ACreationCarriesTheItemItsFieldsAndContents) {
  const ItemValues values = ItemValues::random(generator);
  EXPECT_CALL(*extension, createItem(_, NSFileProviderItemFields::filename, Url("/tmp/new"),
                                     NSFileProviderCreateItemOptions::mayAlreadyExist, _, _))
      .WillOnce(Invoke([&](const auto& item, auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        EXPECT_EQ(ItemValues::of(*item), values);
        handler(item, NSFileProviderItemFields::contents, true, nullptr);
        return std::make_shared<NSProgress>(1);
      }));
  Told<NSFileProviderItemPtr, NSFileProviderItemFields, bool, NSErrorPtr> told;
  host().createItem(TestItem::make(values), NSFileProviderItemFields::filename, "/tmp/new",
                    NSFileProviderCreateItemOptions::mayAlreadyExist, request, told.handler());
  const auto [item, pending, fetch, error] = told.wait();
  EXPECT_EQ(ItemValues::of(*item), values);
  EXPECT_EQ(pending, NSFileProviderItemFields::contents);
  EXPECT_TRUE(fetch);
  EXPECT_EQ(error, nullptr);
}

TEST_P(ProtocolTest, AModificationCarriesTheVersionThatItBeganFrom) {
  EXPECT_CALL(*extension, modifyItem(_, version, NSFileProviderItemFields::contents, Url(),
                                     NSFileProviderModifyItemOptions::mayAlreadyExist, _, _))
      .WillOnce(Invoke([](auto&&, auto&&, auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        handler(nullptr, NSFileProviderItemFields::none, false, someError());
        return std::make_shared<NSProgress>(1);
      }));
  Told<NSFileProviderItemPtr, NSFileProviderItemFields, bool, NSErrorPtr> told;
  host().modifyItem(TestItem::make({.identifier = "a"}), version,
                    NSFileProviderItemFields::contents, std::nullopt,
                    NSFileProviderModifyItemOptions::mayAlreadyExist, request, told.handler());
  const auto [item, pending, fetch, error] = told.wait();
  EXPECT_EQ(item, nullptr);
  EXPECT_TRUE(same(error, someError()));
}

TEST_P(ProtocolTest, ADeletionAndAnActionAreCarriedOut) {
  EXPECT_CALL(*extension,
              deleteItem("gone", version, NSFileProviderDeleteItemOptions::recursive, _, _))
      .WillOnce(Invoke([](auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        handler(nullptr);
        return std::make_shared<NSProgress>(1);
      }));
  Told<NSErrorPtr> deleted;
  host().deleteItem("gone", version, NSFileProviderDeleteItemOptions::recursive, request,
                    deleted.handler());
  EXPECT_EQ(std::get<0>(deleted.wait()), nullptr);

  const std::vector<std::string> identifiers{"a", "", "b\0c"};
  EXPECT_CALL(*extension, performAction("act", identifiers, _))
      .WillOnce(Invoke([](auto&&, auto&&, const auto& handler) {
        handler(someError());
        return std::make_shared<NSProgress>(1);
      }));
  Told<NSErrorPtr> acted;
  as<NSFileProviderCustomAction>().performAction("act", identifiers, acted.handler());
  EXPECT_TRUE(same(std::get<0>(acted.wait()), someError()));
}

TEST_P(ProtocolTest, ProgressIsSeenBeforeTheCompletion) {
  auto progress = std::make_shared<NSProgress>(100);
  std::promise<NSFileProviderReplicatedExtension::DoneHandler> asked;
  EXPECT_CALL(*extension, deleteItem)
      .WillOnce(Invoke([&](auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        asked.set_value(handler);
        return progress;
      }));
  Told<NSErrorPtr> told;
  const auto seen = host().deleteItem("x", version, {}, {}, told.handler());
  const auto complete = asked.get_future().get();
  progress->setTotalUnitCount(1000);
  progress->setCompletedUnitCount(400);
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (seen->snapshot() != NSProgress::Snapshot{1000, 400} &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(seen->snapshot(), (NSProgress::Snapshot{1000, 400}));
  EXPECT_FALSE(told.wasCalled());
  progress->setCompletedUnitCount(1000);
  complete(nullptr);
  told.wait();
  EXPECT_EQ(seen->completedUnitCount(), 1000);
}

TEST_P(ProtocolTest, ACancelledProgressReachesTheExtensionAndTheCompletionStillComes) {
  auto progress = std::make_shared<NSProgress>(100);
  std::promise<NSFileProviderReplicatedExtension::DoneHandler> cancelled;
  EXPECT_CALL(*extension, deleteItem)
      .WillOnce(Invoke([&](auto&&, auto&&, auto&&, auto&&, const auto& handler) {
        progress->setCancellationHandler([&, handler] { cancelled.set_value(handler); });
        return progress;
      }));
  Told<NSErrorPtr> told;
  const auto seen = host().deleteItem("x", version, {}, {}, told.handler());
  seen->cancel();  // at once: the extension may not have begun
  auto waiting = cancelled.get_future();
  ASSERT_EQ(waiting.wait_for(kSoon), std::future_status::ready);
  EXPECT_FALSE(told.wasCalled());
  waiting.get()(someError());
  EXPECT_TRUE(same(std::get<0>(told.wait()), someError()));
}

TEST_P(ProtocolTest, AHandlerThatTheExtensionForgetsIsLetGo) {
  EXPECT_CALL(*extension, item).WillOnce(Invoke([](auto&&, auto&&, auto&&) {
    return std::make_shared<NSProgress>(1);
  }));
  const Told<NSFileProviderItemPtr, NSErrorPtr> told;
  host().item("x", {}, told.handler());
  EXPECT_TRUE(told.waitUntilLetGo());
  EXPECT_FALSE(told.wasCalled());
}

TEST_P(ProtocolTest, TheEndIsPassedOn) {
  std::promise<void> ended;
  EXPECT_CALL(*extension, invalidate).WillOnce(Invoke([&] { ended.set_value(); }));
  host().invalidate();
  EXPECT_EQ(ended.get_future().wait_for(kSoon), std::future_status::ready);
}

INSTANTIATE_TEST_SUITE_P(, ProtocolTest, kBothSides, nameOfSide);

}  // namespace
}  // namespace kestrune::boundary::test
