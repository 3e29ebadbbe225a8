#include "macos/FileProviderItem.h"

#include <utility>

#include "macos/Unavailable.h"
#include "macos/Values.h"

using kestrune::macos::identifierToPlatform;
using kestrune::macos::toPlatform;

@implementation FileProviderItem

- (instancetype)initWithItem:(kestrune::platform::NSFileProviderItemPtr)item {
  if ((self = [super init])) item_ = std::move(item);
  return self;
}

- (instancetype)init {
  kestrune::macos::endAtUnimplementedInitializer("KestruneFileProvider.FileProviderItem");
}

- (NSFileProviderItemIdentifier)itemIdentifier {
  return identifierToPlatform(item_->itemIdentifier());
}

- (NSFileProviderItemIdentifier)parentItemIdentifier {
  return identifierToPlatform(item_->parentItemIdentifier());
}

- (NSString*)filename {
  return toPlatform(item_->filename());
}

- (UTType*)contentType {
  return toPlatform(item_->contentType().value_or(kestrune::platform::UTType::data()));
}

- (NSFileProviderItemCapabilities)capabilities {
  using Capabilities = kestrune::platform::NSFileProviderItemCapabilities;
  return static_cast<NSFileProviderItemCapabilities>(
      item_->capabilities().value_or(Capabilities::allowsReading));
}

- (NSNumber*)documentSize {
  const auto size = item_->documentSize();
  return size ? [NSNumber numberWithLongLong:*size] : nil;
}

- (NSDate*)contentModificationDate {
  const auto date = item_->contentModificationDate();
  return date ? toPlatform(*date) : nil;
}

- (NSDate*)creationDate {
  const auto date = item_->creationDate();
  return date ? toPlatform(*date) : nil;
}

- (NSFileProviderContentPolicy)contentPolicy {
  return static_cast<NSFileProviderContentPolicy>(item_->contentPolicy());
}

- (NSFileProviderItemVersion*)itemVersion {
  const auto version = item_->itemVersion();
  return version ? toPlatform(*version) : nil;
}

@end

namespace kestrune::macos {

namespace {

/// A copy of what the platform's item said.
class ItemCopy final : public platform::NSFileProviderItem {
 public:
  explicit ItemCopy(::NSFileProviderItem item)
      : identifier_(identifierFrom([item itemIdentifier])),
        parent_(identifierFrom([item parentItemIdentifier])),
        filename_(textFrom([item filename])) {
    if ([item respondsToSelector:@selector(contentType)]) type_ = typeFrom([item contentType]);
    if ([item respondsToSelector:@selector(documentSize)] && [item documentSize] != nil)
      size_ = [[item documentSize] longLongValue];
    if ([item respondsToSelector:@selector(contentModificationDate)])
      modified_ = dateFrom([item contentModificationDate]);
    if ([item respondsToSelector:@selector(creationDate)]) created_ = dateFrom([item creationDate]);
    if ([item respondsToSelector:@selector(itemVersion)])
      version_ = versionFrom([item itemVersion]);
  }

  platform::NSFileProviderItemIdentifier itemIdentifier() const override { return identifier_; }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override { return parent_; }
  std::string filename() const override { return filename_; }
  std::optional<platform::UTType> contentType() const override { return type_; }
  std::optional<std::int64_t> documentSize() const override { return size_; }
  std::optional<platform::Date> contentModificationDate() const override { return modified_; }
  std::optional<platform::Date> creationDate() const override { return created_; }
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    return version_;
  }

 private:
  const platform::NSFileProviderItemIdentifier identifier_;
  const platform::NSFileProviderItemIdentifier parent_;
  const std::string filename_;
  std::optional<platform::UTType> type_;
  std::optional<std::int64_t> size_;
  std::optional<platform::Date> modified_;
  std::optional<platform::Date> created_;
  std::optional<platform::NSFileProviderItemVersion> version_;
};

}  // namespace

FileProviderItem* toPlatform(const platform::NSFileProviderItemPtr& item) {
  return item ? [[[FileProviderItem alloc] initWithItem:item] autorelease] : nil;
}

NSArray* toPlatform(const std::vector<platform::NSFileProviderItemPtr>& items) {
  NSMutableArray* const array = [NSMutableArray arrayWithCapacity:items.size()];
  for (const auto& item : items) {
    FileProviderItem* const shown = [[FileProviderItem alloc] initWithItem:item];
    [array addObject:shown];
    [shown release];
  }
  return array;
}

platform::NSFileProviderItemPtr itemFrom(::NSFileProviderItem item) {
  return std::make_shared<ItemCopy>(item);
}

}  // namespace kestrune::macos
