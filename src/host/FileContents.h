// The bytes of one node: fetched once, on the first read, and never changed afterwards.
//
//   absent ── read ──▶ fetching ── file handed over ──▶ here
//     ▲                   │
//     └──── failed ───────┘
//
// Everybody who reads while a fetch is under way waits for that one fetch. A fetch that failed answers those who waited.
// For a second the same failure answers whoever reads, since the kernel repeats a failed read by itself in several ways;
// then the next read tries again. When nobody has the file open any more, a running fetch is cancelled; an extension that
// does not stop for that finishes all the same, and its file is kept.
//
// `abandon` ends the node's link to its item: the item has another version or is gone. Contents that are here stay for
// those who have them open; a fetch under way is finished for those who wait for it and kept by nobody else, since its
// bytes may be of either version. A fetch never begins then: a read answers ESTALE, on which the kernel looks again.
//
// Threads: every operation may be called from any thread; replies come on any thread, without a lock held.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/Replica.h"
#include "host/basics/Answer.h"
#include "host/basics/KernelCache.h"
#include "host/basics/Timers.h"
#include "host/in/Enumeration.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// What the contents of all nodes share.
struct ContentsServices {
  ExtensionPtr extension;
  std::shared_ptr<Replica> replica;
  std::shared_ptr<const Timers> timers;
  /// Told before anybody gets the bytes of `node`: how many they are. Runs `then` when the kernel knows.
  std::function<void(NodeId node, std::int64_t sizeBytes, std::function<void()> then)> arrived;
  /// Told whenever a fetch begins (+1) and ends (-1).
  std::function<void(NodeId node, int step)> fetching;
  /// Told why a fetch failed.
  std::function<void(NodeId node, const platform::NSError& error)> failed;
};

class FileContents : public std::enable_shared_from_this<FileContents> {
 public:
  static constexpr std::chrono::seconds kFailureHolds{1};

  FileContents(std::shared_ptr<const ContentsServices> services, NodeId node,
               platform::NSFileProviderItemIdentifier identifier)
      : services_(std::move(services)), node_(node), identifier_(std::move(identifier)) {}

  /// Counts those who have the file open. `closed` REQUIRES an `opened` before.
  void opened();
  void closed();

  /// The bytes if they are here and open, else null: no waiting, no fetching.
  LocalFilePtr present() const;
  /// Answers with the bytes; fetches them if need be. REQUIRES: opened.
  void read(Reply<LocalFilePtr> reply);
  /// The item has another version now, or is gone. No input or output: may be called with the tree's lock held.
  void abandon();
  /// Removes abandoned contents from the replica. Once after `abandon`.
  void discard();

 private:
  enum class State { absent, fetching, here };
  using Waiters = std::vector<Reply<LocalFilePtr>>;

  Answer<LocalFilePtr> openAgain() REQUIRES_LOCK(mutex_);
  void begin();
  void fetched(std::optional<std::filesystem::path> url, platform::NSErrorPtr error);
  void deliver(const LocalFilePtr& file);
  void fail(const platform::NSErrorPtr& error);
  bool beginAgain();

  // Constant.
  const std::shared_ptr<const ContentsServices> services_;
  const NodeId node_;
  const platform::NSFileProviderItemIdentifier identifier_;

  mutable platform::Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::absent;
  bool abandoned_ GUARDED_BY(mutex_) = false;
  bool cancelled_ GUARDED_BY(mutex_) = false;  // the running fetch was told to stop
  std::size_t openCount_ GUARDED_BY(mutex_) = 0;
  LocalFilePtr file_ GUARDED_BY(mutex_);  // open only while the file is open
  platform::NSProgressPtr progress_ GUARDED_BY(mutex_);
  platform::NSErrorPtr failure_ GUARDED_BY(mutex_);  // of the last fetch
  std::chrono::nanoseconds failedAt_ GUARDED_BY(mutex_){0};
  Waiters waiters_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
