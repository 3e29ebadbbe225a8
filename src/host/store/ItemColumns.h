// An item's row as columns of the table `item`: the schema, the statements, and each field's place in them.
//
// Threads: pure functions.
#pragma once

#include <SQLiteCpp/Statement.h>

#include <string>

#include "host/store/Database.h"
#include "host/store/ItemRow.h"
#include "host/store/Run.h"

namespace kestrune::host {

/// The host's schema; see Schema for how it grows.
const Schema& itemSchema();

/// Adds an item or replaces all of it; `give` gives its values.
std::string putStatement();
/// All items in the order of their numbers; `takeRow` takes the present one.
std::string loadStatement();

/// Why the row is not put, or null. Whoever is refused here would be taken for damage when it is loaded again.
const char* whyNotARow(const ItemRow& row);

/// REQUIRES: `whyNotARow(row)` is null. `presentText` is that of the content's ranges; it lives as long as `row`.
void give(Run& run, const ItemRow& row, const std::string& presentText);

/// Throws StoreError `damaged` for what was never put.
ItemRow takeRow(const SQLite::Statement& query);

}  // namespace kestrune::host
