#include "host/store/ItemTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <optional>

#include "host/store/ItemColumns.h"
#include "host/store/test/SampleRows.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t kAllBits = std::numeric_limits<std::uint64_t>::max();

struct ItemTableTest : testing::Test {
  std::filesystem::path file() const { return directory.path() / "items.sqlite"; }
  SQLite::Database& connection() const { return opened.database->connection(); }

  /// How loading fails.
  std::string damage() const {
    try {
      loaded(connection());
    } catch (const StoreError& error) {
      EXPECT_EQ(error.which(), StoreError::Case::damaged);
      return error.localizedDescription();
    }
    ADD_FAILURE() << "it loaded";
    return "";
  }

  support::TemporaryDirectory directory;
  OpenedItems opened = openItems(file());
  std::optional<ItemTable> kept{connection()};
  ItemTable& table = *kept;
};

TEST_F(ItemTableTest, GivesBackWhatWasPut) {
  const std::vector<ItemRow> rows{sampleFile(2), sampleFolder(3), bareRow(4), sampleFile(5)};
  for (const ItemRow& row : rows) table.put(row);
  EXPECT_EQ(loaded(connection()), rows);
}

TEST_F(ItemTableTest, PutReplacesAllOfARow) {
  table.put(sampleFile(2));
  table.put(bareRow(2));
  EXPECT_THAT(loaded(connection()), ElementsAre(bareRow(2)));
  table.put(sampleFolder(2));
  EXPECT_THAT(loaded(connection()), ElementsAre(sampleFolder(2)));
}

TEST_F(ItemTableTest, KeepsTheFurthestNumbers) {
  ItemRow row = sampleFile(static_cast<ItemId>(kMost));
  row.folder = row.there->folder = row.awaited->folder = static_cast<ItemId>(kMost);
  row.sizeBytes = row.there->sizeBytes = row.content->state.sizeBytes = kMost;
  row.content->state.fetchableBytes = kMost;
  row.content->state.edits = row.content->sentEdits = row.content->sendingEdits =
      row.content->state.number = kAllBits;
  row.content->usedSeconds = kLeast;
  row.modified = {kLeast, 999'999'999};
  row.changed = {kMost, 0};
  row.there->modified = platform::kDistantPast;
  row.content->state.present = {};
  row.content->state.present.add({0, kMost});
  table.put(row);
  EXPECT_THAT(loaded(connection()), ElementsAre(row));
}

TEST_F(ItemTableTest, TextsAreBytes) {
  ItemRow row = sampleFile(2);
  row.name = row.there->name = "\xFF\xFE not UTF-8 \x80";
  row.there->identifier = std::string("a\0b\xC3", 4);
  row.there->version = {std::string("\0\0", 2), std::string("\xFF\0\xFF", 3)};
  row.content->state.version = std::string("\0", 1);
  row.content->base = std::string("b\0", 2);
  ItemRow folder = sampleFolder(3);
  folder.listing->anchor = std::string("\0anchor\0", 8);
  table.put(row);
  table.put(folder);
  EXPECT_THAT(loaded(connection()), ElementsAre(row, folder));
}

TEST_F(ItemTableTest, EmptyIsNotNone) {
  ItemRow row = sampleFile(2);
  row.there->identifier = "";
  row.there->version = {};
  row.content->state.version = "";
  row.content->state.present = {};
  ItemRow folder = sampleFolder(3);
  folder.listing->anchor = "";
  ItemRow withoutAnchor = sampleFolder(4);
  withoutAnchor.listing->anchor.reset();
  for (const ItemRow& each : {row, folder, withoutAnchor}) table.put(each);
  EXPECT_THAT(loaded(connection()), ElementsAre(row, folder, withoutAnchor));
}

// What is put into a column and taken from it stays the same when two are exchanged: older databases would tell.
TEST_F(ItemTableTest, ColumnsHoldWhatTheirNamesSay) {
  table.put(sampleFile(2));
  table.put(sampleFolder(3));
  const auto column = [&](const std::string& name, int id) {
    const std::string query = "SELECT " + name + " FROM item WHERE id = " + std::to_string(id);
    return connection().execAndGet(query).getString();
  };
  using Values = std::vector<std::pair<const char*, const char*>>;
  const Values ofFile{{"is_folder", "0"},
                      {"is_linked", "1"},
                      {"folder", "3"},
                      {"name", "item 2"},
                      {"is_executable", "1"},
                      {"stays_here", "0"},
                      {"size", "4099"},
                      {"modified_seconds", "-5"},
                      {"modified_nanoseconds", "999999999"},
                      {"changed_seconds", "1800000000"},
                      {"changed_nanoseconds", "1"},
                      {"there_folder", "1002"},
                      {"there_name", "item 2 there.txt"},
                      {"there_content_version", "content 15838"},
                      {"there_metadata_version", "metadata 2"},
                      {"there_size", "4097"},
                      {"there_modified_microseconds", "1700000000123456"},
                      {"there_policy", "3"},
                      {"there_is_provisional", "1"},
                      {"there_is_held_deletion", "0"},
                      {"awaited_folder", "2002"},
                      {"awaited_name", "item 2 awaited.txt"},
                      {"content_number", "19"},
                      {"content_version", "version of 2"},
                      {"content_size", "4098"},
                      {"content_fetchable", "4096"},
                      {"content_present", "0-100,200-4098"},
                      {"content_base", "base of 2"},
                      {"content_edits", "12"},
                      {"content_is_edited", "1"},
                      {"content_sent_edits", "11"},
                      {"content_sending_since", "1780000000"},
                      {"content_sending_bytes", "4095"},
                      {"content_sending_edits", "10"},
                      {"content_used_seconds", "1790000000"}};
  for (const auto& [name, value] : ofFile) EXPECT_EQ(column(name, 2), value) << name;
  const Values ofFolder{{"is_folder", "1"},
                        {"stays_here", "1"},
                        {"there_is_provisional", "0"},
                        {"there_is_held_deletion", "1"},
                        {"listing_is_enumerated", "0"},
                        {"listing_is_stale", "1"},
                        {"listing_anchor", "anchor of 3"}};
  for (const auto& [name, value] : ofFolder) EXPECT_EQ(column(name, 3), value) << name;
}

TEST_F(ItemTableTest, TheRootHasNoName) {
  ItemRow root = sampleFolder(kRootItem);
  root.name = root.there->name = "";
  table.put(root);
  EXPECT_THAT(loaded(connection()), ElementsAre(root));
}

TEST_F(ItemTableTest, RemovesAnItemWithItsAttributes) {
  table.put(sampleFile(2));
  table.put(sampleFile(3));
  table.putAttribute(2, "user.a", "1");
  table.putAttribute(3, "user.a", "2");
  table.remove(2);
  table.remove(7);  // there is none
  EXPECT_THAT(loaded(connection()), ElementsAre(sampleFile(3)));
  EXPECT_THAT(table.attributes(2), IsEmpty());
  EXPECT_THAT(table.attributes(3), ElementsAre(testing::Pair("user.a", "2")));
}

TEST_F(ItemTableTest, PuttingAnItemAgainKeepsItsAttributes) {
  table.put(sampleFile(2));
  table.putAttribute(2, "user.a", "1");
  table.put(bareRow(2));
  EXPECT_THAT(table.attributes(2), ElementsAre(testing::Pair("user.a", "1")));
}

TEST_F(ItemTableTest, AttributesAreBytesAndCanBeReplacedAndRemoved) {
  const std::string name = "user.\xFF", value("\0\xFE", 2);
  table.putAttribute(2, name, "old");
  table.putAttribute(2, name, value);
  table.putAttribute(2, "user.empty", "");
  EXPECT_THAT(table.attributes(2),
              ElementsAre(testing::Pair("user.empty", ""), testing::Pair(name, value)));
  table.putAttribute(2, name, std::nullopt);
  table.putAttribute(2, "user.never", std::nullopt);
  EXPECT_THAT(table.attributes(2), ElementsAre(testing::Pair("user.empty", "")));
}

TEST_F(ItemTableTest, CountersBeginAtZeroAndKeepAllTheirBits) {
  EXPECT_EQ(table.counter("nextItem"), 0U);
  table.putCounter("nextItem", 7);
  table.putCounter("nextItem", kAllBits);
  table.putCounter("nextContent", 1);
  EXPECT_EQ(table.counter("nextItem"), kAllBits);
  EXPECT_EQ(table.counter("nextContent"), 1U);
}

TEST_F(ItemTableTest, WhatCouldNotBeLoadedAgainIsRefusedAndTheNextIsTaken) {
  using Change = void (*)(ItemRow&);
  const std::vector<Change> changes{
      [](ItemRow& row) { row.id = 0; },
      [](ItemRow& row) { row.id = 1ULL << 63U; },
      [](ItemRow& row) { row.folder = kAllBits; },
      [](ItemRow& row) { row.there->folder = kAllBits; },
      [](ItemRow& row) { row.sizeBytes = -1; },
      [](ItemRow& row) { row.there->sizeBytes = -1; },
      [](ItemRow& row) { row.content->state.sizeBytes = -1; },
      [](ItemRow& row) { row.content->state.fetchableBytes = -1; },
      [](ItemRow& row) { row.content->sendingBytes = -1; },
      [](ItemRow& row) { row.modified.nanoseconds = -1; },
      [](ItemRow& row) { row.changed.nanoseconds = 1'000'000'000; },
      [](ItemRow& row) { row.name = ""; },
      [](ItemRow& row) { row.name = "a/b"; },
      [](ItemRow& row) { row.there->name = ".."; },
      [](ItemRow& row) {
        row.there->policy = static_cast<platform::NSFileProviderContentPolicy>(4);
      },
      [](ItemRow& row) { row.isFolder = true; },
      [](ItemRow& row) { row.listing.emplace(); },
  };
  for (const Change change : changes) {
    ItemRow row = sampleFile(2);
    change(row);
    try {
      table.put(row);
      ADD_FAILURE() << "change " << &change - changes.data() << " was taken";
    } catch (const StoreError& error) {
      EXPECT_EQ(error.which(), StoreError::Case::failed);
    }
  }
  table.put(sampleFile(3));
  EXPECT_THAT(loaded(connection()), ElementsAre(sampleFile(3)));
}

TEST_F(ItemTableTest, NonsenseInARowIsDamage) {
  for (const char* nonsense : {
           "content_present = '5-3'",
           "content_present = '0-10,10-20'",
           "content_present = 'everything'",
           "content_present = NULL",
           "size = -1",
           "there_size = -1",
           "there_size = NULL",
           "content_size = -9223372036854775808",
           "folder = -5",
           "there_folder = -1",
           "there_policy = 9",
           "there_policy = -1",
           "there_name = NULL",
           "there_name = x'612F62'",
           "name = x''",
           "name = x'6100'",
           "is_folder = 2",
           "is_folder = 1",
           "is_linked = -1",
           "modified_nanoseconds = 1000000000",
           "changed_nanoseconds = 4294967296",
           "content_is_edited = 3",
           "listing_is_enumerated = 0, listing_is_stale = 0",
       }) {
    SCOPED_TRACE(nonsense);
    table.put(sampleFile(2));
    table.put(sampleFile(3));
    connection().exec("UPDATE item SET " + std::string(nonsense) + " WHERE id = 3");
    EXPECT_THAT(damage(), HasSubstr("damaged"));
  }
  table.put(sampleFile(3));
  connection().exec("UPDATE item SET id = -3 WHERE id = 3");
  EXPECT_THAT(damage(), HasSubstr("damaged"));
}

TEST_F(ItemTableTest, APutThatFailsLeavesTheTableUsable) {
  connection().exec("PRAGMA max_page_count = 12");
  bool failed = false;
  ItemRow large = sampleFile(2);
  large.there->identifier = std::string(100'000, 'x');
  try {
    table.put(large);
  } catch (const SQLite::Exception&) {
    failed = true;
  }
  EXPECT_TRUE(failed);
  table.put(sampleFile(3));
  EXPECT_THAT(loaded(connection()), ElementsAre(sampleFile(3)));
}

TEST_F(ItemTableTest, ALaterStepKeepsTheRows) {
  table.put(sampleFile(2));
  table.put(sampleFolder(3));
  table.putCounter("nextItem", 4);
  kept.reset();
  opened.database.reset();

  Schema later = itemSchema();
  later.steps.emplace_back("ALTER TABLE item ADD COLUMN invented INTEGER NOT NULL DEFAULT 7");
  Database database(file(), later);
  ItemTable again(database.connection());
  EXPECT_THAT(loaded(database.connection()), ElementsAre(sampleFile(2), sampleFolder(3)));
  EXPECT_EQ(again.counter("nextItem"), 4U);
  again.put(sampleFile(5));
  EXPECT_EQ(database.connection().execAndGet("SELECT sum(invented) FROM item").getInt(), 21);
}

// As the first version of this program made it.
TEST_F(ItemTableTest, TakesUpADatabaseOfTheFirstStep) {
  const std::filesystem::path old = directory.path() / "old.sqlite";
  Schema first = itemSchema();
  first.steps.resize(1);
  {
    Database database(old, first);
    database.connection().exec(
        "INSERT INTO item (id, is_folder, is_linked, folder, name, is_executable, stays_here, "
        "size, "
        "modified_seconds, modified_nanoseconds, changed_seconds, changed_nanoseconds) VALUES "
        "(2, 0, 1, 1, x'61', 0, 0, 5, 0, 0, 0, 0)");
  }
  const OpenedItems taken = openItems(old);
  EXPECT_EQ(taken.setAside, "");
  const std::vector<ItemRow> rows = loaded(taken.database->connection());
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].name, "a");
  EXPECT_FALSE(rows[0].awaited);
  ItemTable(taken.database->connection()).put(sampleFile(3));
  EXPECT_EQ(loaded(taken.database->connection()).at(1), sampleFile(3));
}

}  // namespace
}  // namespace kestrune::host
