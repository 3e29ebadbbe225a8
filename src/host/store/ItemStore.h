// The host's memory as the host uses it: read once at the start, changed from then on by commits that nobody waits for
// but who asked.
//
//     constructor · (load | counter)* · (commit | putAttribute | attributes)* · destructor
//
// The destructor finishes what was accepted, and gives its replies.
//
// Threads: `load` and `counter` on the thread that made the store; the others from any thread. Replies come on the store's own
// thread, in the order of the calls, and must not wait for it. Fails: by reply, with a StoreError; a call that failed
// changed nothing, and others may succeed after it, as when a full disk has room again.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/basics/Answer.h"
#include "host/store/CommitQueue.h"
#include "host/store/Database.h"
#include "host/store/ItemTable.h"

namespace kestrune::host {

class ItemStore {
 public:
  using Survives = Database::Survives;

  /// `database` is what `openItems` gave. Throws StoreError.
  explicit ItemStore(std::unique_ptr<Database> database);
  ItemStore(const ItemStore&) = delete;
  ItemStore& operator=(const ItemStore&) = delete;

  /// As in ItemTable; a damaged database is replaced (`replaceItems`) when this store is gone. REQUIRES: nothing was
  /// committed yet.
  void load(const std::function<void(ItemRow row)>& take);
  std::uint64_t counter(const std::string& name);

  /// All of it or nothing: adds or replaces what is in `put`, then removes what is in `removed`, then sets the counters.
  void commit(std::vector<ItemRow> put, std::vector<ItemId> removed,
              std::vector<std::pair<std::string, std::uint64_t>> counters, Survives survives,
              Reply<Done> reply);

  /// Everything so far is committed, and its replies have been given.
  bool isIdle() { return queue_.isIdle(); }

  /// `value`: none removes it.
  void putAttribute(ItemId id, std::string name, std::optional<std::string> value,
                    Survives survives, Reply<Done> reply);
  /// Sees what was asked before, whether it is answered or not.
  void attributes(ItemId id, Reply<std::map<std::string, std::string>> reply);

 private:
  const std::unique_ptr<Database> database_;
  ItemTable table_;    // the queue's thread alone uses it, once something was committed
  CommitQueue queue_;  // goes first: its thread uses the others
};

}  // namespace kestrune::host
