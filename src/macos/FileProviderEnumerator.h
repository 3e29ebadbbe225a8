// Enumerators and their observers turned into each other.
//
// Threads: as platform/file_provider/NSFileProviderEnumerator.h says, on both sides.
#pragma once

#import <FileProvider/FileProvider.h>

#include <memory>

#include "platform/file_provider/NSFileProviderEnumerator.h"

/// One of our enumerators, as the platform sees it.
@interface FileProviderEnumerator : NSObject <NSFileProviderEnumerator> {
  std::shared_ptr<kestrune::platform::NSFileProviderEnumerator> enumerator_;
}
- (instancetype)initWithEnumerator:
    (std::shared_ptr<kestrune::platform::NSFileProviderEnumerator>)enumerator;
- (instancetype)init NS_UNAVAILABLE;
@end
