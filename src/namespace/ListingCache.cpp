#include "namespace/ListingCache.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <unordered_map>

#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/values/JsonDocument.h"
#include "platform/values/JsonText.h"
#include "platform/values/NSError.h"
#include "platform/values/UTF8.h"

namespace kestrune {

namespace {

// Room for some ten million entries; the file is our own, but lies where others can write.
constexpr std::uint64_t kMaximumBytes = 1ULL << 30U;
// About what one entry takes: grown once rather than often.
constexpr std::size_t kTypicalEntryBytes = 112;

constexpr std::chrono::microseconds kTimeTolerance = std::chrono::seconds(1);

[[noreturn]] void refuse(const char* reason) {
  throw platform::NSCocoaError(platform::NSCocoaError::coderInvalidValue, reason);
}

void appendText(std::string& out, std::string_view text) {
  if (!platform::isValidUTF8(text)) refuse("a text of the listing is not valid UTF-8");
  platform::appendJsonText(out, text);
}

std::string encode(const std::vector<KestruneAPI::Entry>& entries, const std::string& token) {
  std::string out;
  out.reserve(entries.size() * kTypicalEntryBytes + token.size() + 64);
  out += "{\"entries\":[";
  for (const auto& entry : entries) {
    out += out.back() == '[' ? "{\"name\":" : ",{\"name\":";
    appendText(out, entry.name);
    out += ",\"type\":";
    appendText(out, entry.type);
    out += ",\"size\":";
    out += std::to_string(entry.size);
    out += ",\"modifiedAt\":\"";
    out += platform::formatISO8601(entry.modifiedAt);
    out += "\"}";
  }
  out += "],\"token\":";
  appendText(out, token);
  out += "}";
  return out;
}

CachedListing decode(const std::string& text) {
  const platform::JsonDocument document(text);
  const auto root = platform::jsonObject(document.root(), "the listing");
  CachedListing listing;
  listing.token = platform::jsonTextField(root, "token");
  const auto records = platform::jsonArrayField(root, "entries");
  listing.entries.reserve(records.size());
  for (const auto element : records) {
    const auto record = platform::jsonObject(element, "an entry");
    CachedEntry entry;
    entry.name = platform::jsonTextField(record, "name");
    entry.type = platform::jsonTextField(record, "type");
    entry.size = platform::jsonIntegerField(record, "size");
    const auto date = platform::parseISO8601(platform::jsonTextField(record, "modifiedAt"));
    if (!date) refuse("\"modifiedAt\" is no date");
    entry.modifiedAt = *date;
    listing.entries.push_back(std::move(entry));
  }
  return listing;
}

template <class Entry>
std::unordered_map<std::string_view, const Entry*> firstByName(const std::vector<Entry>& entries) {
  std::unordered_map<std::string_view, const Entry*> index;
  index.reserve(entries.size());
  for (const Entry& entry : entries) index.emplace(entry.name, &entry);  // keeps the first
  return index;
}

bool isChanged(const CachedEntry& old, const KestruneAPI::Entry& fresh) {
  if (old.size != fresh.size || old.type != fresh.type) return true;
  const auto later = std::max(old.modifiedAt, fresh.modifiedAt);
  const auto earlier = std::min(old.modifiedAt, fresh.modifiedAt);
  return later - earlier > kTimeTolerance;
}

}  // namespace

std::filesystem::path ListingCache::dir() { return storage::listingCacheDirectory(); }

std::filesystem::path ListingCache::file(const std::string& path) {
  std::string key = path;
  std::replace(key.begin(), key.end(), '/', '_');
  return dir() / ("listing-" + key + ".json");
}

void ListingCache::save(const std::vector<KestruneAPI::Entry>& entries, const std::string& token,
                        const std::string& path) {
  try {
    platform::replaceFile(file(path), encode(entries, token), platform::Durability::atomic);
  } catch (const platform::NSError&) {
    // The next change enumeration compares with the older listing: it reports more, never less.
  }
}

std::optional<CachedListing> ListingCache::load(const std::string& path) {
  try {
    return decode(platform::readFile(file(path), kMaximumBytes));
  } catch (const platform::NSError&) {
    return std::nullopt;
  }
}

ListingDifference ListingCache::diff(const std::vector<CachedEntry>& old,
                                     const std::vector<KestruneAPI::Entry>& fresh) {
  const auto oldByName = firstByName(old);
  const auto freshByName = firstByName(fresh);
  ListingDifference difference;
  for (const auto& [name, entry] : oldByName) {
    if (!freshByName.contains(name)) difference.deleted.emplace_back(name);
  }
  for (const auto& [name, entry] : freshByName) {
    const auto before = oldByName.find(name);
    if (before == oldByName.end()) {
      difference.added.emplace_back(name);
    } else if (isChanged(*before->second, *entry)) {
      difference.modified.emplace_back(name);
    }
  }
  return difference;
}

}  // namespace kestrune
