// Random UUIDs as texts.
#pragma once

#include <string>

namespace kestrune::platform {

/// A new random (version 4) UUID in its standard text form with upper-case digits, as the platform
/// prints it: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F". May be called from any thread.
std::string newUUIDString();

}  // namespace kestrune::platform
