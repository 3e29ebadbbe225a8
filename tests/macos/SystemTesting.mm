#include "tests/macos/SystemTesting.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/Waiting.h"

namespace kestrune::macos {

namespace {

using DoneBlock = void (^)(NSError*);
using ItemBlock = void (^)(NSFileProviderItem, NSError*);
using ContentsBlock = void (^)(NSURL*, NSFileProviderItem, NSError*);
using ChangeBlock = void (^)(NSFileProviderItem, NSFileProviderItemFields, BOOL, NSError*);
using PartialBlock = void (^)(NSURL*, NSFileProviderItem, NSRange,
                              NSFileProviderMaterializationFlags, NSError*);

NSURL* fileURL(NSString* path) {
  return path != nil ? [NSURL fileURLWithPath:path isDirectory:NO] : nil;
}

std::optional<std::string> pathText(NSURL* url) {
  if (url == nil) return std::nullopt;
  return std::string([[url path] fileSystemRepresentation]);
}

NSFileProviderItemVersion* someVersion() {
  NSData* const bytes = [@"1-1" dataUsingEncoding:NSUTF8StringEncoding];
  return [[[NSFileProviderItemVersion alloc] initWithContentVersion:bytes
                                                    metadataVersion:bytes] autorelease];
}

ListeningObserver* finished(ListeningObserver* observer) {
  (void)support::waitUntil([&] { return [observer hasFinished]; }, std::chrono::seconds(60));
  (void)support::staysTrue([&] { return observer->finishes == 1; }, std::chrono::milliseconds(20));
  return observer;
}

}  // namespace

SystemTest::SystemTest() : pool([[NSAutoreleasePool alloc] init]) {
  NSFileProviderDomain* const domain =
      [[[NSFileProviderDomain alloc] initWithIdentifier:@"main"
                                            displayName:@"Kestrune"] autorelease];
  request = [[NSFileProviderRequest alloc] init];
  extension = [[NSClassFromString(@"FileProviderExtension") alloc] initWithDomain:domain];
}

SystemTest::~SystemTest() {
  releaseExtension();
  [request release];
  [pool drain];
}

void SystemTest::releaseExtension() {
  [extension release];
  extension = nil;
}

void SystemTest::write(const std::string& relative, const std::string& contents) const {
  files.write("tree/" + relative, contents);
}

void SystemTest::setTime(const std::string& relative, std::int64_t secondsSince1970) const {
  const timespec times[] = {{secondsSince1970, 0}, {secondsSince1970, 0}};
  EXPECT_EQ(::utimensat(AT_FDCWD, tree(relative).c_str(), times, 0), 0);
}

void SystemTest::useToken(const std::string& token) const {
  storage.writeShared("config.json",
                      R"({"apiURL":")" + address() + R"(","token":")" + token + "\"}");
}

void SystemTest::stopService() { service.reset(); }

NSProgress* SystemTest::lookUp(NSString* identifier, AnswerPtr answer) const {
  const ItemBlock block = ^(NSFileProviderItem item, NSError* error) {
    answer->item = textOf(item);
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension itemForIdentifier:identifier request:request completionHandler:block];
}

NSProgress* SystemTest::fetch(NSString* identifier, AnswerPtr answer) const {
  const ContentsBlock block = ^(NSURL* contents, NSFileProviderItem item, NSError* error) {
    answer->path = pathText(contents);
    answer->item = textOf(item);
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension fetchContentsForItemWithIdentifier:identifier
                                               version:nil
                                               request:request
                                     completionHandler:block];
}

NSProgress* SystemTest::fetchPartially(NSString* identifier, NSRange range, AnswerPtr answer,
                                       NSUInteger alignment) const {
  const PartialBlock block = ^(NSURL* contents, NSFileProviderItem item, NSRange retrieved,
                               NSFileProviderMaterializationFlags flags, NSError* error) {
    answer->path = pathText(contents);
    answer->item = textOf(item);
    answer->location = retrieved.location;
    answer->length = retrieved.length;
    answer->flags = flags;
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension fetchPartialContentsForItemWithIdentifier:identifier
                                                      version:someVersion()
                                                      request:request
                                                 minimalRange:range
                                                   aligningTo:alignment
                                                      options:0
                                            completionHandler:block];
}

NSProgress* SystemTest::create(NSString* parent, NSString* name, UTType* type, NSString* localPath,
                               AnswerPtr answer) const {
  TemplateItem* const item = [[[TemplateItem alloc] init] autorelease];
  item->identifier = @"temporary";
  item->parent = parent;
  item->name = name;
  item->type = type;
  return createFrom(item, localPath, answer);
}

NSProgress* SystemTest::createFrom(NSFileProviderItem item, NSString* localPath,
                                   AnswerPtr answer) const {
  const ChangeBlock block = ^(NSFileProviderItem created, NSFileProviderItemFields stillPending,
                              BOOL shouldFetch, NSError* error) {
    answer->item = textOf(created);
    answer->stillPending = stillPending;
    answer->shouldFetch = shouldFetch;
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension createItemBasedOnTemplate:item
                                       fields:NSFileProviderItemContents
                                     contents:fileURL(localPath)
                                      options:0
                                      request:request
                            completionHandler:block];
}

NSProgress* SystemTest::modify(NSString* identifier, NSString* parent, NSString* name,
                               NSFileProviderItemFields fields, NSString* localPath,
                               AnswerPtr answer) const {
  TemplateItem* const item = [[[TemplateItem alloc] init] autorelease];
  item->identifier = identifier;
  item->parent = parent;
  item->name = name;
  const ChangeBlock block = ^(NSFileProviderItem changed, NSFileProviderItemFields stillPending,
                              BOOL shouldFetch, NSError* error) {
    answer->item = textOf(changed);
    answer->stillPending = stillPending;
    answer->shouldFetch = shouldFetch;
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension modifyItem:item
                   baseVersion:someVersion()
                 changedFields:fields
                      contents:fileURL(localPath)
                       options:0
                       request:request
             completionHandler:block];
}

NSProgress* SystemTest::remove(NSString* identifier, AnswerPtr answer) const {
  const DoneBlock block = ^(NSError* error) {
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension deleteItemWithIdentifier:identifier
                                 baseVersion:someVersion()
                                     options:0
                                     request:request
                           completionHandler:block];
}

NSProgress* SystemTest::act(NSString* action, NSArray* identifiers, AnswerPtr answer) const {
  const DoneBlock block = ^(NSError* error) {
    answer->error = textOf(error);
    ++answer->calls;
  };
  return [extension performActionWithIdentifier:action
                         onItemsWithIdentifiers:identifiers
                              completionHandler:block];
}

id<NSFileProviderEnumerator> SystemTest::enumerator(NSString* container) const {
  NSError* error = nil;
  id<NSFileProviderEnumerator> const made =
      [extension enumeratorForContainerItemIdentifier:container request:request error:&error];
  EXPECT_NE(made, nil);
  EXPECT_EQ(error, nil);
  return made;
}

void SystemTest::enumerateItemsFor(ListeningObserver* observer, NSString* container) const {
  id<NSFileProviderEnumerator> const asked = enumerator(container);
  [asked enumerateItemsForObserver:observer startingAtPage:[NSData data]];
  [asked invalidate];
}

ListeningObserver* SystemTest::enumerateItems(NSString* container) const {
  ListeningObserver* const observer = [[[ListeningObserver alloc] init] autorelease];
  enumerateItemsFor(observer, container);
  return finished(observer);
}

ListeningObserver* SystemTest::enumerateChanges(NSString* container,
                                                const std::string& anchor) const {
  ListeningObserver* const observer = [[[ListeningObserver alloc] init] autorelease];
  [enumerator(container) enumerateChangesForObserver:observer
                                      fromSyncAnchor:[NSData dataWithBytes:anchor.data()
                                                                    length:anchor.size()]];
  return finished(observer);
}

std::string SystemTest::currentAnchor(NSString* container) const {
  __block std::string text = "none";
  [enumerator(container) currentSyncAnchorWithCompletionHandler:^(NSFileProviderSyncAnchor anchor) {
    text.assign(static_cast<const char*>([anchor bytes]), [anchor length]);
  }];
  return text;
}

}  // namespace kestrune::macos
