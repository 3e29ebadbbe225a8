#include "extension/ItemPath.h"

#include "namespace/FileProviderItem.h"

namespace kestrune {

std::string pathOfItem(const platform::NSFileProviderItem& item) {
  return FileProviderItem::childPath(FileProviderItem::path(item.parentItemIdentifier()),
                                     item.filename());
}

bool isFolder(const platform::NSFileProviderItem& item) {
  return item.contentType() == platform::UTType::folder();
}

}  // namespace kestrune
