#include "macos/FileProviderExtension.h"

#include <utility>

#include "macos/Errors.h"
#include "macos/FileProviderEnumerator.h"
#include "macos/FileProviderItem.h"
#include "macos/Progress.h"
#include "macos/Retained.h"
#include "macos/Surroundings.h"
#include "macos/Unavailable.h"
#include "macos/Values.h"

namespace kestrune::macos {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;

using ItemBlock = void (^)(::NSFileProviderItem, ::NSError*);
using ContentsBlock = void (^)(NSURL*, ::NSFileProviderItem, ::NSError*);
using ChangeBlock = void (^)(::NSFileProviderItem, ::NSFileProviderItemFields, BOOL, ::NSError*);
using DoneBlock = void (^)(::NSError*);
using PartialBlock = void (^)(NSURL*, ::NSFileProviderItem, ::NSRange,
                              ::NSFileProviderMaterializationFlags, ::NSError*);

NSURL* urlOrNil(const std::optional<std::filesystem::path>& file) {
  return file ? fileToPlatform(*file) : nil;
}

Replicated::ItemHandler handler(ItemBlock block) {
  return [answer = RetainedBlock<ItemBlock>(block)](const NSFileProviderItemPtr& item,
                                                    const NSErrorPtr& error) {
    @autoreleasepool {
      answer.get()(toPlatform(item), toPlatform(error));
    }
  };
}

Replicated::ContentsHandler handler(ContentsBlock block) {
  return [answer = RetainedBlock<ContentsBlock>(block)](
             const std::optional<std::filesystem::path>& file, const NSFileProviderItemPtr& item,
             const NSErrorPtr& error) {
    @autoreleasepool {
      answer.get()(urlOrNil(file), toPlatform(item), toPlatform(error));
    }
  };
}

Replicated::ChangeHandler handler(ChangeBlock block) {
  return [answer = RetainedBlock<ChangeBlock>(block)](
             const NSFileProviderItemPtr& item, platform::NSFileProviderItemFields stillPending,
             bool shouldFetchContent, const NSErrorPtr& error) {
    @autoreleasepool {
      answer.get()(toPlatform(item), static_cast<::NSFileProviderItemFields>(stillPending),
                   shouldFetchContent, toPlatform(error));
    }
  };
}

Replicated::DoneHandler handler(DoneBlock block) {
  return [answer = RetainedBlock<DoneBlock>(block)](const NSErrorPtr& error) {
    @autoreleasepool {
      answer.get()(toPlatform(error));
    }
  };
}

platform::NSFileProviderPartialContentFetching::PartialContentsHandler handler(PartialBlock block) {
  return [answer = RetainedBlock<PartialBlock>(block)](
             const std::optional<std::filesystem::path>& file, const NSFileProviderItemPtr& item,
             const platform::NSRange& range, platform::NSFileProviderMaterializationFlags flags,
             const NSErrorPtr& error) {
    @autoreleasepool {
      answer.get()(urlOrNil(file), toPlatform(item), toPlatform(range),
                   static_cast<::NSFileProviderMaterializationFlags>(flags), toPlatform(error));
    }
  };
}

}  // namespace

}  // namespace kestrune::macos

namespace macos = kestrune::macos;
namespace platform = kestrune::platform;

@implementation FileProviderExtension

- (instancetype)initWithDomain:(NSFileProviderDomain*)domain {
  macos::installSurroundings();
  return [self initWithDomain:domain
                    extension:macos::makeExtension(macos::textFrom([domain identifier]),
                                                   macos::textFrom([domain displayName]))];
}

- (instancetype)initWithDomain:(NSFileProviderDomain*)domain extension:(macos::Extension)extension {
  if ((self = [super init])) {
    domain_ = macos::Retained<NSFileProviderDomain*>(domain);
    extension_ = std::move(extension);
  }
  return self;
}

- (instancetype)init {
  macos::endAtUnimplementedInitializer("KestruneFileProvider.FileProviderExtension");
}

- (void)invalidate {
  macos::invalidate(extension_);
}

- (NSProgress*)itemForIdentifier:(NSFileProviderItemIdentifier)identifier
                         request:(NSFileProviderRequest*)request
               completionHandler:
                   (void (^)(NSFileProviderItem item, NSError* error))completionHandler {
  return macos::shown(macos::item(extension_, macos::identifierFrom(identifier),
                                  macos::requestFrom(request), macos::handler(completionHandler)));
}

- (NSProgress*)fetchContentsForItemWithIdentifier:(NSFileProviderItemIdentifier)itemIdentifier
                                          version:(NSFileProviderItemVersion*)requestedVersion
                                          request:(NSFileProviderRequest*)request
                                completionHandler:(void (^)(NSURL* fileContents,
                                                            NSFileProviderItem item,
                                                            NSError* error))completionHandler {
  return macos::shown(macos::fetchContents(
      extension_, macos::identifierFrom(itemIdentifier), macos::versionFrom(requestedVersion),
      macos::requestFrom(request), macos::handler(completionHandler)));
}

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
                                                        NSError* error))completionHandler {
  macos::PartialFetchCall call;
  call.identifier = macos::identifierFrom(itemIdentifier);
  call.requestedVersion =
      macos::versionFrom(requestedVersion).value_or(platform::NSFileProviderItemVersion{});
  call.request = macos::requestFrom(request);
  call.minimalRange = macos::rangeFrom(requestedRange);
  call.alignment = macos::countFrom(alignment);
  call.options = static_cast<platform::NSFileProviderFetchContentsOptions>(options);
  return macos::shown(
      macos::fetchPartialContents(extension_, std::move(call), macos::handler(completionHandler)));
}

- (NSProgress*)createItemBasedOnTemplate:(NSFileProviderItem)itemTemplate
                                  fields:(NSFileProviderItemFields)fields
                                contents:(NSURL*)url
                                 options:(NSFileProviderCreateItemOptions)options
                                 request:(NSFileProviderRequest*)request
                       completionHandler:(void (^)(NSFileProviderItem createdItem,
                                                   NSFileProviderItemFields stillPendingFields,
                                                   BOOL shouldFetchContent,
                                                   NSError* error))completionHandler {
  macos::CreationCall call;
  call.itemTemplate = macos::itemFrom(itemTemplate);
  call.fields = static_cast<platform::NSFileProviderItemFields>(fields);
  call.contents = macos::pathFrom(url);
  call.options = static_cast<platform::NSFileProviderCreateItemOptions>(options);
  call.request = macos::requestFrom(request);
  return macos::shown(
      macos::createItem(extension_, std::move(call), macos::handler(completionHandler)));
}

- (NSProgress*)modifyItem:(NSFileProviderItem)item
              baseVersion:(NSFileProviderItemVersion*)version
            changedFields:(NSFileProviderItemFields)changedFields
                 contents:(NSURL*)newContents
                  options:(NSFileProviderModifyItemOptions)options
                  request:(NSFileProviderRequest*)request
        completionHandler:(void (^)(NSFileProviderItem item,
                                    NSFileProviderItemFields stillPendingFields,
                                    BOOL shouldFetchContent, NSError* error))completionHandler {
  macos::ModificationCall call;
  call.item = macos::itemFrom(item);
  call.baseVersion = macos::versionFrom(version).value_or(platform::NSFileProviderItemVersion{});
  call.changedFields = static_cast<platform::NSFileProviderItemFields>(changedFields);
  call.newContents = macos::pathFrom(newContents);
  call.options = static_cast<platform::NSFileProviderModifyItemOptions>(options);
  call.request = macos::requestFrom(request);
  return macos::shown(
      macos::modifyItem(extension_, std::move(call), macos::handler(completionHandler)));
}

- (NSProgress*)deleteItemWithIdentifier:(NSFileProviderItemIdentifier)identifier
                            baseVersion:(NSFileProviderItemVersion*)version
                                options:(NSFileProviderDeleteItemOptions)options
                                request:(NSFileProviderRequest*)request
                      completionHandler:(void (^)(NSError* error))completionHandler {
  return macos::shown(
      macos::deleteItem(extension_, macos::identifierFrom(identifier),
                        macos::versionFrom(version).value_or(platform::NSFileProviderItemVersion{}),
                        static_cast<platform::NSFileProviderDeleteItemOptions>(options),
                        macos::requestFrom(request), macos::handler(completionHandler)));
}

- (NSProgress*)performActionWithIdentifier:(NSFileProviderExtensionActionIdentifier)actionIdentifier
                    onItemsWithIdentifiers:(NSArray*)itemIdentifiers
                         completionHandler:(void (^)(NSError* error))completionHandler {
  return macos::shown(macos::performAction(extension_, macos::textFrom(actionIdentifier),
                                           macos::identifiersFrom(itemIdentifiers),
                                           macos::handler(completionHandler)));
}

- (id<NSFileProviderEnumerator>)enumeratorForContainerItemIdentifier:
                                    (NSFileProviderItemIdentifier)containerItemIdentifier
                                                             request:(NSFileProviderRequest*)request
                                                               error:(NSError**)error {
  auto made = macos::makeEnumerator(extension_, macos::identifierFrom(containerItemIdentifier),
                                    macos::requestFrom(request));
  if (!made.enumerator) {
    if (error != nullptr) *error = macos::toPlatform(made.error);
    return nil;
  }
  return
      [[[FileProviderEnumerator alloc] initWithEnumerator:std::move(made.enumerator)] autorelease];
}

@end
