// One SQLite database of the host: made where it is missing, brought to the present schema, looked at
// before it is trusted.
//
// It is in WAL mode and belongs to one process: nobody else can open it meanwhile. What a commit survives is chosen for each: the end of
// the process (nothing is flushed), or a power cut (the log is flushed, with all commits before).
//
// Threads: one at a time. Fails: throws StoreError; after a failed statement the database can still be
// used.
#pragma once

#include <SQLiteCpp/Database.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/store/StoreError.h"

namespace kestrune::host {

/// What a database is to look like.
struct Schema {
  /// Tells this program's databases from others'; not 0.
  std::int32_t applicationId;
  /// The n-th step leads from version n to n + 1; each is one or more statements and runs as one
  /// transaction. Steps are only ever added.
  std::vector<std::string> steps;
};

class Database {
 public:
  enum class Survives { processEnd, powerCut };

  /// Opens the database, mode 0600, and brings it to the schema's last version. The folder exists.
  /// Throws StoreError `damaged`, `foreign` or `newer`, and leaves the file as it is then.
  Database(const std::filesystem::path& file, const Schema& schema);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// For statements and transactions; throws SQLite::Exception, which `storeErrorFrom` translates.
  SQLite::Database& connection() { return *connection_; }

  /// What commits survive from now on. REQUIRES: no transaction is open.
  void setSurvives(Survives survives);

  /// Moves a database that cannot be used out of the way, with its log: "<file>.damaged-<UTC time>". Returns
  /// the new name.
  static std::filesystem::path setAside(const std::filesystem::path& file);

 private:
  void configure();
  void check(const Schema& schema);
  void migrate(const Schema& schema);

  std::unique_ptr<SQLite::Database> connection_;
  Survives survives_ = Survives::powerCut;
};

/// `what` says what was tried, without a trailing colon.
StoreError storeErrorFrom(const SQLite::Exception& exception, const std::string& what);

}  // namespace kestrune::host
