// Rows for the tests, with a value of its own in every field; and what a database gives back.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "host/store/ItemTable.h"

namespace kestrune::host {

inline std::vector<ItemRow> loaded(SQLite::Database& connection) {
  std::vector<ItemRow> rows;
  ItemTable(connection).load([&](ItemRow row) { rows.push_back(std::move(row)); });
  return rows;
}

inline ItemRow bareRow(ItemId id) {
  ItemRow row;
  row.id = id;
  row.name = "item " + std::to_string(id);
  return row;
}

inline ThereState sampleThere(ItemId id) {
  ThereState there;
  there.identifier = "/Projects/2026/a folder of some depth/item " + std::to_string(id) + ".txt";
  there.folder = id + 1000;
  there.name = "item " + std::to_string(id) + " there.txt";
  there.version = {"content " + std::to_string(id * 7919), "metadata " + std::to_string(id)};
  there.sizeBytes = 4097;
  there.modified = platform::Date(std::chrono::microseconds(1'700'000'000'123'456));
  there.policy = platform::NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
  there.isProvisional = true;
  return there;
}

inline ItemRow sampleFile(ItemId id) {
  ItemRow row = bareRow(id);
  row.isLinked = id % 2 == 0;
  row.folder = id + 1;
  row.isExecutable = true;
  row.sizeBytes = 4099;
  row.modified = {-5, 999'999'999};
  row.changed = {1'800'000'000, 1};
  row.there = sampleThere(id);
  row.awaited = Place{id + 2000, "item " + std::to_string(id) + " awaited.txt"};
  row.content.emplace();
  row.content->state.number = id + 17;
  row.content->state.version = "version of " + std::to_string(id);
  row.content->state.sizeBytes = 4098;
  row.content->state.fetchableBytes = 4096;
  row.content->state.present.add({0, 100});
  row.content->state.present.add({200, 4098});
  row.content->state.edits = 12;
  row.content->state.isEdited = true;
  row.content->base = "base of " + std::to_string(id);
  row.content->sentEdits = 11;
  row.content->sendingSince = 1'780'000'000;
  row.content->sendingBytes = 4095;
  row.content->sendingEdits = 10;
  row.content->usedSeconds = 1'790'000'000;
  return row;
}

inline ItemRow sampleFolder(ItemId id) {
  ItemRow row = bareRow(id);
  row.isFolder = true;
  row.staysHere = true;
  row.there = sampleThere(id);
  row.there->isHeldDeletion = true;
  row.there->isProvisional = false;
  row.listing.emplace();
  row.listing->isEnumerated = id % 2 == 0;
  row.listing->hasStaleIdentifiers = id % 2 != 0;
  row.listing->anchor = "anchor of " + std::to_string(id);
  return row;
}

}  // namespace kestrune::host
