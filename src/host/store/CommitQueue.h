// Changes of a database, made on a thread of their own and committed in groups: what comes while one
// commit runs goes into the next together, so that a burst of calls pays for one flush.
//
//     constructor · (commit | read)* · destructor (finishes what was accepted)
//
// Threads: `commit` from any thread; work and replies run on the queue's thread, and must not wait for
// it. Fails: by reply.
#pragma once

#include <condition_variable>
#include <functional>
#include <thread>
#include <vector>

#include "host/store/Database.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class CommitQueue {
 public:
  using Survives = Database::Survives;
  using Work = std::function<void(SQLite::Database& connection)>;
  /// Null when the work is committed; else nothing of it is.
  using Reply = std::function<void(platform::NSErrorPtr error)>;

  /// The queue's thread alone uses `database` until the queue is gone.
  explicit CommitQueue(Database& database);
  ~CommitQueue();
  CommitQueue(const CommitQueue&) = delete;
  CommitQueue& operator=(const CommitQueue&) = delete;

  /// Runs `work` after all that was accepted before. Where it throws, its own changes are undone and
  /// nobody else's; a full disk fails all that were to be committed together. `reply` comes when the
  /// commit survives what is asked.
  void commit(Work work, Survives survives, Reply reply);

  /// All that was accepted is committed, or has failed, and its replies have been given.
  bool isIdle();

 private:
  struct Entry {
    Work work;
    Survives survives;
    Reply reply;
    platform::NSErrorPtr error;
  };
  using Group = std::vector<Entry>;

  void run();
  /// What has come; empty at the end.
  Group nextGroup();
  void commitGroup(Group& group);

  Database& database_;
  platform::Mutex mutex_;
  std::condition_variable changed_;
  Group waiting_ GUARDED_BY(mutex_);
  bool ending_ GUARDED_BY(mutex_) = false;
  bool isWorking_ GUARDED_BY(mutex_) = false;  // with a group, or its replies
  std::thread thread_;
};

}  // namespace kestrune::host
