#include "host/launch/LaunchedExtension.h"

#include <gtest/gtest.h>

#include <random>

#include "host/launch/test/MortalExtension.h"

namespace kestrune::host::test {
namespace {

using Extension = NSFileProviderReplicatedExtension;
using boundary::Offers;

class LaunchedExtensionTest : public testing::TestWithParam<const char*> {
 protected:
  // What the caller is told, whatever it called.
  void told(Completed completed) {
    ++answers;
    answer = std::move(completed);
  }
  auto changeTold() {
    return [this, held = held](NSFileProviderItemPtr item, NSFileProviderItemFields fields,
                               bool fetch, NSErrorPtr error) {
      told({.error = error, .item = item, .pendingFields = fields, .shouldFetchContent = fetch});
    };
  }
  auto doneTold() {
    return [this, held = held](NSErrorPtr error) { told({.error = std::move(error)}); };
  }

  NSProgressPtr call(const std::string& what) {
    if (what == "item")
      return extension->item("one", request,
                             [this, held = held](NSFileProviderItemPtr item, NSErrorPtr error) {
                               told({.error = error, .item = item});
                             });
    if (what == "fetch")
      return extension->fetchContents("one", version, request,
                                      [this, held = held](auto url, auto item, NSErrorPtr error) {
                                        told({.error = error, .item = item, .url = url});
                                      });
    if (what == "part")
      return as<NSFileProviderPartialContentFetching>().fetchPartialContents(
          "one", version, request, {10, 20}, 1, NSFileProviderFetchContentsOptions::none,
          [this, held = held](auto url, auto item, NSRange range, auto flags, NSErrorPtr error) {
            told({.error = error, .item = item, .url = url, .range = range, .flags = flags});
          });
    if (what == "stream") return stream({0, 100});
    if (what == "create")
      return extension->createItem(anItem("one"), NSFileProviderItemFields::filename, std::nullopt,
                                   NSFileProviderCreateItemOptions::none, request, changeTold());
    if (what == "modify")
      return extension->modifyItem(anItem("one"), version, NSFileProviderItemFields::filename,
                                   std::nullopt, NSFileProviderModifyItemOptions::none, request,
                                   changeTold());
    if (what == "delete")
      return extension->deleteItem("one", version, NSFileProviderDeleteItemOptions::none, request,
                                   doneTold());
    if (what == "action")
      return as<NSFileProviderCustomAction>().performAction("one", {}, doneTold());
    throw std::logic_error(what);
  }
  NSProgressPtr stream(NSRange range) {
    return as<ContentStreaming>().streamContents(
        "one", version, request, range,
        [this](std::int64_t offset, std::string_view bytes) {
          EXPECT_EQ(offset, start + static_cast<std::int64_t>(taken.size()));
          taken += bytes;
          return taken.size() < wanted;
        },
        [this, held = held](NSFileProviderItemPtr item, NSErrorPtr error) {
          told({.error = error, .item = item});
        });
  }
  template <class Protocol>
  Protocol& as() {
    return dynamic_cast<Protocol&>(*extension);
  }
  // Gives the open stream bytes from `offset` on.
  bool give(std::int64_t offset, std::size_t length) {
    return source->last().bytes(
        offset, std::string_view(contents).substr(static_cast<std::size_t>(offset), length));
  }

  const NSFileProviderRequest request{};
  const NSFileProviderItemVersion version{"content", "metadata"};
  const std::shared_ptr<MortalSource> source = std::make_shared<MortalSource>();
  const std::shared_ptr<Extension> extension =
      makeLaunchedExtension(source, {.partialContents = true, .streams = true, .actions = true});
  // Held by every handler that is not let go.
  std::shared_ptr<int> held = std::make_shared<int>(0);
  int answers = 0;
  Completed answer;
  std::string contents = std::string(50, 'a') + std::string(30, 'b') + std::string(20, 'c');
  std::int64_t start = 0;
  std::string taken;
  std::size_t wanted = SIZE_MAX;
};

class Question : public LaunchedExtensionTest {};
class Change : public LaunchedExtensionTest {};
class Call : public LaunchedExtensionTest {};
const auto nameOf = [](const testing::TestParamInfo<const char*>& info) {
  return std::string(info.param);
};
INSTANTIATE_TEST_SUITE_P(, Question, testing::Values("item", "fetch", "part", "stream"), nameOf);
INSTANTIATE_TEST_SUITE_P(, Change, testing::Values("create", "modify", "delete", "action"), nameOf);
INSTANTIATE_TEST_SUITE_P(, Call,
                         testing::Values("item", "fetch", "part", "stream", "create", "modify",
                                         "delete", "action"),
                         nameOf);

TEST_P(Call, ItsAnswerIsTheExtensions) {
  call(GetParam());
  ASSERT_EQ(source->count(), 1U);
  EXPECT_EQ(source->last().what, GetParam());
  EXPECT_EQ(source->last().identifier, "one");
  EXPECT_EQ(answers, 0);
  const auto item = anItem("found");
  source->last().answer({.item = item,
                         .url = "/tmp/there",
                         .range = {1, 2},
                         .flags = NSFileProviderMaterializationFlags::knownSparseRanges,
                         .pendingFields = NSFileProviderItemFields::creationDate,
                         .shouldFetchContent = true});
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, nullptr);
  const std::string what = GetParam();
  if (what != "delete" && what != "action") {
    EXPECT_EQ(answer.item, item);
  }
  EXPECT_EQ(answer.url, what == "fetch" || what == "part"
                            ? std::optional<std::filesystem::path>("/tmp/there")
                            : std::nullopt);
  EXPECT_EQ(answer.range, what == "part" ? (NSRange{1, 2}) : NSRange{});
  EXPECT_EQ(answer.shouldFetchContent, what == "create" || what == "modify");
  EXPECT_EQ(answer.pendingFields, what == "create" || what == "modify"
                                      ? NSFileProviderItemFields::creationDate
                                      : NSFileProviderItemFields::none);
}

TEST_P(Call, AnErrorIsPassedOnUnchanged) {
  call(GetParam());
  const auto error = boundary::test::someError();
  source->last().answer({.error = error});
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, error);
  EXPECT_EQ(source->count(), 1U);
}

TEST_P(Call, WithoutAnExtensionTheReasonIsTheAnswer) {
  source->refusal = boundary::test::someError();
  call(GetParam());
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, source->refusal);
  EXPECT_EQ(source->count(), 0U);
}

TEST_P(Call, HoldsTheExtensionUntilItIsAnswered) {
  call(GetParam());
  EXPECT_EQ(source->uses(), 1U);
  source->last().answer({});
  EXPECT_EQ(source->uses(), 0U);
}

TEST_P(Call, AHandlerThatTheExtensionDropsIsLetGo) {
  const auto before = held.use_count();
  const auto progress = call(GetParam());
  EXPECT_EQ(held.use_count(), before + 1);
  source->last().drop();
  EXPECT_EQ(held.use_count(), before);
  EXPECT_EQ(source->uses(), 0U);
  EXPECT_EQ(answers, 0);
  progress->cancel();  // of nothing
}

TEST_P(Call, NothingIsKeptOfOneThatWasAnswered) {
  const auto before = held.use_count();
  const auto progress = call(GetParam());
  source->last().answer({});
  EXPECT_EQ(held.use_count(), before);
}

TEST_P(Call, CancellingReachesTheExtension) {
  const auto progress = call(GetParam());
  EXPECT_FALSE(source->last().progress->isCancelled());
  progress->cancel();
  EXPECT_TRUE(source->last().progress->isCancelled());
  EXPECT_EQ(answers, 0);
}

TEST_P(Call, CancelledBeforeThereIsAnExtensionItReachesTheFirst) {
  source->isHolding = true;
  const auto progress = call(GetParam());
  progress->cancel();
  source->release();
  ASSERT_EQ(source->count(), 1U);
  EXPECT_TRUE(source->last().progress->isCancelled());
}

TEST_P(Question, IsRepeatedAndAnsweredOnce) {
  call(GetParam());
  for (int death = 1; death <= 3; ++death) {
    source->killInCall();
    EXPECT_EQ(source->count(), 1U + static_cast<unsigned>(death));
    EXPECT_EQ(source->last().what, GetParam());
    EXPECT_EQ(source->last().identifier, "one");
    EXPECT_EQ(source->uses(), 1U);
  }
  EXPECT_EQ(source->started, 4);
  EXPECT_EQ(answers, 0);
  const auto item = anItem("found");
  source->last().answer({.item = item});
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.item, item);
  EXPECT_EQ(answer.error, nullptr);
}

TEST_P(Question, ThatKillsEverybodyFailsInTheEnd) {
  call(GetParam());
  for (int death = 1; death < RepeatedCall::kMostInterruptions; ++death) source->killInCall();
  EXPECT_EQ(answers, 0);
  source->killInCall();
  EXPECT_EQ(source->started, RepeatedCall::kMostInterruptions);
  EXPECT_EQ(answers, 1);
  ASSERT_TRUE(answer.error);
  EXPECT_TRUE(isInterruption(*answer.error));
}

TEST_P(Question, IsAnsweredWithTheReasonWhereNoOtherIsStarted) {
  call(GetParam());
  source->refusal = boundary::test::someError();
  source->killInCall();
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, source->refusal);
}

TEST_P(Question, ThatWasCancelledIsNotRepeated) {
  const auto progress = call(GetParam());
  progress->cancel();
  source->killInCall();
  EXPECT_EQ(source->count(), 1U);
  EXPECT_EQ(answers, 1);
  EXPECT_TRUE(answer.error && isInterruption(*answer.error));
}

TEST_P(Question, CancellingReachesTheOneThatIsAskedNow) {
  const auto progress = call(GetParam());
  source->killInCall();
  progress->cancel();
  EXPECT_TRUE(source->last().progress->isCancelled());
  source->killInCall();
  EXPECT_EQ(source->count(), 2U);
}

// The first call then returns its progress when the second one has long begun.
TEST_P(Question, CancellingReachesTheOneThatIsAskedNowWhereTheFirstDiedWithinTheCall) {
  source->inCall = [this](OpenCall&) {
    if (source->count() == 1) source->killInCall();
  };
  const auto progress = call(GetParam());
  ASSERT_EQ(source->count(), 2U);
  progress->cancel();
  EXPECT_TRUE(source->last().progress->isCancelled());
}

TEST_P(Question, ProgressNeverGoesBack) {
  const auto progress = call(GetParam());
  auto inner = source->last().progress;
  inner->setTotalUnitCount(100);
  inner->setCompletedUnitCount(90);
  EXPECT_EQ(progress->snapshot(), (NSProgress::Snapshot{100, 90}));
  source->killInCall();
  EXPECT_EQ(progress->snapshot(), (NSProgress::Snapshot{100, 90}));
  inner = source->last().progress;
  inner->setTotalUnitCount(10);  // what is left
  inner->setCompletedUnitCount(5);
  EXPECT_EQ(progress->snapshot(), (NSProgress::Snapshot{100, 90}));
  inner->setCompletedUnitCount(10);
  EXPECT_EQ(progress->snapshot(), (NSProgress::Snapshot{100, 100}));
}

TEST_P(Question, ProgressFollowsAnEstimateThatFalls) {
  const auto progress = call(GetParam());
  source->last().progress->setTotalUnitCount(100);
  source->last().progress->setTotalUnitCount(50);
  EXPECT_EQ(progress->totalUnitCount(), 50);
}

TEST_P(Change, IsNotRepeated) {
  call(GetParam());
  source->killInCall();
  EXPECT_EQ(source->count(), 1U);
  EXPECT_EQ(answers, 1);
  ASSERT_TRUE(answer.error);
  EXPECT_TRUE(isInterruption(*answer.error));
}

using Stream = LaunchedExtensionTest;

TEST_F(Stream, GoesOnWhereItEnded) {
  call("stream");
  EXPECT_EQ(source->last().range, (NSRange{0, 100}));
  EXPECT_TRUE(give(0, 30));
  EXPECT_TRUE(give(30, 25));
  source->killInCall();
  EXPECT_EQ(source->last().range, (NSRange{55, 45}));
  source->killInCall();  // before it gave any
  EXPECT_EQ(source->last().range, (NSRange{55, 45}));
  EXPECT_TRUE(give(55, 45));
  EXPECT_EQ(answers, 0);
  source->last().answer({});
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, nullptr);
  EXPECT_EQ(taken, contents);
}

TEST_F(Stream, HasTheRightBytesWhereverItsExtensionsDie) {
  std::mt19937 random(20261122);
  for (int run = 0; run < 200; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    taken.clear();
    answers = 0;
    start = static_cast<std::int64_t>(random() % 40);
    const auto length = static_cast<std::int64_t>(1 + random() % 60);
    stream({start, length});
    int deaths = 0;
    while (taken.size() < static_cast<std::size_t>(length)) {
      const NSRange left = source->last().range;
      ASSERT_EQ(left.location + left.length, start + length);
      const auto place = start + static_cast<std::int64_t>(taken.size());
      if (random() % 3 == 0 && deaths < RepeatedCall::kMostInterruptions - 1) {
        ++deaths;
        source->killInCall();
      } else {
        const auto most = static_cast<std::uint32_t>(start + length - place);
        ASSERT_TRUE(give(place, 1 + random() % most));
      }
    }
    source->last().answer({});
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(taken,
              contents.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(length)));
  }
}

TEST_F(Stream, EndsWhereItsExtensionDiedWithNothingLeft) {
  call("stream");
  EXPECT_TRUE(give(0, 100));
  source->killInCall();
  EXPECT_EQ(source->count(), 1U);
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, nullptr);
  EXPECT_EQ(taken, contents);
}

TEST_F(Stream, EndsWhereItsExtensionDiedAndNoMoreIsWanted) {
  wanted = 10;
  call("stream");
  EXPECT_FALSE(give(0, 20));
  source->killInCall();
  EXPECT_EQ(source->count(), 1U);
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(answer.error, nullptr);
}

TEST_F(Stream, TakesNoBytesButThoseThatFollow) {
  call("stream");
  EXPECT_TRUE(give(0, 20));
  EXPECT_FALSE(give(30, 10));
  EXPECT_FALSE(give(10, 10));
  EXPECT_EQ(taken.size(), 20U);
}

TEST(LaunchedExtension, HasTheProtocolsThatAreOffered) {
  for (unsigned set = 0; set < 8; ++set) {
    const Offers offers{(set & 1U) != 0, (set & 2U) != 0, (set & 4U) != 0};
    const auto extension = makeLaunchedExtension(std::make_shared<MortalSource>(), offers);
    auto* plain = extension.get();
    EXPECT_EQ(dynamic_cast<NSFileProviderPartialContentFetching*>(plain) != nullptr,
              offers.partialContents);
    EXPECT_EQ(dynamic_cast<ContentStreaming*>(plain) != nullptr, offers.streams);
    EXPECT_EQ(dynamic_cast<NSFileProviderCustomAction*>(plain) != nullptr, offers.actions);
  }
}

TEST(LaunchedExtension, InvalidatingItEndsItsSource) {
  const auto source = std::make_shared<MortalSource>();
  makeLaunchedExtension(source, {})->invalidate();
  EXPECT_TRUE(source->isEnded);
  EXPECT_EQ(source->started, 0);
}

}  // namespace
}  // namespace kestrune::host::test
