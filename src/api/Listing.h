// Folder listings as the service sends them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Date.h"

namespace kestrune {

/// One item of a remote folder. Everything in it is the service's word and may be hostile.
struct RemoteEntry {
  std::string name;
  /// "directory" marks a folder; every other word a file.
  std::string type;
  std::int64_t size = 0;
  platform::Date modifiedAt;
  std::optional<std::string> mimeType;
  bool operator==(const RemoteEntry&) const = default;
};

/// The time that `text` names, with or without a fraction; the present time if it names none: an
/// entry is not refused for its date.
platform::Date modificationDate(std::string_view text);

/// The entries of a listing reply, in the service's order. Throws NSCocoaError if the reply is not
/// a listing: a missing required field, a wrong type, malformed JSON. The larger part of a
/// listing's time is spent here.
std::vector<RemoteEntry> decodeListing(std::string_view reply);

/// Such a reply, with times in milliseconds. Throws NSCocoaError if a text is not valid UTF-8.
std::string encodeListing(const std::vector<RemoteEntry>& entries, std::string_view path);

}  // namespace kestrune
