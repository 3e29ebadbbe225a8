#include "tests/macos/Answers.h"

#include "tests/support/Waiting.h"

namespace kestrune::macos {

namespace {

std::string utf8(NSString* text) { return text == nil ? "nil" : [text UTF8String]; }

std::string bytes(NSData* data) {
  return std::string(static_cast<const char*>([data bytes]), [data length]);
}

}  // namespace

std::optional<ErrorText> textOf(NSError* error) {
  if (error == nil) return std::nullopt;
  return ErrorText{utf8([error domain]), [error code], utf8([error localizedDescription]),
                   [[error userInfo] count]};
}

std::optional<ItemText> textOf(NSFileProviderItem item) {
  if (item == nil) return std::nullopt;
  ItemText text;
  text.identifier = utf8([item itemIdentifier]);
  text.parent = utf8([item parentItemIdentifier]);
  text.filename = utf8([item filename]);
  text.type = utf8([[item contentType] identifier]);
  text.capabilities = [item capabilities];
  if (NSNumber* const size = [item documentSize]) text.size = [size longLongValue];
  text.modified = [[item contentModificationDate] timeIntervalSince1970];
  text.created = [[item creationDate] timeIntervalSince1970];
  text.policy = [item contentPolicy];
  text.version = bytes([[item itemVersion] contentVersion]);
  text.metadataVersion = bytes([[item itemVersion] metadataVersion]);
  return text;
}

NSString* string(const std::string& text) { return [NSString stringWithUTF8String:text.c_str()]; }

int answersOf(const AnswerPtr& answer) {
  (void)support::waitUntil([&] { return answer->calls > 0; }, std::chrono::seconds(60));
  (void)support::staysTrue([&] { return answer->calls == 1; }, std::chrono::milliseconds(20));
  return answer->calls;
}

}  // namespace kestrune::macos

using kestrune::macos::textOf;
using kestrune::platform::MutexLock;

@implementation ListeningObserver
- (void)didEnumerateItems:(NSArray*)updatedItems {
  [self didUpdateItems:updatedItems];
}
- (void)didUpdateItems:(NSArray*)updatedItems {
  MutexLock lock(mutex);
  ++batches;
  for (NSFileProviderItem item in updatedItems) items.push_back(*textOf(item));
}
- (void)didDeleteItemsWithIdentifiers:(NSArray*)deletedItemIdentifiers {
  MutexLock lock(mutex);
  for (NSString* identifier in deletedItemIdentifiers)
    deleted.emplace_back([identifier UTF8String]);
}
- (void)finishEnumeratingUpToPage:(NSFileProviderPage)nextPage {
  MutexLock lock(mutex);
  hadPage = nextPage != nil;
  ++finishes;
}
- (void)finishEnumeratingChangesUpToSyncAnchor:(NSFileProviderSyncAnchor)newAnchor
                                    moreComing:(BOOL)more {
  MutexLock lock(mutex);
  anchor = std::string(static_cast<const char*>([newAnchor bytes]), [newAnchor length]);
  moreComing = more;
  ++finishes;
}
- (void)finishEnumeratingWithError:(NSError*)failure {
  MutexLock lock(mutex);
  error = textOf(failure);
  ++finishes;
}
- (BOOL)hasFinished {
  MutexLock lock(mutex);
  return finishes > 0;
}
@end

@implementation BareItem
- (NSFileProviderItemIdentifier)itemIdentifier {
  return identifier;
}
- (NSFileProviderItemIdentifier)parentItemIdentifier {
  return parent;
}
- (NSString*)filename {
  return name;
}
@end

@implementation TemplateItem
- (UTType*)contentType {
  return type;
}
- (NSNumber*)documentSize {
  return nil;
}
@end
