// The shared-mime-info database of a Linux machine: which media types its filename extensions stand
// for.
//
// Letters match exactly first, then regardless of case (ASCII), as shared-mime-info prescribes; of
// several types the one with the highest weight counts. Only patterns of the form "*.ext" are
// registrations of "ext". Types that are no data (folders, devices, sockets) are left out.
//
// Threads: callable from any thread. The database is read once, on first use.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

/// The type registered for a filename extension (without its dot); none if there is none.
std::optional<std::string> registeredMediaType(std::string_view filenameExtension);

}  // namespace kestrune::platform
