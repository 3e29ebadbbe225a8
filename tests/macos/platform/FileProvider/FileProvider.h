// The File Provider interface, as far as src/macos uses it. Names, selectors and values as in the
// platform's public documentation (developer.apple.com/documentation/fileprovider).
//
// Domains, versions and requests are plain values here. The manager records what it is asked for and
// answers as the test says: see StandIn.h.
#pragma once

#import <Foundation/Foundation.h>
#import <UniformTypeIdentifiers/UniformTypeIdentifiers.h>

#include "GNUstepDifferences.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef NSString* NSFileProviderItemIdentifier;
typedef NSString* NSFileProviderDomainIdentifier;
typedef NSString* NSFileProviderExtensionActionIdentifier;
typedef NSData* NSFileProviderPage;
typedef NSData* NSFileProviderSyncAnchor;

extern NSFileProviderItemIdentifier const NSFileProviderRootContainerItemIdentifier;
extern NSFileProviderItemIdentifier const NSFileProviderWorkingSetContainerItemIdentifier;
extern NSFileProviderItemIdentifier const NSFileProviderTrashContainerItemIdentifier;
extern NSString* const NSFileProviderErrorDomain;

typedef NS_OPTIONS(NSUInteger, NSFileProviderItemCapabilities) {
  NSFileProviderItemCapabilitiesAllowsReading = 1 << 0,
  NSFileProviderItemCapabilitiesAllowsWriting = 1 << 1,
  NSFileProviderItemCapabilitiesAllowsReparenting = 1 << 2,
  NSFileProviderItemCapabilitiesAllowsRenaming = 1 << 3,
  NSFileProviderItemCapabilitiesAllowsTrashing = 1 << 4,
  NSFileProviderItemCapabilitiesAllowsDeleting = 1 << 5,
  NSFileProviderItemCapabilitiesAllowsEvicting = 1 << 6,
  NSFileProviderItemCapabilitiesAllowsExcludingFromSync = 1 << 7,
};

typedef NS_OPTIONS(NSUInteger, NSFileProviderItemFields) {
  NSFileProviderItemContents = 1 << 0,
  NSFileProviderItemFilename = 1 << 1,
  NSFileProviderItemParentItemIdentifier = 1 << 2,
  NSFileProviderItemLastUsedDate = 1 << 3,
  NSFileProviderItemTagData = 1 << 4,
  NSFileProviderItemFavoriteRank = 1 << 5,
  NSFileProviderItemCreationDate = 1 << 6,
  NSFileProviderItemContentModificationDate = 1 << 7,
  NSFileProviderItemFileSystemFlags = 1 << 8,
  NSFileProviderItemExtendedAttributes = 1 << 9,
  NSFileProviderItemTypeAndCreator = 1 << 10,
};

typedef NS_OPTIONS(NSUInteger, NSFileProviderCreateItemOptions) {
  NSFileProviderCreateItemMayAlreadyExist = 1 << 0,
  NSFileProviderCreateItemDeletionConflicted = 1 << 1,
};
typedef NS_OPTIONS(NSUInteger, NSFileProviderModifyItemOptions) {
  NSFileProviderModifyItemMayAlreadyExist = 1 << 0,
};
typedef NS_OPTIONS(NSUInteger, NSFileProviderDeleteItemOptions) {
  NSFileProviderDeleteItemRecursive = 1 << 0,
};
typedef NS_OPTIONS(NSUInteger, NSFileProviderFetchContentsOptions) {
  NSFileProviderFetchContentsOptionsStrictVersioning = 1 << 0,
};
typedef NS_OPTIONS(NSUInteger, NSFileProviderMaterializationFlags) {
  NSFileProviderMaterializationFlagsKnownSparseRanges = 1 << 0,
};

typedef NS_ENUM(NSInteger, NSFileProviderContentPolicy) {
  NSFileProviderContentPolicyInherited = 0,
  NSFileProviderContentPolicyDownloadLazily = 1,
  NSFileProviderContentPolicyDownloadLazilyAndEvictOnRemoteUpdate = 2,
  NSFileProviderContentPolicyDownloadEagerlyAndKeepDownloaded = 3,
};

@interface NSFileProviderItemVersion : NSObject {
  NSData* _contentVersion;
  NSData* _metadataVersion;
}
- (instancetype)initWithContentVersion:(NSData*)contentVersion
                       metadataVersion:(NSData*)metadataVersion;
- (NSData*)contentVersion;
- (NSData*)metadataVersion;
@end

@interface NSFileProviderRequest : NSObject {
 @public
  BOOL _isSystemRequest;
  BOOL _isFileViewerRequest;
  NSURL* _requestingExecutable;
}
- (BOOL)isSystemRequest;
- (BOOL)isFileViewerRequest;
- (NSURL*)requestingExecutable;
@end

@interface NSFileProviderDomain : NSObject {
  NSString* _identifier;
  NSString* _displayName;
}
- (instancetype)initWithIdentifier:(NSFileProviderDomainIdentifier)identifier
                       displayName:(NSString*)displayName;
- (NSFileProviderDomainIdentifier)identifier;
- (NSString*)displayName;
@end

@protocol NSFileProviderItem <NSObject>
- (NSFileProviderItemIdentifier)itemIdentifier;
- (NSFileProviderItemIdentifier)parentItemIdentifier;
- (NSString*)filename;
@optional
- (UTType*)contentType;
- (NSFileProviderItemCapabilities)capabilities;
- (NSNumber*)documentSize;
- (NSDate*)creationDate;
- (NSDate*)contentModificationDate;
- (NSFileProviderItemVersion*)itemVersion;
- (NSFileProviderContentPolicy)contentPolicy;
@end
typedef id<NSFileProviderItem> NSFileProviderItem;

@protocol NSFileProviderEnumerationObserver <NSObject>
- (void)didEnumerateItems:(NSArray*)updatedItems;
- (void)finishEnumeratingUpToPage:(NSFileProviderPage)nextPage;
- (void)finishEnumeratingWithError:(NSError*)error;
@end

@protocol NSFileProviderChangeObserver <NSObject>
- (void)didUpdateItems:(NSArray*)updatedItems;
- (void)didDeleteItemsWithIdentifiers:(NSArray*)deletedItemIdentifiers;
- (void)finishEnumeratingChangesUpToSyncAnchor:(NSFileProviderSyncAnchor)anchor
                                    moreComing:(BOOL)moreComing;
- (void)finishEnumeratingWithError:(NSError*)error;
@end

@protocol NSFileProviderEnumerator <NSObject>
- (void)invalidate;
- (void)enumerateItemsForObserver:(id<NSFileProviderEnumerationObserver>)observer
                   startingAtPage:(NSFileProviderPage)page;
@optional
- (void)enumerateChangesForObserver:(id<NSFileProviderChangeObserver>)observer
                     fromSyncAnchor:(NSFileProviderSyncAnchor)syncAnchor;
- (void)currentSyncAnchorWithCompletionHandler:
    (void (^)(NSFileProviderSyncAnchor currentAnchor))completionHandler;
@end

@protocol NSFileProviderEnumerating <NSObject>
- (id<NSFileProviderEnumerator>)enumeratorForContainerItemIdentifier:
                                    (NSFileProviderItemIdentifier)containerItemIdentifier
                                                             request:(NSFileProviderRequest*)request
                                                               error:(NSError**)error;
@end

@protocol NSFileProviderReplicatedExtension <NSFileProviderEnumerating>
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain;
- (void)invalidate;
- (NSProgress*)itemForIdentifier:(NSFileProviderItemIdentifier)identifier
                         request:(NSFileProviderRequest*)request
               completionHandler:
                   (void (^)(NSFileProviderItem item, NSError* error))completionHandler;
- (NSProgress*)fetchContentsForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                                          version:(NSFileProviderItemVersion*)requestedVersion
                                          request:(NSFileProviderRequest*)request
                                completionHandler:(void (^)(NSURL* fileContents,
                                                            NSFileProviderItem item,
                                                            NSError* error))completionHandler;
- (NSProgress*)createItemBasedOnTemplate:(NSFileProviderItem)itemTemplate
                                  fields:(NSFileProviderItemFields)fields
                                contents:(NSURL*)url
                                 options:(NSFileProviderCreateItemOptions)options
                                 request:(NSFileProviderRequest*)request
                       completionHandler:(void (^)(NSFileProviderItem createdItem,
                                                   NSFileProviderItemFields stillPendingFields,
                                                   BOOL shouldFetchContent,
                                                   NSError* error))completionHandler;
- (NSProgress*)modifyItem:(NSFileProviderItem)item
              baseVersion:(NSFileProviderItemVersion*)version
            changedFields:(NSFileProviderItemFields)changedFields
                 contents:(NSURL*)newContents
                  options:(NSFileProviderModifyItemOptions)options
                  request:(NSFileProviderRequest*)request
        completionHandler:(void (^)(NSFileProviderItem item,
                                    NSFileProviderItemFields stillPendingFields,
                                    BOOL shouldFetchContent, NSError* error))completionHandler;
- (NSProgress*)deleteItemWithIdentifier:(NSFileProviderItemIdentifier)identifier
                            baseVersion:(NSFileProviderItemVersion*)version
                                options:(NSFileProviderDeleteItemOptions)options
                                request:(NSFileProviderRequest*)request
                      completionHandler:(void (^)(NSError* error))completionHandler;
@end

@protocol NSFileProviderCustomAction <NSObject>
- (NSProgress*)performActionWithIdentifier:(NSFileProviderExtensionActionIdentifier)actionIdentifier
                    onItemsWithIdentifiers:(NSArray*)itemIdentifiers
                         completionHandler:(void (^)(NSError* error))completionHandler;
@end

@protocol NSFileProviderPartialContentFetching <NSObject>
- (NSProgress*)
    fetchPartialContentsForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                                      version:(NSFileProviderItemVersion*)requestedVersion
                                      request:(NSFileProviderRequest*)request
                                 minimalRange:(NSRange)requestedRange
                                   aligningTo:(NSUInteger)alignment
                                      options:(NSFileProviderFetchContentsOptions)options
                            completionHandler:(void (^)(NSURL* fileContents,
                                                        NSFileProviderItem item,
                                                        NSRange retrievedRange,
                                                        NSFileProviderMaterializationFlags flags,
                                                        NSError* error))completionHandler;
@end

@interface NSFileProviderManager : NSObject {
  NSFileProviderDomain* _domain;
}
+ (instancetype)managerForDomain:(NSFileProviderDomain*)domain;
- (void)evictItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
              completionHandler:(void (^)(NSError* error))completionHandler;
- (void)requestDownloadForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                              requestedRange:(NSRange)rangeToMaterialize
                           completionHandler:(void (^)(NSError* error))completionHandler;
- (void)signalEnumeratorForContainerItemIdentifier:
            (NSFileProviderItemIdentifier)containerItemIdentifier
                                 completionHandler:(void (^)(NSError* error))completion;
+ (void)addDomain:(NSFileProviderDomain*)domain
    completionHandler:(void (^)(NSError* error))completionHandler;
+ (void)removeDomain:(NSFileProviderDomain*)domain
    completionHandler:(void (^)(NSError* error))completionHandler;
@end

#ifdef __cplusplus
}
#endif
