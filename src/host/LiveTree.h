// The folder tree, kept in step with the extension and shared by everybody who asks: the tree with its lock.
//
// A folder is enumerated when it is visited first (its content is asked for, or a name in it); everybody who visits it
// meanwhile waits for that one enumeration. If it fails, those who wait get the error and the next visit tries again.
// From then on the folder is kept as it is until changes are applied, so later visits do not wait.
//
// A wait for an enumeration is bounded: after the patience has passed the caller gets ETIMEDOUT, while the enumeration goes
// on for the next visit.
//
// Threads: every operation may be called from any thread; replies come on any thread, without a lock held. The lock is
// held for work in memory only. Lock order: LiveTree before FileContents; nothing else is called with it but
// KernelCache::tell, which only queues, so the kernel hears of changes in the order in which they happened.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/FileContents.h"
#include "host/Tree.h"
#include "host/basics/Answer.h"
#include "host/basics/HostLog.h"
#include "host/basics/KernelCache.h"
#include "host/basics/OnceReply.h"
#include "host/basics/Timers.h"
#include "host/front/Dispatcher.h"
#include "host/in/Enumeration.h"
#include "platform/values/Date.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// An open file of the tree.
struct OpenVersion final : OpenFile {
  OpenVersion(NodeId nodeId, std::shared_ptr<FileContents> fileContents)
      : OpenFile(nodeId), contents(std::move(fileContents)) {}
  const std::shared_ptr<FileContents> contents;
};

/// REQUIRES: `file` was opened by a tree.
FileContents& contentsOf(const OpenFile& file);

class LiveTree : public std::enable_shared_from_this<LiveTree> {
 public:
  struct Services {
    ExtensionPtr extension;
    std::shared_ptr<Timers> timers;
    std::shared_ptr<KernelCache> kernel;
    std::shared_ptr<const platform::Clock> clock;
    std::shared_ptr<HostLog> log;
    std::chrono::nanoseconds patience = std::chrono::seconds(60);
  };

  explicit LiveTree(Services services);

  /// Makes the contents of a file that is opened for the first time. Set once, before any file is opened.
  using ContentsFactory = std::function<std::shared_ptr<FileContents>(
      NodeId, const platform::NSFileProviderItemIdentifier&)>;
  void setContentsFactory(ContentsFactory factory);
  /// Told of a folder whose first enumeration ended after its changes had been asked for. Set once, before any visit.
  void setListedLate(std::function<void(NodeId)> listedLate);

  // What programs ask, as Dispatcher describes it.
  void lookup(NodeId folder, std::string name, Reply<Entry> reply);
  void forget(NodeId node, std::uint64_t count);
  Answer<Attributes> attributes(NodeId node);
  void visit(NodeId folder, Reply<Done> reply);
  platform::NSErrorPtr readFolder(NodeId folder, std::uint64_t after, bool remember,
                                  FolderSink& sink);
  Answer<OpenFilePtr> open(NodeId node);
  void release(const OpenFile& file);

  /// The bytes of `node` are here: from now on its size is theirs. `then` runs when the kernel knows.
  void contentsArrived(NodeId node, std::int64_t sizeBytes, std::function<void()> then);

  // What keeping up to date needs.
  struct FolderState {
    platform::NSFileProviderItemIdentifier identifier;
    std::optional<platform::NSFileProviderSyncAnchor> anchor;
  };
  /// Every folder that has been enumerated. Those whose first enumeration is under way are reported to `listedLate`.
  std::vector<NodeId> listedFolders();
  /// Nothing if the folder is gone or has not been enumerated.
  std::optional<FolderState> listedFolder(NodeId folder);
  void applyChanges(NodeId folder, const ChangeSet& changes);
  void applyListing(NodeId folder, const Listing& listing);
  /// Whether `node` lies in `folder` or below.
  bool isWithin(NodeId node, NodeId folder);
  /// The folder in which `node` has its name now; 0 if it has none.
  NodeId folderOf(NodeId node);
  /// For log lines.
  std::string path(NodeId node);

 private:
  struct Waiter {
    OnceReply<Done> reply;
    Timers::Token timeOut;
  };
  struct Visit {
    std::vector<Waiter> waiters;
    bool changesAsked = false;
  };
  // What is done once the lock is released.
  struct Aftermath;

  Answer<Entry> entryIn(Node& folder, const std::string& name) REQUIRES_LOCK(mutex_);
  Attributes attributesOf(const Node& node) const REQUIRES_LOCK(mutex_);
  void enumerated(NodeId folder, Answer<Listing> listing);
  void takeEffects(const Node& folder, Effects effects, Aftermath& aftermath) REQUIRES_LOCK(mutex_);
  void finish(const Aftermath& aftermath);

  // Constant.
  const Services services_;
  ContentsFactory contentsFactory_;
  std::function<void(NodeId)> listedLate_;

  platform::Mutex mutex_;
  Tree tree_ GUARDED_BY(mutex_);
  std::map<NodeId, Visit> visits_ GUARDED_BY(mutex_);
  std::map<NodeId, std::optional<platform::NSFileProviderSyncAnchor>> anchors_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
