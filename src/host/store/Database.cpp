#include "host/store/Database.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/values/Date.h"

namespace kestrune::host {

namespace {

constexpr int kMode = 0600;
// Nobody else opens the file; a backup program may hold a lock for a moment.
constexpr int kBusyMilliseconds = 5000;

std::string inQuotes(const std::filesystem::path& file) { return "'" + file.string() + "'"; }

/// SQLite makes files with the process's mask; its log takes the database's mode.
void makeFile(const std::filesystem::path& file) {
  const int descriptor = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode);
  if (descriptor < 0)
    throw StoreError(StoreError::Case::failed,
                     "open " + inQuotes(file) + ": " + platform::errnoText(errno));
  ::close(descriptor);
}

std::int64_t number(SQLite::Database& connection, const std::string& query) {
  return connection.execAndGet(query).getInt64();
}

}  // namespace

StoreError storeErrorFrom(const SQLite::Exception& exception, const std::string& what) {
  const int code = exception.getErrorCode() & 0xFF;
  const bool damaged = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
  return {damaged ? StoreError::Case::damaged : StoreError::Case::failed,
          what + ": " + exception.what()};
}

Database::Database(const std::filesystem::path& file, const Schema& schema) {
  makeFile(file);
  try {
    connection_ = std::make_unique<SQLite::Database>(
        file.string(), SQLite::OPEN_READWRITE | SQLite::OPEN_NOFOLLOW | SQLite::OPEN_NOMUTEX,
        kBusyMilliseconds);
    // Before anything is read: the log's index is in memory then, and a commit takes no locks of the system, which were half
    // of its calls.
    connection_->exec("PRAGMA locking_mode = EXCLUSIVE");
    check(schema);
    configure();
    migrate(schema);
  } catch (const SQLite::Exception& exception) {
    throw storeErrorFrom(exception, "open the database " + inQuotes(file));
  }
}

void Database::check(const Schema& schema) {
  const auto application = number(*connection_, "PRAGMA application_id");
  const auto version = number(*connection_, "PRAGMA user_version");
  const bool isNew = number(*connection_, "SELECT count(*) FROM sqlite_schema") == 0;
  if (isNew && application == 0 && version == 0) return;
  if (application != schema.applicationId)
    throw StoreError(StoreError::Case::foreign, "The database is another program's.");
  if (version > static_cast<std::int64_t>(schema.steps.size())) {
    throw StoreError(StoreError::Case::newer,
                     "The database was made by a newer version of this program.");
  }
  const std::string finding = connection_->execAndGet("PRAGMA quick_check(1)").getString();
  if (finding != "ok")
    throw StoreError(StoreError::Case::damaged, "The database is damaged: " + finding);
}

void Database::configure() {
  if (connection_->execAndGet("PRAGMA journal_mode = WAL").getString() != "wal")
    throw StoreError(StoreError::Case::failed, "The database cannot have a write-ahead log here.");
  connection_->exec("PRAGMA foreign_keys = ON; PRAGMA trusted_schema = OFF;");
  connection_->exec("PRAGMA synchronous = FULL");
}

void Database::migrate(const Schema& schema) {
  auto version = static_cast<std::size_t>(number(*connection_, "PRAGMA user_version"));
  for (; version < schema.steps.size(); ++version) {
    SQLite::Transaction transaction(*connection_, SQLite::TransactionBehavior::IMMEDIATE);
    connection_->exec(schema.steps[version]);
    connection_->exec("PRAGMA application_id = " + std::to_string(schema.applicationId));
    connection_->exec("PRAGMA user_version = " + std::to_string(version + 1));
    transaction.commit();
  }
}

void Database::setSurvives(Survives survives) {
  if (survives == survives_) return;
  connection_->exec(survives == Survives::powerCut ? "PRAGMA synchronous = FULL"
                                                   : "PRAGMA synchronous = NORMAL");
  survives_ = survives;
}

std::filesystem::path Database::setAside(const std::filesystem::path& file) {
  std::string time = platform::formatISO8601Milliseconds(platform::dateNow());
  std::erase(time, ':');
  std::filesystem::path aside = file.string() + ".damaged-" + time;
  // The log first: a database that finds a log of another one's would be damaged by it.
  for (const char* suffix : {"-wal", "-shm", ""}) {
    const std::string from = file.string() + suffix;
    if (::rename(from.c_str(), (aside.string() + suffix).c_str()) != 0 && errno != ENOENT)
      throw StoreError(StoreError::Case::failed,
                       "move '" + from + "' out of the way: " + platform::errnoText(errno));
  }
  return aside;
}

}  // namespace kestrune::host
