#include "namespace/FileProviderEnumerator.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "config/Loggers.h"
#include "config/StorageLocations.h"
#include "namespace/FileProviderItem.h"
#include "namespace/ListingCache.h"
#include "namespace/SystemJunk.h"
#include "platform/files/AtomicFile.h"
#include "platform/tasks/Task.h"
#include "platform/values/UTF8.h"
#include "status/SyncStatusStore.h"

namespace kestrune {

using platform::LogLevel;
using platform::NSErrorPtr;
using platform::NSFileProviderChangeObserver;
using platform::NSFileProviderEnumerationObserver;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderSyncAnchor;
using platform::Task;

namespace {

constexpr const char* kInitialToken = "initial";
// A token is a line; it becomes an anchor, a log line and a part of each cached listing.
constexpr std::uint64_t kMaximumTokenBytes = 1U << 20U;

using Entries = std::vector<KestruneAPI::Entry>;

struct FreshListing {
  Entries entries;
  std::string token;
};

// Deliberately loose: a real folder whose path contains one of these words is treated as empty too.
bool isSpecialContainer(const std::string& path) {
  return path.starts_with("NSFileProvider") || path.find("WorkingSet") != std::string::npos ||
         path.find("TrashContainer") != std::string::npos;
}

// White space as Unicode knows it, and line breaks: an editor may have left any of them around the
// token.
std::string_view trimmed(std::string_view text) {
  static constexpr std::string_view kSpaces[] = {" ",
                                                 "\t",
                                                 "\n",
                                                 "\v",
                                                 "\f",
                                                 "\r",
                                                 "\xC2\x85",
                                                 "\xC2\xA0",
                                                 "\xE1\x9A\x80",
                                                 "\xE2\x80\x80",
                                                 "\xE2\x80\x81",
                                                 "\xE2\x80\x82",
                                                 "\xE2\x80\x83",
                                                 "\xE2\x80\x84",
                                                 "\xE2\x80\x85",
                                                 "\xE2\x80\x86",
                                                 "\xE2\x80\x87",
                                                 "\xE2\x80\x88",
                                                 "\xE2\x80\x89",
                                                 "\xE2\x80\x8A",
                                                 "\xE2\x80\xA8",
                                                 "\xE2\x80\xA9",
                                                 "\xE2\x80\xAF",
                                                 "\xE2\x81\x9F",
                                                 "\xE3\x80\x80"};
  bool trimming = true;
  while (trimming) {
    trimming = false;
    for (const auto space : kSpaces) {
      if (text.starts_with(space)) {
        text.remove_prefix(space.size());
        trimming = true;
      }
      if (text.ends_with(space)) {
        text.remove_suffix(space.size());
        trimming = true;
      }
    }
  }
  return text;
}

std::int64_t count(std::size_t number) { return static_cast<std::int64_t>(number); }

std::vector<NSFileProviderItemPtr> makeItems(const Entries& entries,
                                             const std::string& containerPath) {
  std::vector<NSFileProviderItemPtr> items;
  items.reserve(entries.size());
  for (const auto& entry : entries) items.push_back(FileProviderItem::from(entry, containerPath));
  return items;
}

// Lists the folder, drops clutter and remembers what was kept.
Task<FreshListing> fetchAndCache(std::string containerPath) {
  FreshListing fresh;
  fresh.entries = co_await KestruneAPI::list(containerPath);
  std::erase_if(fresh.entries, [](const auto& entry) { return isSystemJunk(entry.name); });
  fresh.token = FileProviderEnumerator::currentToken();
  ListingCache::save(fresh.entries, fresh.token, containerPath);
  co_return fresh;
}

// The answer to enumerateItems. A failure before the items are handed over is the enumeration's.
Task<void> runEnumeration(std::string containerPath,
                          std::shared_ptr<NSFileProviderEnumerationObserver> observer) {
  NSErrorPtr failure;
  FreshListing fresh;
  try {
    fresh = co_await fetchAndCache(containerPath);
  } catch (...) {
    failure = platform::currentError();
  }
  if (failure) {
    enumLog().write(LogLevel::error, "enumerateItems failed: %{public}s",
                    failure->localizedDescription());
    observer->finishEnumeratingWithError(failure);
  } else {
    observer->didEnumerateItems(makeItems(fresh.entries, containerPath));
    observer->finishEnumeratingUpToPage(std::nullopt);
    enumLog().write(LogLevel::standard, "enumerateItems %{public}s: %ld items, token=%{public}s",
                    containerPath, count(fresh.entries.size()), fresh.token);
  }
  SyncStatusStore::shared().endEnumeration();
}

// The names that a second listing does not show either. A second listing that fails rescues none.
Task<std::vector<std::string>> confirmDeletions(std::string containerPath,
                                                std::vector<std::string> candidates) {
  Entries second;
  try {
    second = co_await KestruneAPI::list(containerPath);
  } catch (const platform::NSError&) {
    second.clear();
  }
  std::unordered_set<std::string_view> present;
  for (const auto& entry : second) present.insert(entry.name);
  const auto reappeared =
      std::erase_if(candidates, [&present](const auto& name) { return present.contains(name); });
  if (reappeared > 0) {
    enumLog().write(LogLevel::standard,
                    "enumerateChanges: %ld candidate-deletions in %{public}s reappeared on second "
                    "fetch \xE2\x80\x94 suppressed",
                    count(reappeared), containerPath);
  }
  co_return candidates;
}

// `deleted` without what may be falsely missing.
Task<std::vector<std::string>> guardDeletions(std::string containerPath,
                                              std::vector<std::string> deleted) {
  if (deleted.empty()) co_return deleted;
  if (SyncStatusStore::shared().hasActiveTransfersUnder(containerPath)) {
    enumLog().write(LogLevel::standard,
                    "enumerateChanges: %ld candidate-deletions in %{public}s suppressed "
                    "\xE2\x80\x94 active transfers "
                    "under this path",
                    count(deleted.size()), containerPath);
    co_return std::vector<std::string>();
  }
  co_return co_await confirmDeletions(std::move(containerPath), std::move(deleted));
}

void reportDeletions(const std::string& containerPath, const std::vector<std::string>& deleted,
                     NSFileProviderChangeObserver& observer) {
  if (deleted.empty()) return;
  std::vector<NSFileProviderItemIdentifier> identifiers;
  identifiers.reserve(deleted.size());
  for (const auto& name : deleted) {
    identifiers.push_back(
        FileProviderItem::identifier(FileProviderItem::childPath(containerPath, name)));
  }
  observer.didDeleteItemsWithIdentifiers(std::move(identifiers));
  enumLog().write(LogLevel::standard, "enumerateChanges: deleted %ld items in %{public}s",
                  count(deleted.size()), containerPath);
}

void reportUpdates(const std::string& containerPath, const ListingDifference& difference,
                   const Entries& fresh, NSFileProviderChangeObserver& observer) {
  std::unordered_set<std::string_view> names(difference.added.begin(), difference.added.end());
  names.insert(difference.modified.begin(), difference.modified.end());
  if (names.empty()) return;
  std::vector<NSFileProviderItemPtr> items;
  for (const auto& entry : fresh) {
    if (names.contains(entry.name)) items.push_back(FileProviderItem::from(entry, containerPath));
  }
  const auto updated = count(items.size());
  observer.didUpdateItems(std::move(items));
  enumLog().write(LogLevel::standard, "enumerateChanges: updated %ld items in %{public}s", updated,
                  containerPath);
}

// The answer to enumerateChanges where the token has changed.
Task<void> runChangeEnumeration(std::string containerPath, NSFileProviderSyncAnchor anchor,
                                std::shared_ptr<NSFileProviderChangeObserver> observer) {
  const auto cached = ListingCache::load(containerPath);  // before the fetch, which overwrites it
  NSErrorPtr failure;
  FreshListing fresh;
  try {
    fresh = co_await fetchAndCache(containerPath);
  } catch (...) {
    failure = platform::currentError();
  }
  if (failure) {
    enumLog().write(LogLevel::error, "enumerateChanges failed: %{public}s",
                    failure->localizedDescription());
    observer->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), false);
    SyncStatusStore::shared().endEnumeration();
    co_return;
  }
  ListingDifference difference =
      ListingCache::diff(cached ? cached->entries : std::vector<CachedEntry>(), fresh.entries);
  auto deleted = co_await guardDeletions(containerPath, std::move(difference.deleted));
  reportDeletions(containerPath, deleted, *observer);
  reportUpdates(containerPath, difference, fresh.entries, *observer);
  observer->finishEnumeratingChangesUpToSyncAnchor(std::move(fresh.token), false);
  SyncStatusStore::shared().endEnumeration();
}

}  // namespace

FileProviderEnumerator::FileProviderEnumerator(std::string containerPath)
    : containerPath_(std::move(containerPath)) {}

std::string FileProviderEnumerator::currentToken() {
  try {
    const std::string text =
        platform::readFile(storage::invalidationTokenFile(), kMaximumTokenBytes);
    if (!platform::isValidUTF8(text)) return kInitialToken;
    const auto token = trimmed(text);
    return token.empty() ? kInitialToken : std::string(token);
  } catch (const platform::NSError&) {
    return kInitialToken;
  }
}

void FileProviderEnumerator::invalidate() {}

void FileProviderEnumerator::enumerateItems(
    std::shared_ptr<NSFileProviderEnumerationObserver> observer, platform::NSFileProviderPage) {
  if (isSpecialContainer(containerPath_)) {
    observer->finishEnumeratingUpToPage(std::nullopt);
    return;
  }
  SyncStatusStore::shared().beginEnumeration();
  platform::spawnDetached("enumerateItems", runEnumeration(containerPath_, std::move(observer)));
}

void FileProviderEnumerator::enumerateChanges(
    std::shared_ptr<NSFileProviderChangeObserver> observer, NSFileProviderSyncAnchor anchor) {
  if (isSpecialContainer(containerPath_)) {
    observer->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), false);
    return;
  }
  // An anchor that is not text compares as the empty text, which no token is.
  const std::string anchorText = platform::isValidUTF8(anchor) ? anchor : std::string();
  if (anchorText == currentToken()) {
    observer->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), false);
    return;
  }
  SyncStatusStore::shared().beginEnumeration();
  platform::spawnDetached(
      "enumerateChanges",
      runChangeEnumeration(containerPath_, std::move(anchor), std::move(observer)));
}

void FileProviderEnumerator::currentSyncAnchor(
    std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) {
  completionHandler(currentToken());
}

}  // namespace kestrune
