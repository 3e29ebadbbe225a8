// The tables of the host's database and the way of items into them and out again.
//
// Names, identifiers, versions and attributes are bytes of no known encoding; all 64 bits of a number without a sign are
// kept.
//
// Threads: one at a time, on the thread that has the connection. Fails: throws SQLite::Exception, which the commit queue
// translates, or StoreError where that is said. After a failure the table can still be used.
#pragma once

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/store/Database.h"
#include "host/store/ItemRow.h"

namespace kestrune::host {

/// What was opened, and whether it is what was expected.
struct OpenedItems {
  std::unique_ptr<Database> database;
  /// Where a database lies that could not be used; empty if there was none. The new one is empty then.
  std::filesystem::path setAside;
  std::string reason;
};

/// Opens the database of a replica, or makes an empty one where there is none or a file of no bytes. A damaged one is set
/// aside and replaced by an empty one; a foreign or newer one, and one that cannot be read or made, throws StoreError.
OpenedItems openItems(const std::filesystem::path& file);

/// Sets the database aside for `reason` and makes an empty one: for when `load` finds it damaged. REQUIRES: it is not open.
OpenedItems replaceItems(const std::filesystem::path& file, std::string reason);

/// Prepared statements for one connection.
class ItemTable {
 public:
  explicit ItemTable(SQLite::Database& connection);

  /// Gives each item once, in the order of their numbers: so a folder may come after what is in it. Throws StoreError
  /// `damaged` at the first row that `put` cannot have written; what was given before is nothing to go by then.
  void load(const std::function<void(ItemRow row)>& take);

  /// Adds the item or replaces it. Throws StoreError `failed` for a row that could not be loaded again: a number of 0 or
  /// beyond 2^63 - 1, a negative size, a name that is none (the root has none), parts of a file in a folder.
  void put(const ItemRow& row);
  /// The item and its attributes; nothing if there is none.
  void remove(ItemId id);

  /// Numbers that outlive the process ("nextItem", "nextContent"); 0 where nothing was put.
  std::uint64_t counter(const std::string& name);
  void putCounter(const std::string& name, std::uint64_t value);

  // Extended attributes that programs keep here. REQUIRES: ids as in `put`.
  std::map<std::string, std::string> attributes(ItemId id);
  /// `value`: none removes it.
  void putAttribute(ItemId id, const std::string& name, const std::optional<std::string>& value);

 private:
  SQLite::Database& connection_;
  SQLite::Statement put_;
  SQLite::Statement remove_;
  SQLite::Statement removeAttributes_;
};

}  // namespace kestrune::host
