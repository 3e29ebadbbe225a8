// Errors turned into each other: domain, code, user info and the description that people read.
//
// An error of the platform that passes through the extension comes out as the very object that went
// in. The file-provider domain's own errors go out with an empty user info: the platform describes
// them in the user's language.
//
// Threads: callable from any thread that has an autorelease pool.
#pragma once

#import <Foundation/Foundation.h>

#include "platform/values/NSError.h"

namespace kestrune::macos {

/// Autoreleased; nil for null.
::NSError* toPlatform(const platform::NSErrorPtr& error);

/// Null for nil.
platform::NSErrorPtr errorFrom(::NSError* error);

}  // namespace kestrune::macos
