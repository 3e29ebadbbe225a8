// The context menu's actions: what the manager, the pins and the pasteboard get to see, and when.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "api/APIError.h"
#include "extension/test/ChangeTesting.h"
#include "namespace/PinStore.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/MainQueue.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using platform::MainQueue;
using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderManager;
using platform::NSPasteboard;
using support::waitUntil;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kRoot = platform::NSFileProviderRootContainerItemIdentifier;

/// A manager whose answers are held until the test gives them, unless it was told to answer.
class HeldManager final : public NSFileProviderManager {
 public:
  struct Asked {
    std::string what;  // "evict /a" or "download /a"
    bool wasPinnedThen = false;
    std::optional<platform::NSRange> range;
    Handler handler;
  };

  void evictItem(platform::NSFileProviderItemIdentifier identifier, Handler handler) override {
    ask("evict", identifier, std::nullopt, std::move(handler));
  }
  void requestDownloadForItem(platform::NSFileProviderItemIdentifier identifier,
                              std::optional<platform::NSRange> range, Handler handler) override {
    ask("download", identifier, range, std::move(handler));
  }
  void signalEnumerator(platform::NSFileProviderItemIdentifier, Handler handler) override {
    ADD_FAILURE() << "nobody asked for this";
    handler(nullptr);
  }

  /// From now on requests are answered at once: with `errors` where they name an item.
  void answerAtOnce(std::map<std::string, NSErrorPtr> errors = {}) {
    MutexLock lock(mutex_);
    errors_ = std::move(errors);
    answersAtOnce_ = true;
  }
  std::vector<Asked> asked() const {
    MutexLock lock(mutex_);
    return asked_;
  }
  std::vector<std::string> requests() const {
    std::vector<std::string> texts;
    for (const auto& one : asked()) texts.push_back(one.what);
    return texts;
  }
  /// Waits for the request with this number, from 0.
  Asked waitFor(std::size_t number) const {
    if (!waitUntil([&] { return asked().size() > number; }))
      throw std::runtime_error("the manager was not asked");
    return asked()[number];
  }

 private:
  void ask(const std::string& verb, const std::string& identifier,
           std::optional<platform::NSRange> range, Handler handler) {
    const bool isPinned = PinStore::isPinned(identifier);
    NSErrorPtr error;
    {
      MutexLock lock(mutex_);
      asked_.push_back({verb + " " + identifier, isPinned, range, handler});
      if (!answersAtOnce_) return;
      const auto found = errors_.find(identifier);
      if (found != errors_.end()) error = found->second;
    }
    handler(error);
  }

  mutable platform::Mutex mutex_;
  std::vector<Asked> asked_ GUARDED_BY(mutex_);
  std::map<std::string, NSErrorPtr> errors_ GUARDED_BY(mutex_);
  bool answersAtOnce_ GUARDED_BY(mutex_) = false;
};

NSErrorPtr failing(NSFileProviderError::Code code, const std::string& description) {
  return NSFileProviderError(code, description).share();
}

class CustomActionsTest : public ChangeTesting {
 protected:
  CustomActionsTest() { provide(manager_); }
  ~CustomActionsTest() override { NSFileProviderManager::setProvider(nullptr); }

  void provide(const std::shared_ptr<NSFileProviderManager>& manager) {
    NSFileProviderManager::setProvider([manager](const platform::NSFileProviderDomain& domain) {
      return domain.identifier() == "domain-7" ? manager : nullptr;
    });
  }
  static void expectDone(const Changed& changed, std::int64_t progress) {
    EXPECT_EQ(changed.error, nullptr);
    EXPECT_FALSE(changed.onCallersThread);
    EXPECT_EQ(changed.progressThen, progress);
  }

  const std::shared_ptr<HeldManager> manager_ = std::make_shared<HeldManager>();
};

TEST_F(CustomActionsTest, WithoutAManagerEveryActionFails) {
  provide(nullptr);
  PinStore::setPinned(true, "/a");
  for (const char* action : {"make-online-only", "download-now", "copy-share-link", "other", ""}) {
    const ChangeCall call = perform(action, {"/a", "/b"});
    const Changed changed = call.finish();
    expectFailure(changed, platform::kNSFileProviderErrorDomain, -2001);
    ASSERT_NE(changed.error, nullptr);
    EXPECT_TRUE(changed.error->userInfo().empty());
    EXPECT_EQ(call.completed(), 0);
    EXPECT_FALSE(changed.onCallersThread);
    EXPECT_EQ(lines().back(), std::string("default: customAction ") + action + " on 2 items");
  }
  EXPECT_THAT(lines(), SizeIs(5)) << "that error is not logged";
  EXPECT_EQ(pins(), R"(["/a"])");
}

TEST_F(CustomActionsTest, TheManagerIsAskedForAtEachAction) {
  manager_->answerAtOnce();
  provide(nullptr);
  EXPECT_NE(perform("download-now", {"/a"}).finish().error, nullptr);
  provide(manager_);
  EXPECT_EQ(perform("download-now", {"/a"}).finish().error, nullptr);
}

TEST_F(CustomActionsTest, AnActionIsRecognisedByItsEnd) {
  manager_->answerAtOnce();
  const struct {
    const char* action;
    const char* verb;
  } cases[] = {
      {"download-now", "download /a"},
      {"com.example.download-now", "download /a"},
      {"make-online-only-download-now", "download /a"},
      {"xdownload-now", "download /a"},
      {"make-online-only", "evict /a"},
      {"com.example.make-online-only", "evict /a"},
      {"download-now-make-online-only", "evict /a"},
      {"download-now-later", nullptr},
      {"Download-Now", nullptr},
      {"download-no", nullptr},
      {"make-online-only ", nullptr},
      {"copy-share-links", nullptr},
      {"", nullptr},
  };
  for (const auto& [action, verb] : cases) {
    const std::size_t earlier = manager_->asked().size();
    PinStore::setPinned(false, "/a");
    expectDone(perform(action, {"/a"}).finish(), 1);
    const auto requests = manager_->requests();
    ASSERT_EQ(requests.size(), earlier + (verb ? 1 : 0)) << action;
    if (verb) EXPECT_EQ(requests.back(), verb) << action;
    if (!verb) EXPECT_EQ(pins(), "[]") << action;
  }
  EXPECT_THAT(requests(), IsEmpty()) << "the service hears nothing of it";
}

TEST_F(CustomActionsTest, AnUnknownActionCountsEveryItem) {
  const ChangeCall call = perform("other", {"/a", "/b", "/c"});
  expectDone(call.finish(), 3);
  EXPECT_EQ(call.progress()->totalUnitCount(), 3);
  EXPECT_THAT(lines(), ElementsAre("default: customAction other on 3 items"));
  EXPECT_THAT(formats(), ElementsAre("customAction %{public}s on %ld items"));
}

TEST_F(CustomActionsTest, NoItemsAreAWholeOfOne) {
  for (const char* action : {"make-online-only", "download-now", "other"}) {
    const ChangeCall call = perform(action, {});
    EXPECT_EQ(call.progress()->totalUnitCount(), 1);
    expectDone(call.finish(), 0);
    EXPECT_EQ(lines().back(), std::string("default: customAction ") + action + " on 0 items");
  }
  EXPECT_EQ(pins(), "none");
}

TEST_F(CustomActionsTest, OnlineOnlyEvictsAndThenUnpins) {
  PinStore::setPinned(true, "/a");
  const ChangeCall call = perform("make-online-only", {"/a"});
  const auto evict = manager_->waitFor(0);
  EXPECT_EQ(evict.what, "evict /a");
  EXPECT_TRUE(evict.wasPinnedThen);
  EXPECT_EQ(pins(), R"(["/a"])");
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  evict.handler(nullptr);
  expectDone(call.finish(), 1);
  EXPECT_EQ(pins(), "[]");
}

TEST_F(CustomActionsTest, AnItemThatCannotBeEvictedStaysPinned) {
  PinStore::setPinned(true, "/a");
  const ChangeCall call = perform("make-online-only", {"/a"});
  manager_->waitFor(0).handler(failing(NSFileProviderError::nonEvictable, "/a is in use"));
  const Changed changed = call.finish();
  expectFailure(changed, platform::kNSFileProviderErrorDomain, -2008);
  EXPECT_EQ(changed.progressThen, 1);
  EXPECT_EQ(pins(), R"(["/a"])");
  EXPECT_EQ(lines().back(), "error: customAction item=/a err=/a is in use");
  EXPECT_EQ(formats().back(), "customAction item=%{public}s err=%{public}s");
}

TEST_F(CustomActionsTest, DownloadNowPinsAndThenAsksForTheWholeItem) {
  const ChangeCall call = perform("download-now", {"/a"});
  const auto download = manager_->waitFor(0);
  EXPECT_EQ(download.what, "download /a");
  EXPECT_TRUE(download.wasPinnedThen);
  EXPECT_EQ(download.range, std::nullopt);
  EXPECT_EQ(call.completed(), 0);
  EXPECT_EQ(call.answer().calls, 0);
  download.handler(nullptr);
  expectDone(call.finish(), 1);
  EXPECT_EQ(pins(), R"(["/a"])");
  EXPECT_THAT(lines(), SizeIs(1)) << "a success is not logged";
}

TEST_F(CustomActionsTest, AnItemThatCannotBeDownloadedStaysPinned) {
  manager_->answerAtOnce({{"/a", failing(NSFileProviderError::serverUnreachable, "/a: away")}});
  const Changed changed = perform("download-now", {"/a", "/b"}).finish();
  expectFailure(changed, platform::kNSFileProviderErrorDomain, -1004);
  ASSERT_NE(changed.error, nullptr);
  EXPECT_EQ(changed.error->localizedDescription(), "/a: away") << "the last that occurred";
  EXPECT_EQ(changed.progressThen, 2);
  EXPECT_EQ(pins(), R"(["/a","/b"])");
  EXPECT_THAT(lines(), ElementsAre("default: customAction download-now on 2 items",
                                   "error: customAction item=/a err=/a: away"));
}

TEST_F(CustomActionsTest, TheLastErrorWinsAndEachIsLogged) {
  PinStore::setPinned(true, "/b");
  PinStore::setPinned(true, "/c");
  manager_->answerAtOnce({{"/a", failing(NSFileProviderError::nonEvictable, "first")},
                          {"/c", failing(NSFileProviderError::unsyncedEdits, "second")}});
  const Changed changed = perform("make-online-only", {"/a", "/b", "/c", "/d"}).finish();
  expectFailure(changed, platform::kNSFileProviderErrorDomain, -2007);
  ASSERT_NE(changed.error, nullptr);
  EXPECT_EQ(changed.error->localizedDescription(), "second");
  EXPECT_EQ(changed.progressThen, 4);
  EXPECT_EQ(pins(), R"(["/c"])");
  EXPECT_THAT(lines(), ElementsAre("default: customAction make-online-only on 4 items",
                                   "error: customAction item=/a err=first",
                                   "error: customAction item=/c err=second"));
  EXPECT_THAT(manager_->requests(), ElementsAre("evict /a", "evict /b", "evict /c", "evict /d"));
}

TEST_F(CustomActionsTest, ItemsAreTreatedOneAfterTheOther) {
  for (const char* action : {"make-online-only", "download-now"}) {
    const std::size_t earlier = manager_->asked().size();
    const ChangeCall call = perform(action, {"/b", "/a", "/c"});
    for (std::size_t i = 0; i < 3; ++i) {
      const auto asked = manager_->waitFor(earlier + i);
      EXPECT_TRUE(asked.what.ends_with(i == 0 ? "/b" : i == 1 ? "/a" : "/c"));
      EXPECT_EQ(manager_->asked().size(), earlier + i + 1);
      EXPECT_EQ(call.completed(), static_cast<std::int64_t>(i));
      asked.handler(nullptr);
    }
    expectDone(call.finish(), 3);
  }
}

TEST_F(CustomActionsTest, LaterItemsArePinnedOnlyWhenTheirTurnComes) {
  const ChangeCall call = perform("download-now", {"/a", "/b"});
  const auto first = manager_->waitFor(0);
  EXPECT_EQ(pins(), R"(["/a"])");
  first.handler(nullptr);
  manager_->waitFor(1).handler(nullptr);
  expectDone(call.finish(), 2);
  EXPECT_EQ(pins(), R"(["/a","/b"])");
}

TEST_F(CustomActionsTest, TheRootIsPinnedByItsPath) {
  const ChangeCall call = perform("download-now", {kRoot});
  const auto asked = manager_->waitFor(0);
  EXPECT_EQ(asked.what, std::string("download ") + kRoot);
  EXPECT_EQ(pins(), R"(["/"])");
  asked.handler(nullptr);
  call.finish();
}

TEST_F(CustomActionsTest, AManagerThatNeverAnswersIsAFailureOfItsItem) {
  const ChangeCall call = perform("download-now", {"/a", "/b"});
  manager_->waitFor(0).handler(nullptr);
  manager_->waitFor(1).handler(nullptr);
  call.finish();
  class Forgetful final : public NSFileProviderManager {
    void evictItem(platform::NSFileProviderItemIdentifier, Handler) override {}
    void requestDownloadForItem(platform::NSFileProviderItemIdentifier,
                                std::optional<platform::NSRange>, Handler) override {
      throw NSFileProviderError(NSFileProviderError::domainDisabled);
    }
    void signalEnumerator(platform::NSFileProviderItemIdentifier, Handler) override {}
  };
  provide(std::make_shared<Forgetful>());
  const Changed evicted = perform("make-online-only", {"/a", "/b"}).finish();
  EXPECT_NE(evicted.error, nullptr);
  EXPECT_EQ(evicted.progressThen, 2);
  expectFailure(perform("download-now", {"/a"}).finish(), platform::kNSFileProviderErrorDomain,
                -2011);
}

// Copying links

class FakePasteboard final : public NSPasteboard {
 public:
  void replaceContents(const std::string& text) override {
    MutexLock lock(mutex_);
    wasOnMainThread_ = platform::isMainThread();
    if (error_) error_->raise();
    texts_.push_back(text);
  }
  void failWith(NSErrorPtr error) {
    MutexLock lock(mutex_);
    error_ = std::move(error);
  }
  std::vector<std::string> texts() const {
    MutexLock lock(mutex_);
    return texts_;
  }
  bool wasOnMainThread() const {
    MutexLock lock(mutex_);
    return wasOnMainThread_;
  }

 private:
  mutable platform::Mutex mutex_;
  NSErrorPtr error_ GUARDED_BY(mutex_);
  std::vector<std::string> texts_ GUARDED_BY(mutex_);
  bool wasOnMainThread_ GUARDED_BY(mutex_) = false;
};

class CopyShareLinkTest : public CustomActionsTest {
 protected:
  CopyShareLinkTest() {
    NSPasteboard::setGeneral(pasteboard_);
    service_.configure("https://h/api");
  }
  ~CopyShareLinkTest() override { NSPasteboard::setGeneral(nullptr); }

  /// Copies links while the main thread, which is the test's own, takes work.
  Changed copy(const std::vector<std::string>& items,
               const std::string& action = "com.example.copy-share-link") {
    MainQueue::shared().open();
    const ChangeCall call = perform(action, items);
    std::thread waiter([&call] {
      EXPECT_TRUE(call.tasks().waitUntilEnded());
      MainQueue::shared().stop();
    });
    MainQueue::shared().serve();
    waiter.join();
    return call.finish();
  }

  const std::shared_ptr<FakePasteboard> pasteboard_ = std::make_shared<FakePasteboard>();
};

TEST_F(CopyShareLinkTest, TheLinksAreWrittenOnTheMainThread) {
  expectDone(copy({"/a b/c.txt", kRoot, "//d"}), 3);
  EXPECT_THAT(pasteboard_->texts(), ElementsAre("https://h/open/a%20b/c.txt\nhttps://h/open/d"));
  EXPECT_TRUE(pasteboard_->wasOnMainThread());
  EXPECT_THAT(lines(), ElementsAre("default: customAction com.example.copy-share-link on 3 items"));
  EXPECT_THAT(manager_->asked(), IsEmpty());
  EXPECT_THAT(requests(), IsEmpty());
}

TEST_F(CopyShareLinkTest, WithoutALinkTheTextIsEmpty) {
  expectDone(copy({kRoot}), 1);
  expectDone(copy({}), 0);
  EXPECT_THAT(pasteboard_->texts(), ElementsAre("", ""));
}

TEST_F(CopyShareLinkTest, TheAddressIsReadAnewEachTime) {
  service_.configure("https://other/api/");
  expectDone(copy({"/a b/c.txt"}), 1);
  service_.writeConfiguration(R"({"apiURL":""})");
  expectDone(copy({"/a"}), 1);
  EXPECT_THAT(pasteboard_->texts(), ElementsAre("https://other/api/open/a%20b/c.txt", "/open/a"));
}

TEST_F(CopyShareLinkTest, WithoutAnAddressNothingIsCopied) {
  for (const char* configuration : {"", "{}", "no JSON", R"({"apiURL":null,"token":"x"})",
                                    R"({"apiURL":7})", R"({"apiURL":"https://h","token":7})"}) {
    service_.writeConfiguration(configuration);
    expectDone(copy({"/a"}), 0);
  }
  std::filesystem::remove(service_.storage().shared() / "config.json");
  expectDone(copy({"/a"}), 0);
  EXPECT_THAT(pasteboard_->texts(), IsEmpty());
}

TEST_F(CopyShareLinkTest, WithoutAnAddressNobodyNeedsTheMainThread) {
  service_.writeConfiguration("{}");
  expectDone(perform("copy-share-link", {"/a"}).finish(), 0);
}

TEST_F(CopyShareLinkTest, APasteboardThatFailsFailsTheAction) {
  pasteboard_->failWith(failing(NSFileProviderError::cannotSynchronize, "no clipboard"));
  const Changed changed = copy({"/a"});
  expectFailure(changed, platform::kNSFileProviderErrorDomain, -2005);
  ASSERT_NE(changed.error, nullptr);
  EXPECT_EQ(changed.error->localizedDescription(), "no clipboard");
  EXPECT_EQ(changed.progressThen, 0);
}

TEST_F(CopyShareLinkTest, AProgramWithoutAMainQueueIsToldSo) {
  const Changed changed = perform("copy-share-link", {"/a"}).finish();
  expectFailure(changed, platform::kNSCocoaErrorDomain, platform::NSCocoaError::featureUnsupported);
  ASSERT_NE(changed.error, nullptr);
  EXPECT_EQ(changed.error->localizedDescription(),
            "The main thread of this program takes no work.");
  EXPECT_EQ(changed.progressThen, 0);
  EXPECT_THAT(pasteboard_->texts(), IsEmpty());
}

TEST_F(CopyShareLinkTest, OnlyTheEndOfTheIdentifierCounts) {
  manager_->answerAtOnce();
  expectDone(copy({"/a"}, "download-now.make-online-only.copy-share-link"), 1);
  EXPECT_THAT(pasteboard_->texts(), ElementsAre("https://h/open/a"));
  EXPECT_THAT(manager_->asked(), IsEmpty());
  EXPECT_EQ(pins(), "none");
}

}  // namespace
}  // namespace kestrune
