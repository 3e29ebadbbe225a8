// What of a remembered state is still true, after a host that may have been killed or a power cut.
//
// Threads: a plain function; nobody else uses the contents meanwhile. Fails: throws NSPOSIXError.
#pragma once

#include "host/content/ContentDirectory.h"
#include "host/content/ContentState.h"

namespace kestrune::host {

/// The state that the disk agrees with. Never says that bytes are here that are not on the disk:
/// - What is said to be here and is a hole on the disk was lost with the power before it was written, and is not here.
/// - An unchanged file that is missing, or has another length, is not here at all: number 0, and no file.
/// - A changed file is as long as it is on the disk, since lengths are remembered later than they change. But what the
///   store still has of its version is not cut off: it is missing and can be fetched. What the log notes counts.
ContentState recoveredState(const std::shared_ptr<ContentDirectory>& directory, ContentState state);

}  // namespace kestrune::host
