#include "host/store/ItemColumns.h"

#include <SQLiteCpp/Column.h>

#include <algorithm>
#include <array>
#include <bit>
#include <optional>
#include <string_view>
#include <utility>

#include "host/basics/ItemName.h"

namespace kestrune::host {

using platform::Date;
using platform::NSFileProviderContentPolicy;

namespace {

constexpr std::int32_t kApplicationId = 0x4B737472;  // "Kstr"

// Texts of others are BLOBs: bytes of no known encoding. Numbers without a sign have the same 64 bits. What an item has
// only sometimes is NULL together.
constexpr const char* kFirstStep = R"(
CREATE TABLE item (
  id INTEGER PRIMARY KEY,
  is_folder INTEGER NOT NULL,
  is_linked INTEGER NOT NULL,
  folder INTEGER NOT NULL,
  name BLOB NOT NULL,
  is_executable INTEGER NOT NULL,
  stays_here INTEGER NOT NULL,
  size INTEGER NOT NULL,
  modified_seconds INTEGER NOT NULL,
  modified_nanoseconds INTEGER NOT NULL,
  changed_seconds INTEGER NOT NULL,
  changed_nanoseconds INTEGER NOT NULL,
  there_identifier BLOB,
  there_folder INTEGER,
  there_name BLOB,
  there_content_version BLOB,
  there_metadata_version BLOB,
  there_size INTEGER,
  there_modified_microseconds INTEGER,
  there_policy INTEGER,
  there_is_provisional INTEGER,
  there_is_held_deletion INTEGER,
  content_number INTEGER,
  content_version BLOB,
  content_size INTEGER,
  content_fetchable INTEGER,
  content_present TEXT,
  content_base BLOB,
  content_edits INTEGER,
  content_is_edited INTEGER,
  content_sent_edits INTEGER,
  content_sending_since INTEGER,
  content_sending_bytes INTEGER,
  content_sending_edits INTEGER,
  content_used_seconds INTEGER,
  listing_is_enumerated INTEGER,
  listing_is_stale INTEGER,
  listing_anchor BLOB
) STRICT;
CREATE TABLE counter (
  name TEXT PRIMARY KEY,
  value INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE attribute (
  item INTEGER NOT NULL,
  name BLOB NOT NULL,
  value BLOB NOT NULL,
  PRIMARY KEY (item, name)
) STRICT, WITHOUT ROWID;
)";

// Where changes that did not tell how they ended may have put items.
constexpr const char* kSecondStep = R"(
ALTER TABLE item ADD COLUMN awaited_folder INTEGER;
ALTER TABLE item ADD COLUMN awaited_name BLOB;
)";

// The order in which `put` gives values and `load` takes them.
constexpr std::array kColumns{
    "id",
    "is_folder",
    "is_linked",
    "folder",
    "name",
    "is_executable",
    "stays_here",
    "size",
    "modified_seconds",
    "modified_nanoseconds",
    "changed_seconds",
    "changed_nanoseconds",
    "there_identifier",
    "there_folder",
    "there_name",
    "there_content_version",
    "there_metadata_version",
    "there_size",
    "there_modified_microseconds",
    "there_policy",
    "there_is_provisional",
    "there_is_held_deletion",
    "awaited_folder",
    "awaited_name",
    "content_number",
    "content_version",
    "content_size",
    "content_fetchable",
    "content_present",
    "content_base",
    "content_edits",
    "content_is_edited",
    "content_sent_edits",
    "content_sending_since",
    "content_sending_bytes",
    "content_sending_edits",
    "content_used_seconds",
    "listing_is_enumerated",
    "listing_is_stale",
    "listing_anchor",
};

constexpr int countOf(std::string_view prefix) {
  return static_cast<int>(
      std::count_if(kColumns.begin(), kColumns.end(),
                    [&](std::string_view column) { return column.starts_with(prefix); }));
}
constexpr int kThereColumns = countOf("there_");
constexpr int kAwaitedColumns = countOf("awaited_");
constexpr int kContentColumns = countOf("content_");
constexpr int kListingColumns = countOf("listing_");

/// What `of` gives for each column, with commas between them.
template <class Of>
std::string forEachColumn(const Of& of) {
  std::string text;
  for (const std::string column : kColumns) {
    if (!text.empty()) text += ", ";
    text += of(column);
  }
  return text;
}

std::string columnList() {
  return forEachColumn([](const std::string& column) { return column; });
}

[[noreturn]] void throwDamaged(const std::string& what) {
  throw StoreError(StoreError::Case::damaged, "The database is damaged: " + what);
}

/// Takes the values of a row off a query, one after the other. Throws StoreError `damaged` for what was never put.
class Values {
 public:
  explicit Values(const SQLite::Statement& query) : query_(query) {}

  bool isNull() const { return query_.getColumn(index_).isNull(); }
  void skip(int count) { index_ += count; }

  std::int64_t number() {
    const SQLite::Column column = query_.getColumn(index_);
    if (!column.isInteger()) throwDamaged(name() + " is no number");
    ++index_;
    return column.getInt64();
  }
  std::uint64_t bits() { return std::bit_cast<std::uint64_t>(number()); }
  bool flag() {
    const std::int64_t value = number();
    if (value != 0 && value != 1) throwDamaged("a flag is neither set nor clear");
    return value == 1;
  }
  std::string bytes() {
    const SQLite::Column column = query_.getColumn(index_);
    if (!column.isBlob()) throwDamaged(name() + " is no text");
    ++index_;
    return {static_cast<const char*>(column.getBlob()),
            static_cast<std::size_t>(column.getBytes())};
  }
  FileTime time() {
    const std::int64_t seconds = number();
    const std::int64_t nanoseconds = number();
    if (!std::in_range<std::int32_t>(nanoseconds)) throwDamaged("a time cannot be one");
    return {seconds, static_cast<std::int32_t>(nanoseconds)};
  }
  Ranges ranges() {
    const SQLite::Column column = query_.getColumn(index_++);
    // A NULL is the empty text here, which says that nothing is present.
    auto ranges = Ranges::parse(
        std::string_view(column.getText(), static_cast<std::size_t>(column.getBytes())));
    if (!ranges || !column.isText()) throwDamaged("ranges of bytes cannot be read");
    return std::move(*ranges);
  }

 private:
  std::string name() const { return kColumns[static_cast<std::size_t>(index_)]; }

  const SQLite::Statement& query_;
  int index_ = 0;
};

// A part is taken into its pieces by a declaration that names all of them, so that a new one is not forgotten here.

void give(Run& run, const ThereState& there) {
  const auto& [identifier, folder, name, version, size, modified, policy, provisional,
               heldDeletion] = there;
  run.bytes(identifier)
      .bits(folder)
      .bytes(name)
      .bytes(version.contentVersion)
      .bytes(version.metadataVersion)
      .number(size)
      .number(modified.time_since_epoch().count())
      .number(static_cast<std::int64_t>(policy))
      .number(provisional)
      .number(heldDeletion);
}

ThereState takeThere(Values& values) {
  ThereState there;
  there.identifier = values.bytes();
  there.folder = values.bits();
  there.name = values.bytes();
  there.version.contentVersion = values.bytes();
  there.version.metadataVersion = values.bytes();
  there.sizeBytes = values.number();
  there.modified = Date(Date::duration(values.number()));
  there.policy = static_cast<NSFileProviderContentPolicy>(values.number());
  there.isProvisional = values.flag();
  there.isHeldDeletion = values.flag();
  return there;
}

void give(Run& run, const Place& place) {
  const auto& [folder, name] = place;
  run.bits(folder).bytes(name);
}

Place takePlace(Values& values) {
  const ItemId folder = values.bits();
  return {folder, values.bytes()};
}

/// `presentText` is that of the ranges.
void give(Run& run, const ContentRow& content, const std::string& presentText) {
  const auto& [state, base, sentEdits, sendingSince, sendingBytes, sendingEdits, used] = content;
  const auto& [number, version, size, fetchable, present, edits, isEdited] = state;
  run.bits(number)
      .bytes(version)
      .number(size)
      .number(fetchable)
      .text(presentText)
      .bytes(base)
      .bits(edits)
      .number(isEdited)
      .bits(sentEdits)
      .number(sendingSince)
      .number(sendingBytes)
      .bits(sendingEdits)
      .number(used);
}

ContentRow takeContent(Values& values) {
  ContentRow content;
  content.state.number = values.bits();
  content.state.version = values.bytes();
  content.state.sizeBytes = values.number();
  content.state.fetchableBytes = values.number();
  content.state.present = values.ranges();
  content.base = values.bytes();
  content.state.edits = values.bits();
  content.state.isEdited = values.flag();
  content.sentEdits = values.bits();
  content.sendingSince = values.number();
  content.sendingBytes = values.number();
  content.sendingEdits = values.bits();
  content.usedSeconds = values.number();
  return content;
}

void give(Run& run, const FolderRow& listing) {
  const auto& [isEnumerated, hasStaleIdentifiers, anchor] = listing;
  run.number(isEnumerated).number(hasStaleIdentifiers);
  if (anchor)
    run.bytes(*anchor);
  else
    run.nulls(1);
}

FolderRow takeListing(Values& values) {
  FolderRow listing;
  listing.isEnumerated = values.flag();
  listing.hasStaleIdentifiers = values.flag();
  if (!values.isNull()) listing.anchor = values.bytes();
  return listing;
}

/// What `take` gives, or none where its first column says that the item has no such part.
template <class Part>
std::optional<Part> takeIfAny(Values& values, int columns, Part (*take)(Values&)) {
  if (!values.isNull()) return take(values);
  values.skip(columns);
  return std::nullopt;
}

}  // namespace

const Schema& itemSchema() {
  static const Schema schema{kApplicationId, {kFirstStep, kSecondStep}};
  return schema;
}

std::string putStatement() {
  return "INSERT INTO item (" + columnList() + ") VALUES (" +
         forEachColumn([](const std::string&) { return "?"; }) +
         ") ON CONFLICT (id) DO UPDATE SET " +
         forEachColumn([](const std::string& column) { return column + " = excluded." + column; });
}

std::string loadStatement() { return "SELECT " + columnList() + " FROM item"; }

const char* whyNotARow(const ItemRow& row) {
  constexpr auto isId = [](ItemId id) { return std::in_range<std::int64_t>(id); };
  constexpr auto isTime = [](const FileTime& time) {
    return time.nanoseconds >= 0 && time.nanoseconds < 1'000'000'000;
  };
  if (row.id == 0 || !isId(row.id) || !isId(row.folder)) return "its number cannot be one";
  if (row.sizeBytes < 0) return "its size is negative";
  if (!isTime(row.modified) || !isTime(row.changed)) return "its time cannot be one";
  const bool isRoot = row.id == kRootItem;  // it has no name
  if (!isRoot) {
    if (const char* reason = whyNotAFileName(row.name)) return reason;
  }
  if (row.there) {
    const ThereState& there = *row.there;
    if (!isId(there.folder)) return "its folder's number cannot be one";
    if (there.sizeBytes < 0) return "its size at the store is negative";
    if (there.policy < NSFileProviderContentPolicy::inherited ||
        there.policy > NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded)
      return "its policy is unknown";
    if (!isRoot) {
      if (const char* reason = whyNotAFileName(there.name)) return reason;
    }
  }
  if (row.awaited) {
    if (!isId(row.awaited->folder)) return "the folder that it may be in cannot be one";
    if (const char* reason = whyNotAFileName(row.awaited->name)) return reason;
  }
  if (row.content) {
    if (row.isFolder) return "it is a folder with contents of a file";
    if (row.content->state.sizeBytes < 0) return "the size of its contents is negative";
    if (row.content->sendingBytes < 0) return "less than nothing of it was sent";
    if (row.content->state.fetchableBytes < 0) return "less than nothing of it can be fetched";
  }
  if (row.listing && !row.isFolder) return "it is a file with a listing";
  return nullptr;
}

void give(Run& run, const ItemRow& row, const std::string& presentText) {
  const auto& [id, isFolder, isLinked, folder, name, isExecutable, staysHere, size, modified,
               changed, there, awaited, content, listing] = row;
  run.bits(id)
      .number(isFolder)
      .number(isLinked)
      .bits(folder)
      .bytes(name)
      .number(isExecutable)
      .number(staysHere)
      .number(size)
      .time(modified)
      .time(changed);
  if (there)
    give(run, *there);
  else
    run.nulls(kThereColumns);
  if (awaited)
    give(run, *awaited);
  else
    run.nulls(kAwaitedColumns);
  if (content)
    give(run, *content, presentText);
  else
    run.nulls(kContentColumns);
  if (listing)
    give(run, *listing);
  else
    run.nulls(kListingColumns);
}

ItemRow takeRow(const SQLite::Statement& query) {
  Values values(query);
  ItemRow row;
  row.id = values.bits();
  row.isFolder = values.flag();
  row.isLinked = values.flag();
  row.folder = values.bits();
  row.name = values.bytes();
  row.isExecutable = values.flag();
  row.staysHere = values.flag();
  row.sizeBytes = values.number();
  row.modified = values.time();
  row.changed = values.time();
  row.there = takeIfAny(values, kThereColumns, &takeThere);
  row.awaited = takeIfAny(values, kAwaitedColumns, &takePlace);
  row.content = takeIfAny(values, kContentColumns, &takeContent);
  row.listing = takeIfAny(values, kListingColumns, &takeListing);
  if (const char* reason = whyNotARow(row))
    throwDamaged("item " + std::to_string(row.id) + ": " + reason);
  return row;
}

}  // namespace kestrune::host
