#include "host/store/CommitQueue.h"

#include <SQLiteCpp/Savepoint.h>
#include <SQLiteCpp/Transaction.h>
#include <pthread.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

namespace kestrune::host {

using platform::MutexLock;
using platform::NSErrorPtr;

namespace {

constexpr const char* kSavepoint = "entry";

/// The present exception as an error of the store. REQUIRES: called inside a catch block.
NSErrorPtr currentStoreError() {
  try {
    throw;
  } catch (const SQLite::Exception& exception) {
    constexpr const char* kWhat = "write to the database";
    // Programs are told of a full disk as of any other: they know what to do about it.
    if (exception.getErrorCode() == SQLITE_FULL)
      return platform::NSPOSIXError(ENOSPC, kWhat).share();
    return storeErrorFrom(exception, kWhat).share();
  } catch (...) {
    return platform::currentError();
  }
}

/// Runs `work` so that it leaves all of its changes or none.
NSErrorPtr runAlone(SQLite::Database& connection, const CommitQueue::Work& work) {
  SQLite::Savepoint savepoint(connection, kSavepoint);
  try {
    work(connection);
    savepoint.release();
    return nullptr;
  } catch (...) {
    return currentStoreError();  // the savepoint undoes what was done when it goes
  }
}

}  // namespace

CommitQueue::CommitQueue(Database& database) : database_(database), thread_([this] { run(); }) {}

CommitQueue::~CommitQueue() {
  {
    MutexLock lock(mutex_);
    ending_ = true;
    changed_.notify_one();
  }
  thread_.join();
}

void CommitQueue::commit(Work work, Survives survives, Reply reply) {
  MutexLock lock(mutex_);
  waiting_.push_back({std::move(work), survives, std::move(reply), nullptr});
  changed_.notify_one();
}

bool CommitQueue::isIdle() {
  MutexLock lock(mutex_);
  return waiting_.empty() && !isWorking_;
}

CommitQueue::Group CommitQueue::nextGroup() {
  MutexLock lock(mutex_);
  isWorking_ = false;
  while (waiting_.empty() && !ending_) lock.wait(changed_);
  isWorking_ = true;
  return std::exchange(waiting_, {});
}

void CommitQueue::commitGroup(Group& group) {
  const bool flushed = std::any_of(group.begin(), group.end(), [](const Entry& entry) {
    return entry.survives == Survives::powerCut;
  });
  try {
    database_.setSurvives(flushed ? Survives::powerCut : Survives::processEnd);
    SQLite::Transaction transaction(database_.connection(), SQLite::TransactionBehavior::IMMEDIATE);
    for (Entry& entry : group) {
      entry.error = runAlone(database_.connection(), entry.work);
      // A full disk ends the whole transaction; what came after would be committed by itself.
      if (sqlite3_get_autocommit(database_.connection().getHandle()) != 0) entry.error->raise();
    }
    transaction.commit();
  } catch (...) {
    // Nothing of the group is there.
    const NSErrorPtr error = currentStoreError();
    for (Entry& entry : group) {
      if (!entry.error) entry.error = error;
    }
  }
}

void CommitQueue::run() {
  pthread_setname_np(pthread_self(), "kes-commit");
  for (Group group = nextGroup(); !group.empty(); group = nextGroup()) {
    commitGroup(group);
    for (Entry& entry : group) {
      entry.work =
          nullptr;  // what it holds goes before the reply, which may be the last to be waited for
      entry.reply(std::move(entry.error));
    }
  }
}

}  // namespace kestrune::host
