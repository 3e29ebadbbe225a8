// Names that operating systems scatter into folders and that are kept off the remote store.
#pragma once

#include <string_view>

namespace kestrune {

/// Whether `name` is such clutter: exactly ".Trash", ".trash" or ".DS_Store", or beginning with
/// "._", ".fseventsd",
/// ".Spotlight-" or ".DocumentRevisions". Compared byte by byte, with case. Callable from any
/// thread.
bool isSystemJunk(std::string_view name);

}  // namespace kestrune
