#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <set>
#include <thread>

#include "platform/file_provider/NSFileProviderError.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::platform {
namespace {

using Capabilities = NSFileProviderItemCapabilities;
using Fields = NSFileProviderItemFields;

TEST(NSFileProviderTest, ValuesAreThePlatformsOwn) {
  EXPECT_EQ(static_cast<int>(Capabilities::allowsReading), 1);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsWriting), 2);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsReparenting), 4);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsRenaming), 8);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsTrashing), 16);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsDeleting), 32);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsEvicting), 64);
  EXPECT_EQ(static_cast<int>(Capabilities::allowsExcludingFromSync), 128);
  EXPECT_EQ(static_cast<int>(Fields::contents), 1);
  EXPECT_EQ(static_cast<int>(Fields::filename), 2);
  EXPECT_EQ(static_cast<int>(Fields::parentItemIdentifier), 4);
  EXPECT_EQ(static_cast<int>(Fields::lastUsedDate), 8);
  EXPECT_EQ(static_cast<int>(Fields::tagData), 16);
  EXPECT_EQ(static_cast<int>(Fields::favoriteRank), 32);
  EXPECT_EQ(static_cast<int>(Fields::creationDate), 64);
  EXPECT_EQ(static_cast<int>(Fields::contentModificationDate), 128);
  EXPECT_EQ(static_cast<int>(Fields::fileSystemFlags), 256);
  EXPECT_EQ(static_cast<int>(Fields::extendedAttributes), 512);
  EXPECT_EQ(static_cast<int>(Fields::typeAndCreator), 1024);
  EXPECT_EQ(static_cast<int>(NSFileProviderContentPolicy::inherited), 0);
  EXPECT_EQ(static_cast<int>(NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded), 3);
}

TEST(NSFileProviderTest, OptionSetsUniteBits) {
  const auto all = Capabilities::allowsReading | Capabilities::allowsWriting |
                   Capabilities::allowsReparenting | Capabilities::allowsRenaming |
                   Capabilities::allowsDeleting;
  EXPECT_EQ(static_cast<int>(all), 47);
  EXPECT_EQ(all | Capabilities::none, all);
  EXPECT_EQ(all | all, all);
  EXPECT_EQ(Fields::contents | Fields::filename, static_cast<Fields>(3));
  EXPECT_EQ(NSFileProviderDeleteItemOptions::none | NSFileProviderDeleteItemOptions::recursive,
            NSFileProviderDeleteItemOptions::recursive);
}

TEST(NSFileProviderTest, ContainsAsksForACommonBit) {
  const Fields set = Fields::contents | Fields::filename;
  struct {
    Fields members;
    bool expected;
  } const cases[] = {
      {Fields::contents, true},
      {Fields::filename, true},
      {Fields::contents | Fields::filename, true},
      {Fields::filename | Fields::tagData, true},
      {Fields::tagData, false},
      {Fields::none, false},
  };
  for (const auto& [members, expected] : cases) {
    EXPECT_EQ(contains(set, members), expected) << static_cast<int>(members);
    EXPECT_FALSE(contains(Fields::none, members));
  }
  EXPECT_TRUE(contains(NSFileProviderDeleteItemOptions::recursive,
                       NSFileProviderDeleteItemOptions::recursive));
  EXPECT_FALSE(
      contains(NSFileProviderDeleteItemOptions::none, NSFileProviderDeleteItemOptions::recursive));
}

/// An item with nothing but what every item must have.
class BareItem : public NSFileProviderItem {
 public:
  NSFileProviderItemIdentifier itemIdentifier() const override { return "id"; }
  NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return NSFileProviderRootContainerItemIdentifier;
  }
  std::string filename() const override { return "name"; }
};

TEST(NSFileProviderTest, BareItemAnswersNothingOptional) {
  const BareItem item;
  EXPECT_FALSE(item.contentType());
  EXPECT_FALSE(item.capabilities());
  EXPECT_FALSE(item.documentSize());
  EXPECT_FALSE(item.contentModificationDate());
  EXPECT_FALSE(item.creationDate());
  EXPECT_FALSE(item.itemVersion());
  EXPECT_EQ(item.contentPolicy(), NSFileProviderContentPolicy::inherited);
}

/// An extension that offers no changes.
class ReadOnlyExtension : public NSFileProviderReplicatedExtension {
 public:
  void invalidate() override {}
  NSProgressPtr item(NSFileProviderItemIdentifier, NSFileProviderRequest, ItemHandler) override {
    return std::make_shared<NSProgress>(1);
  }
  NSProgressPtr fetchContents(NSFileProviderItemIdentifier,
                              std::optional<NSFileProviderItemVersion>, NSFileProviderRequest,
                              ContentsHandler) override {
    return std::make_shared<NSProgress>(1);
  }
  std::shared_ptr<NSFileProviderEnumerator> enumerator(NSFileProviderItemIdentifier,
                                                       NSFileProviderRequest) override {
    throw NSFileProviderError(NSFileProviderError::noSuchItem);
  }
};

void expectReadOnly(const NSErrorPtr& error) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(error->code(), NSCocoaError::featureUnsupported);
  EXPECT_FALSE(error->localizedDescription().empty());
}

TEST(NSFileProviderTest, ChangesAreRefusedOnceOnTheCallersThread) {
  ReadOnlyExtension extension;
  const auto caller = std::this_thread::get_id();
  int answers = 0;
  const auto changed = [&](const NSFileProviderItemPtr& item, Fields pending, bool fetchAgain,
                           const NSErrorPtr& error) {
    ++answers;
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(pending, Fields::none);
    EXPECT_FALSE(fetchAgain);
    expectReadOnly(error);
  };
  const auto item = std::make_shared<BareItem>();
  EXPECT_NE(extension.createItem(item, Fields::contents, std::nullopt,
                                 NSFileProviderCreateItemOptions::none, {}, changed),
            nullptr);
  EXPECT_EQ(answers, 1);
  EXPECT_NE(extension.modifyItem(item, {"1", "1"}, Fields::contents, "/tmp/x",
                                 NSFileProviderModifyItemOptions::none, {}, changed),
            nullptr);
  EXPECT_EQ(answers, 2);
  EXPECT_NE(extension.deleteItem("id", {"1", "1"}, NSFileProviderDeleteItemOptions::recursive, {},
                                 [&](const NSErrorPtr& error) {
                                   ++answers;
                                   EXPECT_EQ(std::this_thread::get_id(), caller);
                                   expectReadOnly(error);
                                 }),
            nullptr);
  EXPECT_EQ(answers, 3);
}

class NamedManager : public NSFileProviderManager {
 public:
  explicit NamedManager(std::string name) : name_(std::move(name)) {}
  const std::string& name() const { return name_; }
  void evictItem(NSFileProviderItemIdentifier, Handler handler) override { handler(nullptr); }
  void requestDownloadForItem(NSFileProviderItemIdentifier, std::optional<NSRange>,
                              Handler handler) override {
    handler(nullptr);
  }
  void signalEnumerator(NSFileProviderItemIdentifier, Handler handler) override {
    handler(nullptr);
  }

 private:
  std::string name_;
};

TEST(NSFileProviderTest, ManagersComeFromTheProviderThatWasSetLast) {
  const NSFileProviderDomain domain("one", "One");
  EXPECT_EQ(domain.identifier(), "one");
  EXPECT_EQ(domain.displayName(), "One");
  EXPECT_EQ(NSFileProviderManager::forDomain(domain), nullptr);

  NSFileProviderManager::setProvider(
      [](const NSFileProviderDomain& asked) -> std::shared_ptr<NSFileProviderManager> {
        if (asked.identifier() != "one") return nullptr;
        return std::make_shared<NamedManager>("first " + asked.identifier());
      });
  const auto manager =
      std::dynamic_pointer_cast<NamedManager>(NSFileProviderManager::forDomain(domain));
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->name(), "first one");
  EXPECT_EQ(NSFileProviderManager::forDomain(NSFileProviderDomain("two", "")), nullptr);

  NSFileProviderManager::setProvider(
      [](const NSFileProviderDomain&) { return std::make_shared<NamedManager>("second"); });
  EXPECT_EQ(
      std::dynamic_pointer_cast<NamedManager>(NSFileProviderManager::forDomain(domain))->name(),
      "second");

  NSFileProviderManager::setProvider(nullptr);
  EXPECT_EQ(NSFileProviderManager::forDomain(domain), nullptr);
  EXPECT_EQ(manager->name(), "first one") << "a manager outlives its provider";
}

TEST(NSFileProviderTest, ProviderMayAskForAnotherManager) {
  NSFileProviderManager::setProvider(
      [](const NSFileProviderDomain& asked) -> std::shared_ptr<NSFileProviderManager> {
        if (asked.identifier() == "inner") return std::make_shared<NamedManager>("inner");
        return NSFileProviderManager::forDomain(NSFileProviderDomain("inner", ""));
      });
  EXPECT_NE(NSFileProviderManager::forDomain(NSFileProviderDomain("outer", "")), nullptr);
  NSFileProviderManager::setProvider(nullptr);
}

const NSFileProviderError::Code kAllCodes[] = {
    NSFileProviderError::notAuthenticated,
    NSFileProviderError::filenameCollision,
    NSFileProviderError::syncAnchorExpired,
    NSFileProviderError::insufficientQuota,
    NSFileProviderError::serverUnreachable,
    NSFileProviderError::noSuchItem,
    NSFileProviderError::deletionRejected,
    NSFileProviderError::directoryNotEmpty,
    NSFileProviderError::providerNotFound,
    NSFileProviderError::providerTranslocated,
    NSFileProviderError::olderExtensionVersionRunning,
    NSFileProviderError::newerExtensionVersionFound,
    NSFileProviderError::cannotSynchronize,
    NSFileProviderError::nonEvictableChildren,
    NSFileProviderError::unsyncedEdits,
    NSFileProviderError::nonEvictable,
    NSFileProviderError::versionNoLongerAvailable,
    NSFileProviderError::excludedFromSync,
    NSFileProviderError::domainDisabled,
    NSFileProviderError::providerDomainTemporarilyUnavailable,
    NSFileProviderError::providerDomainNotFound,
    NSFileProviderError::applicationExtensionNotFound,
};

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return text;
}

TEST(NSFileProviderTest, EveryErrorHasADescriptionOfItsOwn) {
  std::set<std::string> descriptions;
  for (const auto code : kAllCodes) {
    const NSFileProviderError error(code);
    EXPECT_EQ(error.domain(), kNSFileProviderErrorDomain);
    EXPECT_EQ(error.code(), code);
    EXPECT_TRUE(error.userInfo().empty());
    EXPECT_GT(error.localizedDescription().size(), 10U) << code;
    EXPECT_TRUE(descriptions.insert(error.localizedDescription()).second)
        << error.localizedDescription();
  }
  EXPECT_EQ(NSFileProviderError::noSuchItem, -1005);
}

TEST(NSFileProviderTest, DescriptionsNeverReadLikeAMissingPage) {
  // Callers tell a vanished item from other failures by these texts in a server's answer.
  for (const auto code : kAllCodes) {
    const std::string description = lowerCase(NSFileProviderError(code).localizedDescription());
    for (const char* text : {"404", "not found", "notfound", "not_found", "not-found"}) {
      EXPECT_THAT(description, testing::Not(testing::HasSubstr(text))) << code;
    }
  }
}

TEST(NSFileProviderTest, ErrorMayNameItsItem) {
  const NSFileProviderError error(NSFileProviderError::nonEvictable, "'/a.txt' cannot be evicted.");
  EXPECT_EQ(error.localizedDescription(), "'/a.txt' cannot be evicted.");
  EXPECT_EQ(error.code(), NSFileProviderError::nonEvictable);
  EXPECT_THROW(error.share()->raise(), NSFileProviderError);
}

TEST(NSFileProviderTest, VersionsAndRangesCompareByValue) {
  EXPECT_EQ((NSFileProviderItemVersion{"c", "m"}), (NSFileProviderItemVersion{"c", "m"}));
  EXPECT_NE((NSFileProviderItemVersion{"c", "m"}), (NSFileProviderItemVersion{"c", "n"}));
  EXPECT_NE((NSFileProviderItemVersion{"c", "m"}), (NSFileProviderItemVersion{"d", "m"}));
  EXPECT_EQ((NSRange{1, 2}), (NSRange{1, 2}));
  EXPECT_NE((NSRange{1, 2}), (NSRange{2, 1}));
  EXPECT_EQ(NSRange{}, (NSRange{0, 0}));
}

}  // namespace
}  // namespace kestrune::platform
