// Keeps noted, beside the contents of every changed file, what is needed to send it if the database is lost.
//
// Threads: every operation may be called from any thread. `gather` works in memory only; `write` blocks for small local files.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "host/basics/HostLog.h"
#include "host/content/ContentDirectory.h"
#include "host/tree/Tree.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class EditNotes {
 public:
  EditNotes(std::shared_ptr<ContentDirectory> directory, std::shared_ptr<HostLog> log);

  /// Of what changed it keeps what is to be noted. REQUIRES: called with the tree's lock held, in the order of the changes.
  void gather(const Tree& tree, const TreeEffects& effects);
  /// Writes what was gathered; the newest of each file, whoever calls. A failure is logged. REQUIRES: no lock is held.
  void write();

 private:
  void gather(const Tree& tree, const Item& item) REQUIRES_LOCK(mutex_);
  void forget(ContentNumber number) REQUIRES_LOCK(mutex_);

  const std::shared_ptr<ContentDirectory> directory_;
  const std::shared_ptr<HostLog> log_;
  platform::Mutex writing_;
  platform::Mutex mutex_;
  /// As last gathered; empty if it is of an earlier mount.
  std::map<ContentNumber, std::string> noted_ GUARDED_BY(mutex_);
  /// None: the note is to go.
  std::map<ContentNumber, std::optional<std::string>> pending_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
