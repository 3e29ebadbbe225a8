#include "api/Listing.h"

#include "platform/values/Json.h"
#include "platform/values/JsonDocument.h"

namespace kestrune {

platform::Date modificationDate(std::string_view text) {
  if (const auto date = platform::parseISO8601WithFraction(text)) return *date;
  if (const auto date = platform::parseISO8601(text)) return *date;
  return platform::dateNow();
}

std::vector<RemoteEntry> decodeListing(std::string_view reply) {
  const platform::JsonDocument document(reply);
  const auto root = platform::jsonObject(document.root(), "the listing");
  const auto records = platform::jsonArrayField(root, "entries");
  platform::jsonTextField(root, "path");  // must be there, says nothing new

  std::vector<RemoteEntry> entries;
  entries.reserve(records.size());
  for (const auto element : records) {
    const auto record = platform::jsonObject(element, "an entry");
    RemoteEntry entry;
    entry.name = platform::jsonTextField(record, "name");
    entry.type = platform::jsonTextField(record, "type");
    entry.size = platform::jsonIntegerField(record, "size");
    entry.modifiedAt = modificationDate(platform::jsonTextField(record, "modified_at"));
    entry.mimeType = platform::jsonOptionalTextField(record, "mime_type");
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::string encodeListing(const std::vector<RemoteEntry>& entries, std::string_view path) {
  platform::Json records = platform::Json::array();
  for (const RemoteEntry& entry : entries) {
    platform::Json record = {
        {"name", entry.name},
        {"type", entry.type},
        {"size", entry.size},
        {"modified_at", platform::formatISO8601Milliseconds(entry.modifiedAt)}};
    if (entry.mimeType) record["mime_type"] = *entry.mimeType;
    records.push_back(std::move(record));
  }
  return platform::encodeJson({{"entries", std::move(records)}, {"path", path}});
}

}  // namespace kestrune
