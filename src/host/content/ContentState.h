// What the host remembers of one file's contents: where they lie, which version they are of, which bytes are here, and how
// often they were changed here.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <string>

#include "host/content/Ranges.h"
#include "platform/file_provider/NSFileProviderTypes.h"

namespace kestrune::host {

/// Names a file of the replica; never used again for another content. 0 is none.
using ContentNumber = std::uint64_t;

struct ContentState {
  ContentNumber number = 0;
  /// The content version at the store that these bytes are of; with changes, the one that the changes began from. Empty
  /// for a file that was made here.
  std::string version;
  /// The file's length here.
  std::int64_t sizeBytes = 0;
  /// How much of the store's version a changed file still has: beyond it nothing can be fetched. The whole length for
  /// an unchanged file, 0 for one that was made here.
  std::int64_t fetchableBytes = 0;
  /// The bytes that are here, fetched or written.
  Ranges present;
  /// Counts the changes here, in groups: changes between two snapshots count as one. Never falls.
  std::uint64_t edits = 0;
  /// Differs from the store's version.
  bool isEdited = false;

  bool isWhole() const { return present.contains({0, sizeBytes}); }
  bool operator==(const ContentState&) const = default;
};

/// What can be fetched of an item at this moment.
struct ContentSource {
  platform::NSFileProviderItemIdentifier identifier;
  platform::NSFileProviderItemVersion version;
  std::int64_t sizeBytes = 0;
};

}  // namespace kestrune::host
