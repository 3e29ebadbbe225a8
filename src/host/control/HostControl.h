// What a person may ask of a running host, and have it do: the truth about what is here, what is still on its way, what
// failed and why, and the wishes that the mounted folder has no words for (keep this here, make room, send it now).
//
// The control socket (ControlServer) is one way to ask; it knows nothing of the host but this interface.
//
// Paths are bytes, as the folder shows them, from the mount point down: "/" is the mounted folder itself, else "/a/b" with
// no empty, "." or ".." parts and no slash at the end. Whoever calls has made sure of that. A path that leads to nothing is
// answered with an error that says so (NSPOSIXError ENOENT).
//
// Threads: every operation may be called from any thread and returns soon, whatever the store does; replies come as
// host/basics/Answer.h says. Texts of errors are shown to people as they are.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/basics/Answer.h"
#include "host/basics/ExtensionStatus.h"
#include "platform/values/Date.h"

namespace kestrune::host {

/// The last look at whether a folder here is what it is at the store.
struct AuditReport {
  platform::Date at{};
  std::string path;
  /// What had to be repaired.
  std::uint64_t differences = 0;
  /// Folders that this mount looked at, and what had to be repaired in them.
  std::uint64_t comparedInAll = 0;
  std::uint64_t differencesInAll = 0;
};

/// How a host is doing: what it has at hand, however many items it knows.
struct HostCondition {
  /// How many paths of held deletions and of conflict copies are told.
  static constexpr std::size_t kMostHeldPaths = 100;
  static constexpr std::size_t kMostConflictPaths = 100;

  /// Changes of this machine that the store does not have yet, and those of them that failed at least once.
  std::uint64_t pendingChanges = 0;
  std::uint64_t failingChanges = 0;
  std::uint64_t uploads = 0;
  std::uint64_t downloads = 0;
  /// What the store says is gone and the host does not take away before somebody says so; the first of them by path.
  std::uint64_t heldDeletionCount = 0;
  std::vector<std::string> heldDeletions;
  /// Versions that were kept beside the store's, of this machine and of others, under the names that such get, in folders that
  /// were visited; the first of them by path.
  std::uint64_t conflictCount = 0;
  std::vector<std::string> conflicts;
  /// Whether the last request to the store got an answer, and if not, what it failed with; nothing before the first.
  std::optional<bool> isStoreReachable;
  std::string storeError;
  /// The store knows the user no more: nothing goes either way before that is mended.
  bool isSignedOut = false;
  /// None: it runs within the host.
  std::optional<ExtensionStatus> extension;
};

struct HostStatus : HostCondition {
  /// Whether the kernel reads whole files without asking the host.
  bool usesPassthrough = false;
  std::uint64_t knownItems = 0;
  /// Files with all or some of their contents here, and how much that is on the disk.
  std::uint64_t itemsHere = 0;
  std::uint64_t bytesHere = 0;
  /// What contents may take at most; none without a limit.
  std::optional<std::uint64_t> cacheLimitBytes;
  std::optional<AuditReport> lastAudit;
  /// When somebody last said that the store may have changed.
  std::optional<platform::Date> lastSignal;
};

/// What is still to be done at the store for one item.
struct PendingChange {
  enum class Kind { create, move, send, remove };

  /// Where the item is here; of a removal, where it was.
  std::string path;
  /// The next step, where there is more than one.
  Kind kind = Kind::create;
  bool isUnderWay = false;
  platform::Date since{};
  std::uint64_t attempts = 0;
  /// What the last attempt failed with; empty if none has failed.
  std::string reason;
  /// The last attempt failed although the store can be reached, so that waiting alone may not help.
  bool isRefused = false;
  /// What is more: the store does not let the user do it.
  bool isForbidden = false;
  /// When it is tried again, if it waits for that.
  std::optional<std::chrono::seconds> nextAttempt;
  /// Contents to be sent.
  std::uint64_t bytes = 0;
};

struct PendingChanges {
  /// All there are.
  std::uint64_t count = 0;
  /// The first of them, the oldest first.
  std::vector<PendingChange> changes;
};

struct ItemState {
  bool isFolder = false;
  std::uint64_t sizeBytes = 0;
  /// How much of its contents is here; 0 of folders.
  std::uint64_t bytesHere = 0;
  bool isPinned = false;
  /// What is still to be done at the store for it.
  std::optional<PendingChange> pending;
  /// It has the name that a version from here gets when the store has another one.
  bool isConflictCopy = false;
};

/// What is in a folder, by name.
struct EntryState {
  std::string name;
  ItemState state;
};

/// What changed since the last time that somebody asked.
struct HostChanges {
  /// Folders in which states of entries may differ now.
  std::vector<std::string> folders;
  /// Conflict copies that were made since.
  std::vector<std::string> conflicts;
};

/// Who had contents fetched.
struct DownloadCause {
  enum class Kind { program, command };

  /// A program that read the file while nothing of it was here, or the command "download".
  Kind kind = Kind::program;
  /// The name of the program's executable; empty where it could not be told.
  std::string program;
  platform::Date at{};
};

/// Why an item's contents are here or not, and may go or not.
struct ItemReasons {
  ItemState state;
  /// Whether the store has the item, in whatever version.
  bool isAtStore = false;
  /// None where it is not remembered: only the latest downloads since the host started are.
  std::optional<DownloadCause> cause;
  /// Empty: "evict" would let the contents go.
  std::string whyNotEvictable;
  /// What the last request to the store failed with; empty if it was answered: what waits then waits for the store.
  std::string storeError;
  /// When the contents were last closed after use; exact to a minute.
  std::optional<platform::Date> lastUsed;
};

enum class ItemAction {
  /// Keep the item here: its contents are fetched and never make room for others.
  pin,
  /// No longer so; what is here stays until room is needed.
  unpin,
  /// Make room: the contents here go, and so does the pin. Refused where they are open, or are not at the store yet.
  evict,
  /// Fetch the contents now, without a pin. Answered when they are here.
  download,
};

/// One answer for each path, in the order of the paths.
template <class T>
using Each = std::vector<Answer<T>>;

class HostControl {
 public:
  virtual ~HostControl() = default;

  /// Looks at every item.
  virtual void status(Reply<HostStatus> reply) = 0;

  /// The part of the status that takes no longer the more items there are: for who asks after each change.
  virtual void condition(Reply<HostCondition> reply) = 0;

  /// What is not at the store yet of the item at `path` and of all below it, items included that were removed from
  /// there; at most `most` changes are told, `count` counts all. Also for a path that is only left as a pending
  /// removal. Asked repeatedly by whoever waits, so it answers from memory.
  virtual void pending(std::string path, std::size_t most, Reply<PendingChanges> reply) = 0;

  /// Ends the pauses after failures at and below `path`: all that may go goes at once. Answered when that has begun.
  virtual void tryNow(std::string path, Reply<Done> reply) = 0;

  /// A folder stands for all that is in it. Paths do not affect each other: each has its own answer.
  virtual void act(ItemAction action, std::vector<std::string> paths, Reply<Each<Done>> reply) = 0;

  /// The addresses by which others are shown the items.
  virtual void links(std::vector<std::string> paths, Reply<Each<std::string>> reply) = 0;

  virtual void states(std::vector<std::string> paths, Reply<Each<ItemState>> reply) = 0;

  virtual void reasons(std::vector<std::string> paths, Reply<Each<ItemReasons>> reply) = 0;

  /// The host's latest log lines, the oldest first; they may quote names.
  virtual void recentLog(Reply<std::vector<std::string>> reply) = 0;

  /// Ends the host as a signal does: the folder goes away, what is not at the store stays in the replica. Answered just before
  /// that begins.
  virtual void end(Reply<Done> reply) = 0;
  /// All entries of a folder at once, from memory where the folder was visited before; not in any order.
  virtual void folderStates(std::string folder, Reply<std::vector<EntryState>> reply) = 0;

  /// From now on `wake` is called when there is something new to take: on any thread and with locks of the host held, so it must
  /// do nothing but pass that on. Null ends it: when this returns, the one before is not called any more. There is one at a time.
  virtual void watch(std::function<void()> wake) = 0;
  virtual HostChanges takeChanges() = 0;

  /// The program that lies where this one was started from takes its place, without the folder going away. Answers only if that
  /// fails, in which case this one goes on.
  virtual void restart(Reply<Done> reply) = 0;

  /// The held deletions are carried out here. Answers how many.
  virtual void allowDeletions(Reply<std::uint64_t> reply) = 0;

  /// The items of the held deletions stay, and are sent to the store again. Answers how many.
  virtual void keepDeleted(Reply<std::uint64_t> reply) = 0;
};

}  // namespace kestrune::host
