// The principal class that the system creates by name, once per domain. It only turns the platform's
// objects into calls of our extension and back.
//
// Threads: the system calls it on any thread; handlers are called on any thread.
#pragma once

#import <FileProvider/FileProvider.h>

#include "macos/ExtensionCalls.h"

@interface FileProviderExtension : NSObject <NSFileProviderReplicatedExtension,
                                             NSFileProviderCustomAction,
                                             NSFileProviderPartialContentFetching> {
  NSFileProviderDomain* domain_;
  kestrune::macos::Extension extension_;
}
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain;
- (instancetype)init NS_UNAVAILABLE;
@end
