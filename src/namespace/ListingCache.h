// The last listing of each folder that was handed to the system, one small file per folder: the
// only memory of what the system was told, and the base that changes are computed from. It answers
// no look-up and no enumeration.
//
// Files lie in the listing-cache directory; the file of the folder P is "listing-" + P with every
// "/" replaced by "_" +
// ".json", so "/a_b" and "/a/b" share one. Form: docs/formats/listing-cache.md.
//
// Threads: callable from any thread, no locks: files are read and replaced whole, and of two saves
// that race one wins. Fails: never to the caller. What cannot be read counts as not there; what
// cannot be written leaves the old file.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "api/KestruneAPI.h"
#include "platform/values/Date.h"

namespace kestrune {

struct CachedEntry {
  std::string name;
  std::string type;  // the service's word, as it came
  std::int64_t size = 0;
  platform::Date modifiedAt;  // whole seconds once it has been in a file
  bool operator==(const CachedEntry&) const = default;
};

struct CachedListing {
  std::vector<CachedEntry> entries;
  std::string token;
};

/// Names by what happened to them since the cached listing; each name once, in no particular order.
struct ListingDifference {
  std::vector<std::string> deleted;
  std::vector<std::string> added;
  std::vector<std::string> modified;
};

class ListingCache {
 public:
  ListingCache() = delete;

  /// The cache directory, made if it is missing.
  static std::filesystem::path dir();

  /// Replaces the listing of `path`. Fractions of seconds are cut.
  static void save(const std::vector<KestruneAPI::Entry>& entries, const std::string& token,
                   const std::string& path);

  /// The listing of `path` that was saved last; an empty folder's is empty, not absent.
  static std::optional<CachedListing> load(const std::string& path);

  /// What changed from `old` to `fresh`. Names are compared byte by byte; of a name that occurs
  /// more than once the first entry counts. Modified: another size, another type word, or times
  /// more than 1.0 second apart (the tolerance makes up for the fractions that the cache loses).
  static ListingDifference diff(const std::vector<CachedEntry>& old,
                                const std::vector<KestruneAPI::Entry>& fresh);

 private:
  static std::filesystem::path file(const std::string& path);
};

}  // namespace kestrune
