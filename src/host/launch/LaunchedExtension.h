// An extension that is started when it is needed and may die at any time: whoever calls this object notices a delay at most.
//
// What only asks is repeated on the next extension: a stream goes on where it ended, an enumeration is reported once it is complete.
// Changes and actions end with an interruption, since nobody knows whether they happened.
//
// Threads: as the protocols say. Handlers are called on any thread.
#pragma once

#include <memory>

#include "boundary/RemoteExtension.h"
#include "host/launch/ExtensionSource.h"

namespace kestrune::host {

/// The extension that `source` gives, with the protocols that it offers.
std::shared_ptr<platform::NSFileProviderReplicatedExtension> makeLaunchedExtension(
    std::shared_ptr<ExtensionSource> source, boundary::Offers offers);

}  // namespace kestrune::host
