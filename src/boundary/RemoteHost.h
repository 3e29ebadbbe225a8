// The host's manager and pasteboard, as the extension sees them in its own program.
//
// Threads: `make` in the loop, once it is connected; the objects on any.
#pragma once

#include "boundary/ExtensionServer.h"
#include "boundary/Loop.h"
#include "boundary/Wire.h"

namespace kestrune::boundary {

RemoteHost makeRemoteHost(const std::shared_ptr<Loop>& loop, wire::Host::Client host);

}  // namespace kestrune::boundary
