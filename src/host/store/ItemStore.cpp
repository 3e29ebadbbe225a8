#include "host/store/ItemStore.h"

#include <SQLiteCpp/Exception.h>

namespace kestrune::host {

using platform::NSErrorPtr;

namespace {

/// What `make` gives. Throws StoreError where SQLite fails.
template <class Make>
auto translated(const std::string& what, const Make& make) {
  try {
    return make();
  } catch (const SQLite::Exception& exception) {
    throw storeErrorFrom(exception, what);
  }
}

CommitQueue::Reply doneOr(Reply<Done> reply) {
  return [reply = std::move(reply)](NSErrorPtr error) {
    if (error)
      reply(std::move(error));
    else
      reply(Done{});
  };
}

}  // namespace

ItemStore::ItemStore(std::unique_ptr<Database> database)
    : database_(std::move(database)),
      table_(translated("prepare the database",
                        [this] { return ItemTable(database_->connection()); })),
      queue_(*database_) {}

void ItemStore::load(const std::function<void(ItemRow row)>& take) { table_.load(take); }

std::uint64_t ItemStore::counter(const std::string& name) {
  return translated("read a counter", [&] { return table_.counter(name); });
}

void ItemStore::commit(std::vector<ItemRow> put, std::vector<ItemId> removed,
                       std::vector<std::pair<std::string, std::uint64_t>> counters,
                       Survives survives, Reply<Done> reply) {
  queue_.commit(
      [this, put = std::move(put), removed = std::move(removed),
       counters = std::move(counters)](SQLite::Database&) {
        for (const ItemRow& row : put) table_.put(row);
        for (const ItemId id : removed) table_.remove(id);
        for (const auto& [name, value] : counters) table_.putCounter(name, value);
      },
      survives, doneOr(std::move(reply)));
}

void ItemStore::putAttribute(ItemId id, std::string name, std::optional<std::string> value,
                             Survives survives, Reply<Done> reply) {
  queue_.commit([this, id, name = std::move(name), value = std::move(value)](
                    SQLite::Database&) { table_.putAttribute(id, name, value); },
                survives, doneOr(std::move(reply)));
}

void ItemStore::attributes(ItemId id, Reply<std::map<std::string, std::string>> reply) {
  const auto found = std::make_shared<std::map<std::string, std::string>>();
  queue_.commit([this, id, found](SQLite::Database&) { *found = table_.attributes(id); },
                Survives::processEnd,
                [found, reply = std::move(reply)](NSErrorPtr error) {
                  if (error)
                    reply(std::move(error));
                  else
                    reply(std::move(*found));
                });
}

}  // namespace kestrune::host
