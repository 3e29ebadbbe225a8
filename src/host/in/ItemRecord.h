// What the host keeps of an item that the extension described: the properties read once, numbers brought into the
// ranges that a file system can show. The name is kept as it came; the tree decides whether it can be shown.
//
// Threads: plain values. `from` may do the short file input that reading an item's properties may do, so it is called
// without any lock of the host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune::host {

struct ItemRecord {
  platform::NSFileProviderItemIdentifier identifier;
  /// The folder that the item says it lies in; none where nobody said.
  std::optional<platform::NSFileProviderItemIdentifier> parentIdentifier;
  std::string name;
  bool isFolder = false;
  /// 0 for folders; at least 0.
  std::int64_t sizeBytes = 0;
  /// Within the years 0 to 9999.
  platform::Date modified{};
  /// Equal texts promise equal contents; none if the extension keeps no versions.
  std::optional<std::string> contentVersion;
  std::string metadataVersion;

  static ItemRecord from(const platform::NSFileProviderItem& item);

  /// Whether both describe the same contents: by version, else by size and time.
  bool sameContents(const ItemRecord& other) const;
};

/// One reported change of a folder's content, in the order of the reports.
struct ReportedChange {
  enum class Kind { update, deletion };
  Kind kind = Kind::update;
  /// For a deletion only the identifier counts.
  ItemRecord item;
};

}  // namespace kestrune::host
