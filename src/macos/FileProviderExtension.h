// The principal class that the system creates by name, once per domain. It only turns the platform's
// objects into calls of our extension and back.
//
// Threads: the system calls it on any thread; handlers are called on any thread.
#pragma once

#import <FileProvider/FileProvider.h>

#include "macos/ExtensionCalls.h"
#include "macos/Retained.h"

@interface FileProviderExtension : NSObject <NSFileProviderReplicatedExtension,
                                             NSFileProviderCustomAction,
                                             NSFileProviderPartialContentFetching> {
  kestrune::macos::Retained<NSFileProviderDomain*> domain_;
  kestrune::macos::Extension extension_;
}
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain;
/// The same in front of another extension.
- (instancetype)initWithDomain:(NSFileProviderDomain*)domain
                     extension:(kestrune::macos::Extension)extension;
- (instancetype)init NS_UNAVAILABLE;
@end
