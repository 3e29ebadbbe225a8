// Paths as texts, by the platform's rules (Apple's documentation of NSString's path utilities).
// They work on bytes and know nothing of any file system: remote paths and local ones alike. Only
// "/" separates and only "." begins an extension; no character is ever changed, decoded or
// normalised.
//
//   path              lastPathComponent   deletingLastPathComponent   pathExtension
//   "/tmp/a.tar.gz"   "a.tar.gz"          "/tmp"                      "gz"
//   "/tmp/"           "tmp"               "/"                         ""
//   "scratch///"      "scratch"           ""                          ""
//   "/"               "/"                 "/"                         ""
//   ""                ""                  ""                          ""
//   ".profile"        ".profile"          ""                          ""
//
// Threads: pure functions; callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::platform {

/// The last component, without trailing slashes; "/" for a path of slashes alone.
std::string lastPathComponent(std::string_view path);

/// The path without its last component and without the slashes before it; "/" if only the root
/// remains, "" if nothing.
std::string deletingLastPathComponent(std::string_view path);

/// What follows the last dot of the last component; empty if there is no dot, if the dot is the
/// component's first character, or if nothing follows it.
std::string pathExtension(std::string_view path);

}  // namespace kestrune::platform
