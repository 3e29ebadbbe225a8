// What the system hands over arrives in the extension's own values, each in its place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "macos/FileProviderExtension.h"
#include "tests/macos/Answers.h"

namespace kestrune::macos {
namespace {

using Fields = platform::NSFileProviderItemFields;

/// Keeps what it is called with, and answers nothing of interest.
class Recording final : public platform::NSFileProviderReplicatedExtension,
                        public platform::NSFileProviderCustomAction,
                        public platform::NSFileProviderPartialContentFetching {
 public:
  void invalidate() override { invalidated = true; }
  platform::NSProgressPtr item(platform::NSFileProviderItemIdentifier asked,
                               platform::NSFileProviderRequest who, ItemHandler answer) override {
    identifier = std::move(asked);
    request = std::move(who);
    answer(nullptr, nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }
  platform::NSProgressPtr fetchContents(
      platform::NSFileProviderItemIdentifier asked,
      std::optional<platform::NSFileProviderItemVersion> requested,
      platform::NSFileProviderRequest who, ContentsHandler answer) override {
    identifier = std::move(asked);
    version = std::move(requested);
    request = std::move(who);
    answer(std::nullopt, nullptr, nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }
  platform::NSProgressPtr createItem(platform::NSFileProviderItemPtr itemTemplate, Fields set,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderCreateItemOptions how,
                                     platform::NSFileProviderRequest who,
                                     ChangeHandler answer) override {
    item_ = std::move(itemTemplate);
    fields = set;
    contents = std::move(url);
    options = static_cast<unsigned>(how);
    request = std::move(who);
    answer(nullptr, Fields::filename, true, nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }
  platform::NSProgressPtr modifyItem(platform::NSFileProviderItemPtr changed,
                                     platform::NSFileProviderItemVersion base, Fields set,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderModifyItemOptions how,
                                     platform::NSFileProviderRequest who,
                                     ChangeHandler answer) override {
    version = std::move(base);
    return createItem(std::move(changed), set, std::move(url),
                      static_cast<platform::NSFileProviderCreateItemOptions>(how), std::move(who),
                      std::move(answer));
  }
  platform::NSProgressPtr deleteItem(platform::NSFileProviderItemIdentifier asked,
                                     platform::NSFileProviderItemVersion base,
                                     platform::NSFileProviderDeleteItemOptions how,
                                     platform::NSFileProviderRequest who,
                                     DoneHandler answer) override {
    identifier = std::move(asked);
    version = std::move(base);
    options = static_cast<unsigned>(how);
    request = std::move(who);
    answer(nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      platform::NSFileProviderItemIdentifier container,
      platform::NSFileProviderRequest who) override {
    identifier = std::move(container);
    request = std::move(who);
    return nullptr;
  }
  platform::NSProgressPtr performAction(std::string action,
                                        std::vector<platform::NSFileProviderItemIdentifier> on,
                                        DoneHandler answer) override {
    identifier = std::move(action);
    identifiers = std::move(on);
    answer(nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }
  platform::NSProgressPtr fetchPartialContents(platform::NSFileProviderItemIdentifier asked,
                                               platform::NSFileProviderItemVersion requested,
                                               platform::NSFileProviderRequest who,
                                               platform::NSRange minimal, std::int64_t aligned,
                                               platform::NSFileProviderFetchContentsOptions how,
                                               PartialContentsHandler answer) override {
    identifier = std::move(asked);
    version = std::move(requested);
    request = std::move(who);
    range = minimal;
    alignment = aligned;
    options = static_cast<unsigned>(how);
    answer(std::nullopt, nullptr, {7, 9},
           platform::NSFileProviderMaterializationFlags::knownSparseRanges, nullptr);
    return std::make_shared<platform::NSProgress>(1);
  }

  bool invalidated = false;
  std::string identifier;
  std::vector<std::string> identifiers;
  platform::NSFileProviderItemPtr item_;
  std::optional<platform::NSFileProviderItemVersion> version;
  Fields fields{};
  std::optional<std::filesystem::path> contents;
  unsigned options = 0;
  platform::NSFileProviderRequest request;
  platform::NSRange range;
  std::int64_t alignment = 0;
};

struct ArgumentsTest : testing::Test {
  ArgumentsTest() {
    NSFileProviderDomain* const domain =
        [[[NSFileProviderDomain alloc] initWithIdentifier:@"main" displayName:@"K"] autorelease];
    extension = [[[FileProviderExtension alloc] initWithDomain:domain
                                                     extension:{recording, recording, recording}]
        autorelease];
    asked = [[[NSFileProviderRequest alloc] init] autorelease];
    asked->_isSystemRequest = YES;
    version = [[[NSFileProviderItemVersion alloc]
        initWithContentVersion:[@"c" dataUsingEncoding:NSUTF8StringEncoding]
               metadataVersion:[@"m" dataUsingEncoding:NSUTF8StringEncoding]] autorelease];
  }
  ~ArgumentsTest() override { [pool drain]; }

  void expectRequestAndVersion() const {
    EXPECT_TRUE(recording->request.isSystemRequest);
    EXPECT_EQ(recording->version, (platform::NSFileProviderItemVersion{"c", "m"}));
  }

  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  std::shared_ptr<Recording> recording = std::make_shared<Recording>();
  FileProviderExtension* extension;
  NSFileProviderRequest* asked;
  NSFileProviderItemVersion* version;
};

TEST_F(ArgumentsTest, OfALookup) {
  [extension itemForIdentifier:@"/a"
                       request:asked
             completionHandler:^(NSFileProviderItem, NSError*){
             }];
  EXPECT_EQ(recording->identifier, "/a");
  EXPECT_TRUE(recording->request.isSystemRequest);
}

TEST_F(ArgumentsTest, OfAFetch) {
  [extension fetchContentsForItemWithIdentifier:@"/a"
                                        version:version
                                        request:asked
                              completionHandler:^(NSURL*, NSFileProviderItem, NSError*){
                              }];
  EXPECT_EQ(recording->identifier, "/a");
  expectRequestAndVersion();
  [extension fetchContentsForItemWithIdentifier:@"/a"
                                        version:nil
                                        request:asked
                              completionHandler:^(NSURL*, NSFileProviderItem, NSError*){
                              }];
  EXPECT_EQ(recording->version, std::nullopt);
}

TEST_F(ArgumentsTest, OfAPartialFetchAndItsAnswer) {
  __block NSRange retrieved = {0, 0};
  __block NSUInteger flags = 0;
  [extension fetchPartialContentsForItemWithIdentifier:@"/a"
                                               version:version
                                               request:asked
                                          minimalRange:NSMakeRange(3, 5)
                                            aligningTo:64
                                               options:1
                                     completionHandler:^(NSURL*, NSFileProviderItem, NSRange range,
                                                         NSFileProviderMaterializationFlags given,
                                                         NSError*) {
                                       retrieved = range;
                                       flags = given;
                                     }];
  EXPECT_EQ(recording->identifier, "/a");
  expectRequestAndVersion();
  EXPECT_EQ(recording->range, (platform::NSRange{3, 5}));
  EXPECT_EQ(recording->alignment, 64);
  EXPECT_EQ(recording->options, 1U);
  EXPECT_EQ(retrieved.location, 7U);
  EXPECT_EQ(retrieved.length, 9U);
  EXPECT_EQ(flags, 1U);
}

TEST_F(ArgumentsTest, OfACreationAndItsAnswer) {
  BareItem* const item = [[[BareItem alloc] init] autorelease];
  item->identifier = @"i";
  item->parent = @"/p";
  item->name = @"n";
  __block NSUInteger stillPending = 0;
  __block BOOL shouldFetch = NO;
  [extension createItemBasedOnTemplate:item
                                fields:NSFileProviderItemContents | NSFileProviderItemTagData
                              contents:[NSURL fileURLWithPath:@"/tmp/c" isDirectory:NO]
                               options:NSFileProviderCreateItemDeletionConflicted
                               request:asked
                     completionHandler:^(NSFileProviderItem, NSFileProviderItemFields pending,
                                         BOOL fetch, NSError*) {
                       stillPending = pending;
                       shouldFetch = fetch;
                     }];
  EXPECT_EQ(recording->item_->parentItemIdentifier(), "/p");
  EXPECT_EQ(recording->fields, Fields::contents | Fields::tagData);
  EXPECT_EQ(recording->contents, std::filesystem::path("/tmp/c"));
  EXPECT_EQ(recording->options, 2U);
  EXPECT_TRUE(recording->request.isSystemRequest);
  EXPECT_EQ(stillPending, NSUInteger{NSFileProviderItemFilename});
  EXPECT_TRUE(shouldFetch);
}

TEST_F(ArgumentsTest, OfAChange) {
  BareItem* const item = [[[BareItem alloc] init] autorelease];
  item->identifier = @"i";
  item->parent = @"/p";
  item->name = @"n";
  [extension modifyItem:item
            baseVersion:version
          changedFields:NSFileProviderItemFilename
               contents:nil
                options:NSFileProviderModifyItemMayAlreadyExist
                request:asked
      completionHandler:^(NSFileProviderItem, NSFileProviderItemFields, BOOL, NSError*){
      }];
  EXPECT_EQ(recording->item_->itemIdentifier(), "i");
  EXPECT_EQ(recording->fields, Fields::filename);
  EXPECT_EQ(recording->contents, std::nullopt);
  EXPECT_EQ(recording->options, 1U);
  expectRequestAndVersion();
}

TEST_F(ArgumentsTest, OfADeletion) {
  [extension deleteItemWithIdentifier:@"/a"
                          baseVersion:version
                              options:NSFileProviderDeleteItemRecursive
                              request:asked
                    completionHandler:^(NSError*){
                    }];
  EXPECT_EQ(recording->identifier, "/a");
  EXPECT_EQ(recording->options, 1U);
  expectRequestAndVersion();
}

TEST_F(ArgumentsTest, OfAnAction) {
  [extension performActionWithIdentifier:@"x.y"
                  onItemsWithIdentifiers:@[ @"/b", @"/a" ]
                       completionHandler:^(NSError*){
                       }];
  EXPECT_EQ(recording->identifier, "x.y");
  EXPECT_THAT(recording->identifiers, testing::ElementsAre("/b", "/a"));
}

TEST_F(ArgumentsTest, OfAnEnumeratorWhichMayBeMissing) {
  NSError* error = nil;
  EXPECT_EQ([extension enumeratorForContainerItemIdentifier:@"/c" request:asked error:&error], nil);
  EXPECT_NE(error, nil);
  EXPECT_EQ(recording->identifier, "/c");
  EXPECT_TRUE(recording->request.isSystemRequest);
}

TEST_F(ArgumentsTest, InvalidationArrives) {
  [extension invalidate];
  EXPECT_TRUE(recording->invalidated);
}

}  // namespace
}  // namespace kestrune::macos
