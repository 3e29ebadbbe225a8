// The small values of the file-provider protocols: identifiers, field sets, policies, versions,
// requests, ranges. Names, values and bits are the platform's own (Apple's File Provider
// documentation), so that one extension serves both hosts. All are plain values; they may be copied
// between threads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace kestrune::platform {

/// Names one item of a domain. Its meaning is the extension's business; hosts compare and hand
/// back, no more.
using NSFileProviderItemIdentifier = std::string;

inline constexpr const char* NSFileProviderRootContainerItemIdentifier =
    "NSFileProviderRootContainerItemIdentifier";
inline constexpr const char* NSFileProviderWorkingSetContainerItemIdentifier =
    "NSFileProviderWorkingSetContainerItemIdentifier";
inline constexpr const char* NSFileProviderTrashContainerItemIdentifier =
    "NSFileProviderTrashContainerItemIdentifier";

/// A point in the history of a container's content, as opaque bytes.
using NSFileProviderSyncAnchor = std::string;

/// A position in a long enumeration, as opaque bytes.
using NSFileProviderPage = std::string;
inline constexpr const char* NSFileProviderInitialPageSortedByName =
    "NSFileProviderInitialPageSortedByName";

/// What the user may do with an item: a set of bits.
enum class NSFileProviderItemCapabilities : std::uint32_t {
  none = 0,
  allowsReading = 1U << 0U,  // for folders: enumerating their content
  allowsWriting = 1U << 1U,  // for folders: adding items
  allowsReparenting = 1U << 2U,
  allowsRenaming = 1U << 3U,
  allowsTrashing = 1U << 4U,
  allowsDeleting = 1U << 5U,
  allowsEvicting = 1U << 6U,
  allowsExcludingFromSync = 1U << 7U,
};

/// Which properties of an item changed: a set of bits.
enum class NSFileProviderItemFields : std::uint32_t {
  none = 0,
  contents = 1U << 0U,
  filename = 1U << 1U,
  parentItemIdentifier = 1U << 2U,
  lastUsedDate = 1U << 3U,
  tagData = 1U << 4U,
  favoriteRank = 1U << 5U,
  creationDate = 1U << 6U,
  contentModificationDate = 1U << 7U,
  fileSystemFlags = 1U << 8U,
  extendedAttributes = 1U << 9U,
  typeAndCreator = 1U << 10U,
};

enum class NSFileProviderCreateItemOptions : std::uint32_t {
  none = 0,
  mayAlreadyExist = 1,
  deletionConflicted = 2
};
enum class NSFileProviderModifyItemOptions : std::uint32_t { none = 0, mayAlreadyExist = 1 };
enum class NSFileProviderDeleteItemOptions : std::uint32_t { none = 0, recursive = 1 };
enum class NSFileProviderFetchContentsOptions : std::uint32_t { none = 0, strictVersioning = 1 };
enum class NSFileProviderMaterializationFlags : std::uint32_t { none = 0, knownSparseRanges = 1 };

/// When the system fetches contents and whether it may drop them.
enum class NSFileProviderContentPolicy : std::int64_t {
  inherited = 0,
  downloadLazily = 1,
  downloadLazilyAndEvictOnRemoteUpdate = 2,
  downloadEagerlyAndKeepDownloaded = 3,
};

template <class Set>
concept NSFileProviderOptionSet = std::is_same_v<Set, NSFileProviderItemCapabilities> ||
                                  std::is_same_v<Set, NSFileProviderItemFields> ||
                                  std::is_same_v<Set, NSFileProviderDeleteItemOptions>;

template <NSFileProviderOptionSet Set>
constexpr Set operator|(Set a, Set b) {
  return static_cast<Set>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

/// Whether `set` and `members` have a bit in common.
template <NSFileProviderOptionSet Set>
constexpr bool contains(Set set, Set members) {
  return (static_cast<std::uint32_t>(set) & static_cast<std::uint32_t>(members)) != 0;
}

/// Two opaque texts of bytes: equal content versions promise equal contents.
struct NSFileProviderItemVersion {
  std::string contentVersion;
  std::string metadataVersion;
  bool operator==(const NSFileProviderItemVersion&) const = default;
};

/// Who asks, and why. Hosts fill in what they know.
struct NSFileProviderRequest {
  bool isSystemRequest = false;
  bool isFileViewerRequest = false;
  std::optional<std::string>
      requestingExecutable;  // absolute path of the program whose call caused this request
};

/// A byte range: `length` bytes from `location` on.
struct NSRange {
  std::int64_t location = 0;
  std::int64_t length = 0;
  bool operator==(const NSRange&) const = default;
};

}  // namespace kestrune::platform
