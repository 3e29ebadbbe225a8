// What an extension in another program may ask of its host, answered by this process's own manager and pasteboard.
#pragma once

#include "boundary/RemoteExtension.h"

namespace kestrune::host {

/// Threads: the services may be called on any thread.
boundary::HostServices platformServices(platform::NSFileProviderDomain domain);

}  // namespace kestrune::host
