// The tables of the host's database and the way of items into them and out again.
//
// Threads: one at a time, on the thread that has the connection. Fails: throws SQLite::Exception, which the commit queue
// translates; `schema` and `openItems` throw StoreError.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/store/Database.h"
#include "host/store/ItemRow.h"

namespace kestrune::host {

/// The host's schema; see Schema for how it grows.
const Schema& itemSchema();

/// What was opened, and whether it is what was expected.
struct OpenedItems {
  std::unique_ptr<Database> database;
  /// Where a database lies that could not be used; empty if there was none. The new one is empty then.
  std::filesystem::path setAside;
  std::string reason;
};

/// Opens the database of a replica. A damaged one is set aside and replaced by an empty one; a foreign or newer one throws.
OpenedItems openItems(const std::filesystem::path& file);

/// Prepared statements for one connection.
class ItemTable {
 public:
  explicit ItemTable(SQLite::Database& connection);

  /// Each item once, folders in no order. `take` gets the rows one by one.
  void load(const std::function<void(ItemRow row)>& take);

  void put(const ItemRow& row);
  void remove(InodeNumber id);

  /// Numbers that outlive the process ("nextItem", "nextContent"); 0 where nothing was put.
  std::uint64_t counter(const std::string& name);
  void putCounter(const std::string& name, std::uint64_t value);

  // Extended attributes that programs keep here.
  std::map<std::string, std::string> attributes(InodeNumber id);
  /// `value`: none removes it.
  void putAttribute(InodeNumber id, const std::string& name, const std::optional<std::string>& value);

 private:
  SQLite::Database& connection_;
  SQLite::Statement put_;
  SQLite::Statement remove_;
};

}  // namespace kestrune::host
