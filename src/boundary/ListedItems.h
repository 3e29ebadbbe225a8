// The items of an enumeration, some hundred at a time: they stand in the message that they came in, and their content policies are
// asked for together when the first of them is read.
//
// Threads: `itemsOf` in the loop; the items anywhere but there.
#pragma once

#include <memory>
#include <vector>

#include "boundary/Loop.h"
#include "boundary/Wire.h"
#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune::boundary {

/// The items of `list`. Their `contentPolicy` waits for the extension's answer, ten seconds at most, and throws NSError if there is
/// none. Throws kj::Exception where the list makes no sense.
std::vector<platform::NSFileProviderItemPtr> itemsOf(
    capnp::Data::Reader list, std::shared_ptr<wire::Policies::Client> policies,
    const std::shared_ptr<Loop>& loop);

}  // namespace kestrune::boundary
