// Which texts can be file names here. Every name that enters the host, whoever sent it, passes this one function: the
// kernel fails a whole listing with EIO for one bad name in it, and does not check all of these rules itself.
//
// Names are bytes: there is no Unicode normalisation, no case folding, and bytes that are not UTF-8 are as good as any.
//
// Threads: a pure function.
#pragma once

#include <string_view>

namespace kestrune::host {

/// The longest file name that Linux shows (NAME_MAX), in bytes.
inline constexpr std::size_t kLongestNameBytes = 255;

/// Why `name` cannot be a file name ("it contains a slash"), or null if it can.
const char* whyNotAFileName(std::string_view name);

}  // namespace kestrune::host
