// What an item that the system hands in says about itself.
#pragma once

#include <string>

#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune {

/// The remote path that the item's parent and filename make: "/x" in the root, "/a/x" in "/a".
std::string pathOfItem(const platform::NSFileProviderItem& item);

/// Whether the item answers to its content type and that is the folder type.
bool isFolder(const platform::NSFileProviderItem& item);

}  // namespace kestrune
