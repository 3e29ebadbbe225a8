// The host's end of what an extension asks of it.
//
// Threads: a capability of the loop; the services are called on the shared executor.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "boundary/Loop.h"
#include "boundary/RemoteExtension.h"
#include "boundary/Wire.h"

namespace kestrune::boundary {

/// What the program tells of an operation's progress; called in the loop.
using Progressed =
    std::function<void(std::uint64_t operation, std::int64_t total, std::int64_t completed)>;

wire::Host::Client serveHost(std::shared_ptr<Loop> loop, HostServices services,
                             Progressed progressed);

}  // namespace kestrune::boundary
