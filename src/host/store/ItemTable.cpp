#include "host/store/ItemTable.h"

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Exception.h>

#include <bit>
#include <utility>

#include "host/store/ItemColumns.h"
#include "host/store/Run.h"

namespace kestrune::host {

OpenedItems openItems(const std::filesystem::path& file) {
  try {
    return {std::make_unique<Database>(file, itemSchema()), {}, {}};
  } catch (const StoreError& error) {
    if (error.which() != StoreError::Case::damaged) throw;
    return replaceItems(file, error.localizedDescription());
  }
}

OpenedItems replaceItems(const std::filesystem::path& file, std::string reason) {
  std::filesystem::path aside = Database::setAside(file);
  return {std::make_unique<Database>(file, itemSchema()), std::move(aside), std::move(reason)};
}

ItemTable::ItemTable(SQLite::Database& connection)
    : connection_(connection),
      put_(connection, putStatement()),
      remove_(connection, "DELETE FROM item WHERE id = ?"),
      removeAttributes_(connection, "DELETE FROM attribute WHERE item = ?") {}

void ItemTable::load(const std::function<void(ItemRow row)>& take) {
  SQLite::Statement query(connection_, loadStatement());
  const auto next = [&query] {
    try {
      return query.executeStep();
    } catch (const SQLite::Exception& exception) {
      throw storeErrorFrom(exception, "read the items");
    }
  };
  while (next()) take(takeRow(query));
}

void ItemTable::put(const ItemRow& row) {
  if (const char* reason = whyNotARow(row)) {
    throw StoreError(StoreError::Case::failed,
                     "keep item " + std::to_string(row.id) + ": " + reason);
  }
  const std::string present = row.content ? row.content->state.present.text() : "";
  Run run(put_);
  give(run, row, present);
  run.exec();
}

void ItemTable::remove(ItemId id) {
  Run(remove_).bits(id).exec();
  Run(removeAttributes_).bits(id).exec();
}

std::uint64_t ItemTable::counter(const std::string& name) {
  SQLite::Statement query(connection_, "SELECT value FROM counter WHERE name = ?");
  query.bind(1, name);
  return query.executeStep() ? std::bit_cast<std::uint64_t>(query.getColumn(0).getInt64()) : 0;
}

void ItemTable::putCounter(const std::string& name, std::uint64_t value) {
  SQLite::Statement statement(
      connection_,
      "INSERT INTO counter VALUES (?, ?) ON CONFLICT (name) DO UPDATE SET value = excluded.value");
  Run(statement).text(name).bits(value).exec();
}

std::map<std::string, std::string> ItemTable::attributes(ItemId id) {
  SQLite::Statement query(connection_, "SELECT name, value FROM attribute WHERE item = ?");
  query.bind(1, std::bit_cast<std::int64_t>(id));
  std::map<std::string, std::string> found;
  while (query.executeStep())
    found.emplace(query.getColumn(0).getString(), query.getColumn(1).getString());
  return found;
}

void ItemTable::putAttribute(ItemId id, const std::string& name,
                             const std::optional<std::string>& value) {
  SQLite::Statement statement(
      connection_, value ? "INSERT INTO attribute VALUES (?, ?, ?) ON CONFLICT (item, name) DO "
                           "UPDATE SET value = excluded.value"
                         : "DELETE FROM attribute WHERE item = ? AND name = ?");
  Run run(statement);
  run.bits(id).bytes(name);
  if (value) run.bytes(*value);
  run.exec();
}

}  // namespace kestrune::host
