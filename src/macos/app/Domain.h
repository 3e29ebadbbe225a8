// The domain that the app adds to the system: one account's folder in the Finder. The system starts
// the extension for it.
//
// Threads: any but those on which the system answers. Each function waits for the system's answer, 30
// seconds at most.
#pragma once

#include "platform/values/NSError.h"

namespace kestrune::macos {

/// Adds the domain; a domain that is there already stays as it is. Returns null, or why not.
platform::NSErrorPtr addDomain();

/// Takes the domain away with all that is local of it; the remote store stays as it is.
platform::NSErrorPtr removeDomain();

/// Tells the system that something changed, so that it asks the extension for changes.
platform::NSErrorPtr signalWorkingSet();

}  // namespace kestrune::macos
