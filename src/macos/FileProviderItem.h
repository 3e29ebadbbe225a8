// Items turned into each other.
//
// Threads: properties may be read on any thread, on both sides.
#pragma once

#import <FileProvider/FileProvider.h>

#include <vector>

#include "platform/file_provider/NSFileProviderItem.h"

/// One of our items, as the platform sees it. Each property is asked of ours anew when it is read.
@interface FileProviderItem : NSObject <NSFileProviderItem> {
  kestrune::platform::NSFileProviderItemPtr item_;
}
- (instancetype)initWithItem:(kestrune::platform::NSFileProviderItemPtr)item;
- (instancetype)init NS_UNAVAILABLE;
@end

namespace kestrune::macos {

/// Autoreleased; nil for null.
FileProviderItem* toPlatform(const platform::NSFileProviderItemPtr& item);
NSArray* toPlatform(const std::vector<platform::NSFileProviderItemPtr>& items);

/// What the platform's item says now. Optional properties that it does not answer to are none.
platform::NSFileProviderItemPtr itemFrom(::NSFileProviderItem item);

}  // namespace kestrune::macos
