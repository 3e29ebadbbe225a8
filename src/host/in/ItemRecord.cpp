#include "host/in/ItemRecord.h"

#include <algorithm>

namespace kestrune::host {

namespace {

using platform::Date;

// The years 0 and 9999: what dates on the wire can name, and what every tool that prints times can print.
constexpr Date kEarliest = std::chrono::sys_days(std::chrono::year(0) / 1 / 1);
constexpr Date kLatest =
    std::chrono::sys_days(std::chrono::year(10000) / 1 / 1) - std::chrono::microseconds(1);

}  // namespace

ItemRecord ItemRecord::from(const platform::NSFileProviderItem& item) {
  ItemRecord record;
  record.identifier = item.itemIdentifier();
  record.parentIdentifier = item.parentItemIdentifier();
  record.name = item.filename();
  record.isFolder = item.contentType() == platform::UTType::folder();
  if (!record.isFolder)
    record.sizeBytes = std::max<std::int64_t>(0, item.documentSize().value_or(0));
  record.modified = std::clamp(item.contentModificationDate().value_or(Date()), kEarliest, kLatest);
  if (auto version = item.itemVersion()) {
    record.contentVersion = std::move(version->contentVersion);
    record.metadataVersion = std::move(version->metadataVersion);
  }
  return record;
}

bool ItemRecord::sameContents(const ItemRecord& other) const {
  if (contentVersion || other.contentVersion) return contentVersion == other.contentVersion;
  return sizeBytes == other.sizeBytes && modified == other.modified;
}

}  // namespace kestrune::host
