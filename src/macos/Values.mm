#include "macos/Values.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "platform/values/UTF8.h"

namespace kestrune::macos {

namespace {

template <class Ours, class Platforms>
constexpr bool same(Ours ours, Platforms platforms) {
  return static_cast<std::uint64_t>(ours) == static_cast<std::uint64_t>(platforms);
}

using Fields = platform::NSFileProviderItemFields;
static_assert(same(Fields::contents, NSFileProviderItemContents) &&
              same(Fields::filename, NSFileProviderItemFilename) &&
              same(Fields::parentItemIdentifier, NSFileProviderItemParentItemIdentifier) &&
              same(Fields::lastUsedDate, NSFileProviderItemLastUsedDate) &&
              same(Fields::tagData, NSFileProviderItemTagData) &&
              same(Fields::favoriteRank, NSFileProviderItemFavoriteRank) &&
              same(Fields::creationDate, NSFileProviderItemCreationDate) &&
              same(Fields::contentModificationDate, NSFileProviderItemContentModificationDate) &&
              same(Fields::fileSystemFlags, NSFileProviderItemFileSystemFlags) &&
              same(Fields::extendedAttributes, NSFileProviderItemExtendedAttributes) &&
              same(Fields::typeAndCreator, NSFileProviderItemTypeAndCreator));

using Capabilities = platform::NSFileProviderItemCapabilities;
static_assert(same(Capabilities::allowsReading, NSFileProviderItemCapabilitiesAllowsReading) &&
              same(Capabilities::allowsWriting, NSFileProviderItemCapabilitiesAllowsWriting) &&
              same(Capabilities::allowsReparenting,
                   NSFileProviderItemCapabilitiesAllowsReparenting) &&
              same(Capabilities::allowsRenaming, NSFileProviderItemCapabilitiesAllowsRenaming) &&
              same(Capabilities::allowsTrashing, NSFileProviderItemCapabilitiesAllowsTrashing) &&
              same(Capabilities::allowsDeleting, NSFileProviderItemCapabilitiesAllowsDeleting) &&
              same(Capabilities::allowsEvicting, NSFileProviderItemCapabilitiesAllowsEvicting) &&
              same(Capabilities::allowsExcludingFromSync,
                   NSFileProviderItemCapabilitiesAllowsExcludingFromSync));

using Policy = platform::NSFileProviderContentPolicy;
static_assert(same(Policy::inherited, NSFileProviderContentPolicyInherited) &&
              same(Policy::downloadLazily, NSFileProviderContentPolicyDownloadLazily) &&
              same(Policy::downloadLazilyAndEvictOnRemoteUpdate,
                   NSFileProviderContentPolicyDownloadLazilyAndEvictOnRemoteUpdate) &&
              same(Policy::downloadEagerlyAndKeepDownloaded,
                   NSFileProviderContentPolicyDownloadEagerlyAndKeepDownloaded));

static_assert(same(platform::NSFileProviderCreateItemOptions::mayAlreadyExist,
                   NSFileProviderCreateItemMayAlreadyExist) &&
              same(platform::NSFileProviderCreateItemOptions::deletionConflicted,
                   NSFileProviderCreateItemDeletionConflicted) &&
              same(platform::NSFileProviderModifyItemOptions::mayAlreadyExist,
                   NSFileProviderModifyItemMayAlreadyExist) &&
              same(platform::NSFileProviderDeleteItemOptions::recursive,
                   NSFileProviderDeleteItemRecursive) &&
              same(platform::NSFileProviderFetchContentsOptions::strictVersioning,
                   NSFileProviderFetchContentsOptionsStrictVersioning) &&
              same(platform::NSFileProviderMaterializationFlags::knownSparseRanges,
                   NSFileProviderMaterializationFlagsKnownSparseRanges));

constexpr const char* kReplacementCharacter = "\xEF\xBF\xBD";
// The platform counts from 2001-01-01.
constexpr double kSecondsFrom1970To2001 = 978'307'200;

bool isHighSurrogate(unichar unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(unichar unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

std::string withoutLoneSurrogates(NSString* text) {
  std::vector<unichar> units([text length]);
  [text getCharacters:units.data() range:NSMakeRange(0, units.size())];
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (isHighSurrogate(units[i]) && i + 1 < units.size() && isLowSurrogate(units[i + 1])) {
      ++i;
    } else if (isHighSurrogate(units[i]) || isLowSurrogate(units[i])) {
      units[i] = 0xFFFD;
    }
  }
  return textFrom([NSString stringWithCharacters:units.data() length:units.size()]);
}

/// Each byte that is no part of a character replaced.
std::string repaired(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t length = 4;
    while (length > 0 && (at + length > text.size() ||
                          !platform::isValidUTF8(std::string_view(text).substr(at, length)))) {
      --length;
    }
    // Of four valid bytes the first character may be shorter; the rest is valid just the same.
    result += length > 0 ? text.substr(at, length) : kReplacementCharacter;
    at += std::max<std::size_t>(length, 1);
  }
  return result;
}

NSString* decoded(const std::string& text) {
  return [[[NSString alloc] initWithBytes:text.data()
                                   length:text.size()
                                 encoding:NSUTF8StringEncoding] autorelease];
}

}  // namespace

std::string textFrom(NSString* text) {
  if (text == nil) return {};
  NSData* const bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
  return bytes != nil ? bytesFrom(bytes) : withoutLoneSurrogates(text);
}

NSString* toPlatform(const std::string& text) {
  NSString* const whole = decoded(text);
  return whole != nil ? whole : decoded(repaired(text));
}

platform::NSFileProviderItemIdentifier identifierFrom(::NSFileProviderItemIdentifier identifier) {
  if ([identifier isEqualToString: ::NSFileProviderRootContainerItemIdentifier])
    return platform::NSFileProviderRootContainerItemIdentifier;
  if ([identifier isEqualToString: ::NSFileProviderWorkingSetContainerItemIdentifier])
    return platform::NSFileProviderWorkingSetContainerItemIdentifier;
  if ([identifier isEqualToString: ::NSFileProviderTrashContainerItemIdentifier])
    return platform::NSFileProviderTrashContainerItemIdentifier;
  return textFrom(identifier);
}

::NSFileProviderItemIdentifier identifierToPlatform(
    const platform::NSFileProviderItemIdentifier& identifier) {
  if (identifier == platform::NSFileProviderRootContainerItemIdentifier)
    return ::NSFileProviderRootContainerItemIdentifier;
  if (identifier == platform::NSFileProviderWorkingSetContainerItemIdentifier)
    return ::NSFileProviderWorkingSetContainerItemIdentifier;
  if (identifier == platform::NSFileProviderTrashContainerItemIdentifier)
    return ::NSFileProviderTrashContainerItemIdentifier;
  return toPlatform(identifier);
}

std::vector<platform::NSFileProviderItemIdentifier> identifiersFrom(NSArray* identifiers) {
  std::vector<platform::NSFileProviderItemIdentifier> result;
  result.reserve([identifiers count]);
  for (NSString* identifier in identifiers) result.push_back(identifierFrom(identifier));
  return result;
}

std::string bytesFrom(NSData* data) {
  return data == nil ? std::string()
                     : std::string(static_cast<const char*>([data bytes]), [data length]);
}

NSData* dataToPlatform(const std::string& bytes) {
  return [NSData dataWithBytes:bytes.data() length:bytes.size()];
}

std::optional<platform::Date> dateFrom(NSDate* date) {
  if (date == nil) return std::nullopt;
  const double microseconds =
      std::round(([date timeIntervalSinceReferenceDate] + kSecondsFrom1970To2001) * 1e6);
  if (std::isnan(microseconds)) return std::nullopt;
  constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  std::int64_t count = 0;
  if (microseconds >= static_cast<double>(kMost)) {
    count = kMost;
  } else if (microseconds <= static_cast<double>(kLeast)) {
    count = kLeast;
  } else {
    count = static_cast<std::int64_t>(microseconds);
  }
  return platform::Date(std::chrono::microseconds(count));
}

NSDate* toPlatform(platform::Date date) {
  const std::chrono::duration<double> since1970 = date.time_since_epoch();
  return [NSDate dateWithTimeIntervalSinceReferenceDate:since1970.count() - kSecondsFrom1970To2001];
}

std::optional<std::filesystem::path> pathFrom(NSURL* url) {
  if (url == nil || ![url isFileURL]) return std::nullopt;
  // Not by the platform's "file system representation": that raises on an empty path, and decomposes
  // characters, which the file system does by itself where it has to.
  const std::string path = textFrom([url path]);
  if (path.empty()) return std::nullopt;
  return std::filesystem::path(path);
}

NSURL* fileToPlatform(const std::filesystem::path& path) {
  return [NSURL fileURLWithPath:toPlatform(path.native()) isDirectory:NO];
}

std::optional<platform::NSFileProviderItemVersion> versionFrom(
    ::NSFileProviderItemVersion* version) {
  if (version == nil) return std::nullopt;
  return platform::NSFileProviderItemVersion{bytesFrom([version contentVersion]),
                                             bytesFrom([version metadataVersion])};
}

::NSFileProviderItemVersion* toPlatform(const platform::NSFileProviderItemVersion& version) {
  return [[[::NSFileProviderItemVersion alloc]
      initWithContentVersion:dataToPlatform(version.contentVersion)
             metadataVersion:dataToPlatform(version.metadataVersion)] autorelease];
}

std::optional<platform::UTType> typeFrom(::UTType* type) {
  if (type == nil) return std::nullopt;
  if ([type isEqual:UTTypeFolder]) return platform::UTType::folder();
  if ([type isEqual:UTTypeData]) return platform::UTType::data();
  return platform::UTType::named(textFrom([type identifier]));
}

::UTType* toPlatform(const platform::UTType& type) {
  if (type == platform::UTType::folder()) return UTTypeFolder;
  if (type == platform::UTType::data()) return UTTypeData;
  ::UTType* const known = [::UTType typeWithIdentifier:toPlatform(type.identifier())];
  return known != nil ? known : UTTypeData;
}

platform::NSFileProviderRequest requestFrom(::NSFileProviderRequest* request) {
  platform::NSFileProviderRequest result;
  if (request == nil) return result;
  result.isSystemRequest = [request isSystemRequest];
  result.isFileViewerRequest = [request isFileViewerRequest];
  if (const auto executable = pathFrom([request requestingExecutable]))
    result.requestingExecutable = executable->native();
  return result;
}

std::int64_t countFrom(NSUInteger count) {
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  return count > static_cast<NSUInteger>(kMost) ? kMost : static_cast<std::int64_t>(count);
}

platform::NSRange rangeFrom(::NSRange range) {
  return {countFrom(range.location), countFrom(range.length)};
}

::NSRange toPlatform(const platform::NSRange& range) {
  return {static_cast<NSUInteger>(range.location), static_cast<NSUInteger>(range.length)};
}

}  // namespace kestrune::macos
