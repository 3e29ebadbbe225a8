#include "StandIn.h"
#include "StandInState.h"

#import <FileProvider/FileProvider.h>

NSFileProviderItemIdentifier const NSFileProviderRootContainerItemIdentifier =
    @"NSFileProviderRootContainerItemIdentifier";
NSFileProviderItemIdentifier const NSFileProviderWorkingSetContainerItemIdentifier =
    @"NSFileProviderWorkingSetContainerItemIdentifier";
NSFileProviderItemIdentifier const NSFileProviderTrashContainerItemIdentifier =
    @"NSFileProviderTrashContainerItemIdentifier";
NSString* const NSFileProviderErrorDomain = @"NSFileProviderErrorDomain";

@implementation NSFileProviderItemVersion
- (instancetype)initWithContentVersion:(NSData*)contentVersion
                       metadataVersion:(NSData*)metadataVersion {
  if ((self = [super init])) {
    _contentVersion = [contentVersion copy];
    _metadataVersion = [metadataVersion copy];
  }
  return self;
}
- (void)dealloc {
  [_contentVersion release];
  [_metadataVersion release];
  [super dealloc];
}
- (NSData*)contentVersion {
  return _contentVersion;
}
- (NSData*)metadataVersion {
  return _metadataVersion;
}
@end

@implementation NSFileProviderRequest
- (void)dealloc {
  [_requestingExecutable release];
  [super dealloc];
}
- (BOOL)isSystemRequest {
  return _isSystemRequest;
}
- (BOOL)isFileViewerRequest {
  return _isFileViewerRequest;
}
- (NSURL*)requestingExecutable {
  return _requestingExecutable;
}
@end

@implementation NSFileProviderDomain
- (instancetype)initWithIdentifier:(NSFileProviderDomainIdentifier)identifier
                       displayName:(NSString*)displayName {
  if ((self = [super init])) {
    _identifier = [identifier copy];
    _displayName = [displayName copy];
  }
  return self;
}
- (void)dealloc {
  [_identifier release];
  [_displayName release];
  [super dealloc];
}
- (NSFileProviderDomainIdentifier)identifier {
  return _identifier;
}
- (NSString*)displayName {
  return _displayName;
}
@end

namespace {

/// Answers on a thread of its own, as the platform does.
void answer(const standin::ManagerCall& call, void (^completionHandler)(NSError*)) {
  void (^handler)(NSError*) = Block_copy(completionHandler);
  standin::State::shared().recordAndAnswer(call, [handler](const standin::Failure* failure) {
    @autoreleasepool {
      NSError* error = nil;
      if (failure != nullptr) {
        NSString* text = [NSString stringWithUTF8String:failure->description.c_str()];
        error = [NSError errorWithDomain:NSFileProviderErrorDomain
                                    code:failure->code
                                userInfo:@{
                                  NSLocalizedDescriptionKey : text,
                                  @"item" : @7
                                }];
      }
      handler(error);
      Block_release(handler);
    }
  });
}

}  // namespace

@implementation NSFileProviderManager
+ (instancetype)managerForDomain:(NSFileProviderDomain*)domain {
  if (!standin::State::shared().hasManagers()) return nil;
  NSFileProviderManager* manager = [[[NSFileProviderManager alloc] init] autorelease];
  manager->_domain = [domain retain];
  return manager;
}
- (void)dealloc {
  [_domain release];
  [super dealloc];
}
- (void)evictItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
              completionHandler:(void (^)(NSError*))completionHandler {
  answer({[[_domain identifier] UTF8String], "evict", [itemIdentifier UTF8String]},
         completionHandler);
}
- (void)requestDownloadForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                              requestedRange:(NSRange)rangeToMaterialize
                           completionHandler:(void (^)(NSError*))completionHandler {
  answer({[[_domain identifier] UTF8String],
          "download",
          [itemIdentifier UTF8String],
          rangeToMaterialize.location,
          rangeToMaterialize.length},
         completionHandler);
}
- (void)signalEnumeratorForContainerItemIdentifier:
            (NSFileProviderItemIdentifier)containerItemIdentifier
                                 completionHandler:(void (^)(NSError*))completion {
  answer({[[_domain identifier] UTF8String], "signal", [containerItemIdentifier UTF8String]},
         completion);
}
+ (void)addDomain:(NSFileProviderDomain*)domain
    completionHandler:(void (^)(NSError*))completionHandler {
  answer({[[domain identifier] UTF8String], "add", [[domain displayName] UTF8String]},
         completionHandler);
}
+ (void)removeDomain:(NSFileProviderDomain*)domain
    completionHandler:(void (^)(NSError*))completionHandler {
  answer({[[domain identifier] UTF8String], "remove", [[domain displayName] UTF8String]},
         completionHandler);
}
@end
