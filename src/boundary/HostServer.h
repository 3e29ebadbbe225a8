// The host's end of what an extension asks of it.
//
// Threads: a capability of the loop; the services are called on the shared executor.
#pragma once

#include <memory>

#include "boundary/Loop.h"
#include "boundary/RemoteExtension.h"
#include "boundary/Wire.h"

namespace kestrune::boundary {

wire::Host::Client serveHost(std::shared_ptr<Loop> loop, HostServices services);

}  // namespace kestrune::boundary
