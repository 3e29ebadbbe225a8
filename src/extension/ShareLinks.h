// Web links to items, as the service's web page understands them.
#pragma once

#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderTypes.h"

namespace kestrune {

/// The web page's address: `apiURL` without one "/api" at its end, and then without one "/".
std::string shareLinkBase(std::string apiURL);

/// One link a line, in the order of the items; the root has none. Empty if there is none. Callable
/// from any thread.
std::string shareLinks(const std::string& base,
                       const std::vector<platform::NSFileProviderItemIdentifier>& items);

}  // namespace kestrune
