// How each node is open: through requests to the host, or read by the kernel itself from the local file ("passthrough"),
// which is as fast as the local disk. The kernel refuses to have one node open in both ways (the open ends with EIO), so it
// is decided here, per node:
//
//   nothing open ──► through requests ◄─► more of the same, readers of whole files too
//        └─────────► by the kernel    ◄─► more readers of the whole file; anybody else is told to take the node's successor
//
// and back when the last open file of the node is released. For a moment after a conflict no node begins to be read by the
// kernel, so that whoever was sent to the successor does not find it taken again: the kernel looks up once more, not twice.
//
// Only readers are left to the kernel. Who writes, or changes the
// length, says so before the dispatcher is asked, so that a reader whose file was whole a moment ago is not left to the kernel
// any more.
//
// Threads: every operation may be called from any thread; the backing files are asked with the lock held (a short call of
// the system).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>

#include "host/basics/LocalFile.h"
#include "host/basics/NodeId.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// Local files that the kernel was given.
class BackingFiles {
 public:
  virtual ~BackingFiles() = default;
  /// The number by which the kernel knows the file from now on; none if it will not have it.
  virtual std::optional<std::int32_t> open(int descriptor) = 0;
  virtual void close(std::int32_t number) = 0;
};

class Passthrough {
 public:
  enum class Way {
    requests,
    kernel,
    /// Not at all: the kernel reads this node, which does not go together with what is wanted.
    conflict,
  };
  struct Opened {
    Way way = Way::requests;
    std::int32_t backing = 0;  // with Way::kernel
  };
  /// What was so when an open began.
  using Ticket = std::uint64_t;
  using Now = std::function<std::chrono::steady_clock::time_point()>;

  /// Much longer than the kernel needs to look a name up again.
  static constexpr std::chrono::seconds kPauseAfterConflict{1};

  /// `files` outlive the object. Nothing is left to the kernel before `allow`.
  explicit Passthrough(BackingFiles& files, Now now = &std::chrono::steady_clock::now)
      : files_(files), now_(std::move(now)) {}
  Passthrough(const Passthrough&) = delete;
  Passthrough& operator=(const Passthrough&) = delete;

  /// The kernel is able to.
  void allow();
  /// Whether `allow` was called: the kernel is one that can read files by itself.
  bool isOffered() const;
  /// Whether the kernel has taken files so far and refused none. A refusal (no privilege, a file system that it cannot use)
  /// is taken as final.
  bool inUse() const;

  /// Before a node is opened to be changed, or its length is changed. False: it conflicts. After true, `end` with
  /// Way::requests follows when that is over.
  [[nodiscard]] bool beginChange(NodeId node);

  /// Around an open that only reads. `whole` as in OpenFile. Unless it conflicts, `end` follows at the release.
  Ticket beginOpening(NodeId node);
  Opened endOpening(NodeId node, Ticket ticket, const LocalFilePtr& whole);
  /// Instead of `endOpening` if the open came to nothing.
  void abandonOpening(NodeId node);

  void end(NodeId node, Way way);

  // For a host that takes over what another has opened.

  /// How it stands in general.
  struct Standing {
    bool isOffered = false;
    bool isInUse = false;
  };
  Standing standing() const;
  void restore(Standing standing);
  /// By which number the kernel reads the node; 0 if it does not.
  std::int32_t backingOf(NodeId node) const;
  /// An open file of the node: read by the kernel by this number, or, where it is 0, through requests. REQUIRES: the files of a node are
  /// all open in the same way.
  void restoreOpen(NodeId node, std::int32_t backing);

 private:
  struct Node {
    std::uint32_t opening = 0;
    std::uint32_t throughRequests = 0;
    std::uint32_t byKernel = 0;
    std::int32_t backing = 0;  // while byKernel > 0
    Ticket changes = 0;
  };
  using Nodes = std::unordered_map<NodeId, Node>;
  void pause() REQUIRES_LOCK(mutex_);
  bool leaveToKernel(Node& node, const LocalFilePtr& whole) REQUIRES_LOCK(mutex_);
  void dropIfUnused(Nodes::iterator place) REQUIRES_LOCK(mutex_);

  BackingFiles& files_;
  const Now now_;
  mutable platform::Mutex mutex_;
  bool allowed_ GUARDED_BY(mutex_) = false;
  bool succeeded_ GUARDED_BY(mutex_) = false;
  std::chrono::steady_clock::time_point pausedUntil_ GUARDED_BY(mutex_);
  Nodes nodes_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
