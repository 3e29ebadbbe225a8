// Calls end well whatever the extension does.
#include "macos/ExtensionCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace kestrune::macos {
namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;

enum class Fault { throws, throwsNoError, answersTwice, answersAndThrows, forgets, hasNoProgress };

void misbehave(Fault fault, const std::function<void()>& answer) {
  if (fault == Fault::forgets) return;
  if (fault == Fault::throwsNoError) throw 7;  // as foreign as an exception of another language
  if (fault != Fault::throws) answer();
  if (fault == Fault::answersTwice) answer();
  if (fault == Fault::throws || fault == Fault::answersAndThrows)
    throw platform::NSPOSIXError(ENOSPC, "do it");
}

/// Does the same wrong thing in every operation.
class Misbehaving final : public platform::NSFileProviderReplicatedExtension,
                          public platform::NSFileProviderCustomAction,
                          public platform::NSFileProviderPartialContentFetching,
                          public platform::NSFileProviderEnumerator {
 public:
  explicit Misbehaving(Fault fault) : fault_(fault) {}

  void invalidate() override {}
  platform::NSProgressPtr item(platform::NSFileProviderItemIdentifier,
                               platform::NSFileProviderRequest, ItemHandler answer) override {
    misbehave(fault_, [&] { answer(nullptr, nullptr); });
    return progress();
  }
  platform::NSProgressPtr fetchContents(platform::NSFileProviderItemIdentifier,
                                        std::optional<platform::NSFileProviderItemVersion>,
                                        platform::NSFileProviderRequest,
                                        ContentsHandler answer) override {
    misbehave(fault_, [&] { answer(std::nullopt, nullptr, nullptr); });
    return progress();
  }
  platform::NSProgressPtr createItem(NSFileProviderItemPtr, platform::NSFileProviderItemFields,
                                     std::optional<std::filesystem::path>,
                                     platform::NSFileProviderCreateItemOptions,
                                     platform::NSFileProviderRequest,
                                     ChangeHandler answer) override {
    misbehave(fault_, [&] { answer(nullptr, {}, false, nullptr); });
    return progress();
  }
  platform::NSProgressPtr modifyItem(NSFileProviderItemPtr, platform::NSFileProviderItemVersion,
                                     platform::NSFileProviderItemFields,
                                     std::optional<std::filesystem::path>,
                                     platform::NSFileProviderModifyItemOptions,
                                     platform::NSFileProviderRequest,
                                     ChangeHandler answer) override {
    misbehave(fault_, [&] { answer(nullptr, {}, false, nullptr); });
    return progress();
  }
  platform::NSProgressPtr deleteItem(platform::NSFileProviderItemIdentifier,
                                     platform::NSFileProviderItemVersion,
                                     platform::NSFileProviderDeleteItemOptions,
                                     platform::NSFileProviderRequest, DoneHandler answer) override {
    misbehave(fault_, [&] { answer(nullptr); });
    return progress();
  }
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      platform::NSFileProviderItemIdentifier, platform::NSFileProviderRequest) override {
    misbehave(fault_, [] {});
    return nullptr;
  }
  platform::NSProgressPtr performAction(std::string,
                                        std::vector<platform::NSFileProviderItemIdentifier>,
                                        DoneHandler answer) override {
    misbehave(fault_, [&] { answer(nullptr); });
    return progress();
  }
  platform::NSProgressPtr fetchPartialContents(platform::NSFileProviderItemIdentifier,
                                               platform::NSFileProviderItemVersion,
                                               platform::NSFileProviderRequest, platform::NSRange,
                                               std::int64_t,
                                               platform::NSFileProviderFetchContentsOptions,
                                               PartialContentsHandler answer) override {
    misbehave(fault_, [&] { answer(std::nullopt, nullptr, {1, 2}, {}, nullptr); });
    return progress();
  }
  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage) override {
    misbehave(fault_, [&] {
      observer->didEnumerateItems({});
      observer->finishEnumeratingUpToPage(std::nullopt);
    });
  }
  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override {
    misbehave(fault_, [&] {
      observer->didUpdateItems({});
      observer->didDeleteItemsWithIdentifiers({});
      observer->finishEnumeratingChangesUpToSyncAnchor(anchor, false);
    });
  }
  void currentSyncAnchor(
      std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)> answer) override {
    misbehave(fault_, [&] { answer("a"); });
  }

 private:
  platform::NSProgressPtr progress() const {
    return fault_ == Fault::hasNoProgress ? nullptr : std::make_shared<platform::NSProgress>(5);
  }
  const Fault fault_;
};

/// How often a call was answered, and with which error.
struct Heard {
  int answers = 0;
  int notices = 0;
  NSErrorPtr error;
  void operator()(NSErrorPtr failure) {
    ++answers;
    error = std::move(failure);
  }
};

struct Listening final : platform::NSFileProviderEnumerationObserver,
                         platform::NSFileProviderChangeObserver {
  explicit Listening(Heard& where) : heard(where) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr>) override { ++heard.notices; }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage>) override {
    heard(nullptr);
  }
  void didUpdateItems(std::vector<NSFileProviderItemPtr>) override { ++heard.notices; }
  void didDeleteItemsWithIdentifiers(std::vector<platform::NSFileProviderItemIdentifier>) override {
    ++heard.notices;
  }
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor, bool) override {
    heard(nullptr);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { heard(std::move(error)); }
  Heard& heard;
};

using Call = std::function<platform::NSProgressPtr(const Extension&, Heard&)>;

std::vector<std::pair<const char*, Call>> calls() {
  const auto change = [](Heard& heard) {
    return [&heard](NSFileProviderItemPtr, platform::NSFileProviderItemFields, bool,
                    NSErrorPtr error) { heard(std::move(error)); };
  };
  return {
      {"item",
       [](const Extension& e, Heard& h) {
         return item(e, "/a", {}, [&h](NSFileProviderItemPtr, NSErrorPtr error) { h(error); });
       }},
      {"fetchContents",
       [](const Extension& e, Heard& h) {
         return fetchContents(e, "/a", std::nullopt, {},
                              [&h](std::optional<std::filesystem::path>, NSFileProviderItemPtr,
                                   NSErrorPtr error) { h(error); });
       }},
      {"fetchPartialContents",
       [](const Extension& e, Heard& h) {
         return fetchPartialContents(
             e, {},
             [&h](std::optional<std::filesystem::path>, NSFileProviderItemPtr,
                  platform::NSRange range, platform::NSFileProviderMaterializationFlags,
                  NSErrorPtr error) {
               if (error) EXPECT_EQ(range, (platform::NSRange{0, 0}));
               h(error);
             });
       }},
      {"createItem",
       [change](const Extension& e, Heard& h) { return createItem(e, {}, change(h)); }},
      {"modifyItem",
       [change](const Extension& e, Heard& h) { return modifyItem(e, {}, change(h)); }},
      {"deleteItem",
       [](const Extension& e, Heard& h) {
         return deleteItem(e, "/a", {}, {}, {}, [&h](NSErrorPtr error) { h(error); });
       }},
      {"performAction",
       [](const Extension& e, Heard& h) {
         return performAction(e, "x", {}, [&h](NSErrorPtr error) { h(error); });
       }},
  };
}

using EnumeratorCall = std::function<void(Misbehaving&, Heard&)>;

std::vector<std::pair<const char*, EnumeratorCall>> enumeratorCalls() {
  return {
      {"enumerateItems",
       [](Misbehaving& e, Heard& h) { enumerateItems(e, std::make_shared<Listening>(h), "p"); }},
      {"enumerateChanges",
       [](Misbehaving& e, Heard& h) { enumerateChanges(e, std::make_shared<Listening>(h), "a"); }},
  };
}

void expectOneAnswer(const Heard& heard, Fault fault, const std::string& what) {
  EXPECT_EQ(heard.answers, 1) << what;
  const bool answers =
      fault != Fault::throws && fault != Fault::throwsNoError && fault != Fault::forgets;
  ASSERT_EQ(heard.error == nullptr, answers) << what;
  if (answers) return;
  if (fault == Fault::throwsNoError) {
    EXPECT_THAT(heard.error->localizedDescription(), testing::HasSubstr("unknown kind")) << what;
    return;
  }
  EXPECT_EQ(heard.error->domain(),
            fault == Fault::throws ? platform::kNSPOSIXErrorDomain : platform::kNSCocoaErrorDomain)
      << what;
  EXPECT_EQ(heard.error->code(), fault == Fault::throws ? ENOSPC : 3072) << what;
}

class FaultTest : public testing::TestWithParam<Fault> {};
INSTANTIATE_TEST_SUITE_P(All, FaultTest,
                         testing::Values(Fault::throws, Fault::throwsNoError, Fault::answersTwice,
                                         Fault::answersAndThrows, Fault::forgets,
                                         Fault::hasNoProgress));

TEST_P(FaultTest, EveryCallIsAnsweredOnceAndShowsAProgress) {
  const auto wrong = std::make_shared<Misbehaving>(GetParam());
  const Extension extension{wrong, wrong, wrong};
  for (const auto& [what, call] : calls()) {
    Heard heard;
    EXPECT_NE(call(extension, heard), nullptr) << what;
    expectOneAnswer(heard, GetParam(), what);
  }
}

TEST_P(FaultTest, EveryEnumerationIsFinishedOnceAndHearsNothingAfterwards) {
  for (const auto& [what, call] : enumeratorCalls()) {
    Misbehaving wrong(GetParam());
    Heard heard;
    call(wrong, heard);
    expectOneAnswer(heard, GetParam(), what);
    const int inOneAnswer = what == std::string("enumerateItems") ? 1 : 2;
    EXPECT_LE(heard.notices, inOneAnswer) << what;
  }
}

TEST_P(FaultTest, AnAnchorIsAnsweredOnce) {
  Misbehaving wrong(GetParam());
  int answers = 0;
  std::optional<std::string> anchor;
  currentSyncAnchor(wrong, [&](std::optional<std::string> given) {
    ++answers;
    anchor = std::move(given);
  });
  EXPECT_EQ(answers, 1);
  const bool answered = GetParam() == Fault::answersTwice ||
                        GetParam() == Fault::answersAndThrows || GetParam() == Fault::hasNoProgress;
  EXPECT_EQ(anchor, answered ? std::optional<std::string>("a") : std::nullopt);
}

TEST(ExtensionCallsTest, AnEnumeratorThatCannotBeMadeIsAnError) {
  const auto wrong = std::make_shared<Misbehaving>(Fault::throws);
  const auto made = makeEnumerator({wrong, wrong, wrong}, "/a", {});
  EXPECT_EQ(made.enumerator, nullptr);
  ASSERT_NE(made.error, nullptr);
  EXPECT_EQ(made.error->code(), ENOSPC);
}

TEST(ExtensionCallsTest, NoEnumeratorIsAnErrorToo) {
  const auto wrong = std::make_shared<Misbehaving>(Fault::forgets);
  const auto made = makeEnumerator({wrong, wrong, wrong}, "/a", {});
  EXPECT_EQ(made.enumerator, nullptr);
  EXPECT_NE(made.error, nullptr);
}

}  // namespace
}  // namespace kestrune::macos
