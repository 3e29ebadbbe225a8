// An enumerator of the extension, for the host behind the connection.
//
// Items are written on the thread on which the extension reports them, a few hundred a message, and the messages go one after the
// other as fast as the host takes them: a folder may be of any size.
//
// Threads: `serveEnumerator` in the loop.
#pragma once

#include <memory>

#include "boundary/Loop.h"
#include "boundary/Wire.h"
#include "platform/file_provider/NSFileProviderEnumerator.h"

namespace kestrune::boundary {

wire::Enumerator::Client serveEnumerator(
    std::shared_ptr<Loop> loop, std::shared_ptr<platform::NSFileProviderEnumerator> enumerator);

}  // namespace kestrune::boundary
