// Brings what differs here to the store: decides when, looks before each change, sends, and settles what came of it.
//
// - Nothing is queued. What differs is asked of the tree again before every step, so many changes of one item are one, and what
//   was undone costs nothing.
// - A change waits a short while after its item changed last, because programs save in bursts; contents wait until no program
//   has the file open for writing.
// - Before anything goes out the store is asked for what it has: if somebody else changed the item since, both versions are kept, and
//   a removal is taken back.
// - A failed change is tried again after 1 s, 2 s and so on up to 5 minutes; at once when the store answers again after it could not
//   be reached, when a program saves the file again, or when somebody asks. Nothing is given up.
//
// Threads: every operation may be called from any thread and returns at once. The work runs as tasks.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/out/Planner.h"
#include "host/volume/Contents.h"
#include "host/volume/ExtensionCalls.h"
#include "host/volume/FolderLister.h"
#include "host/volume/Waits.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// A change that has not reached the store.
struct UnsentChange {
  ItemId item = 0;
  Change::Kind kind = Change::Kind::send;
  std::string path;
  std::int64_t sizeBytes = 0;
  std::chrono::nanoseconds waiting{0};
  int attempts = 0;
  bool isUnderWay = false;
  /// Why it failed last; empty if it did not, or why it cannot be tried now.
  std::string reason;
  /// It failed although the store can be reached.
  bool isRefused = false;
  /// The store does not let the user do it.
  bool isForbidden = false;
  /// Until it is tried again.
  std::chrono::nanoseconds until{0};
};

class Sender : public std::enable_shared_from_this<Sender> {
 public:
  static constexpr std::size_t kAtOnce = 12;
  static constexpr std::chrono::milliseconds kQuiet{100};
  /// For a new file so large that sending it takes far longer than anything that a program may still do to its name.
  static constexpr std::chrono::milliseconds kQuietLarge{20};
  static constexpr std::int64_t kLargeBytes = 16LL << 20U;
  /// For removals and moves: what comes next may show that they were part of a save.
  static constexpr std::chrono::milliseconds kQuietNames{300};
  /// For contents that were sent a moment ago.
  static constexpr std::chrono::milliseconds kQuietAgain{500};
  /// How old what is known of a folder may be.
  static constexpr std::chrono::seconds kFresh{2};
  /// How long after a sending the store is asked what it made of it.
  static constexpr std::chrono::milliseconds kVerify{20};
  static constexpr std::chrono::seconds kLongestPause{300};
  static constexpr std::chrono::seconds kProbe{10};
  /// How many times as long as a look at all that differs took, none is begun; and no longer than this.
  static constexpr int kRests = 2;
  static constexpr std::chrono::milliseconds kLongestRest{20};

  Sender(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister,
         std::shared_ptr<Contents> contents, std::shared_ptr<ExtensionCalls> calls);

  /// Told when contents of an item begin (+1) or end (-1) to be sent. Set once, before anything is sent.
  void setSending(std::function<void(ItemId item, int step)> sending) {
    sending_ = std::move(sending);
  }
  /// Told when a change was sent (null), or could not be because of what came instead of an answer. Set once, before
  /// anything is sent; it may call `reached`.
  void setReached(std::function<void(const platform::NSErrorPtr& error)> told) {
    told_ = std::move(told);
  }

  /// Told when a change of an item has ended, whatever came of it. Set once, before anything is sent.
  void setEnded(std::function<void(ItemId item)> ended) { ended_ = std::move(ended); }

  /// These items may differ from the store since now.
  void differ(const std::vector<ItemId>& items);
  /// Looks at everything that differs, as after a start.
  void begin();
  /// The file may be ready to be sent: nobody has it open for writing any more.
  void closed(ItemId item);
  /// Tries what is at or below `path` ("/" for all) now, and the folders above that are still to be made.
  void retry(const std::string& path);
  /// The store answered (null), or this came instead.
  void reached(const platform::NSErrorPtr& error);
  /// Changes at or below `path` ("/" for all), at most `most` of them; and how many there are in all.
  std::vector<UnsentChange> unsent(const std::string& path, std::size_t most, std::size_t& total);
  std::size_t countUnsent();
  std::size_t countFailed();
  /// Nothing is begun any more.
  void stop();

 private:
  using Clock = std::chrono::nanoseconds;
  /// What a change came to: null is done (or no longer wanted), `retrySoon` is "look again".
  struct Outcome {
    platform::NSErrorPtr error;
    bool lookAgain = false;
  };
  using Work = platform::Task<Outcome>;

  Clock now() const { return volume_->services().timers->now(); }
  static std::chrono::seconds pauseAfter(int failures);
  Clock quietFor(ItemId item);
  std::optional<OutgoingItem> outgoing(ItemId item);
  void pumpSoon(Clock delay);
  void pass();
  std::vector<Change> choose();
  void setTimer();
  platform::Task<void> run(std::shared_ptr<Sender> self, Change change);
  Work perform(Change change);
  void finished(const Change& change, const Outcome& outcome);
  void waitAfter(Waits::Wait& wait, const platform::NSError& error) REQUIRES_LOCK(mutex_);

  // Each looks, begins, calls and settles.
  Work createFolder(Change change);
  Work createFile(Change change);
  FileObjectPtr contentsToSend(const Change& change);
  Work sendContents(Change change);
  Work move(Change change);
  Work remove(Change change);
  platform::Task<Answer<Done>> listFolder(ItemId folder, bool onlyIfOld);
  platform::Task<void> relist(ItemId folder);
  bool isCrowded(ItemId folder);
  platform::Task<Answer<Done>> lookAt(ItemId item);
  platform::Task<Answer<Done>> findOut(ItemId item);
  platform::Task<Answer<Done>> lookBelow(ItemId folder);
  platform::Task<Answer<Done>> fill(FileObjectPtr object);
  platform::Task<Answer<FileObject::Snapshot>> takeSnapshot(FileObjectPtr object);
  platform::Task<Answer<Done>> settle(std::function<void(Tree&)> work);
  bool isStillWanted(const Tree& tree, const Change& change);
  void verifyLater(ItemId item);
  platform::Task<void> verify(std::shared_ptr<Sender> self, ItemId folder);

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<FolderLister> lister_;
  const std::shared_ptr<Contents> contents_;
  const std::shared_ptr<ExtensionCalls> calls_;
  std::function<void(ItemId item, int step)> sending_;
  std::function<void(const platform::NSErrorPtr& error)> told_;
  std::function<void(ItemId item)> ended_;

  platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  bool passing_ GUARDED_BY(mutex_) = false;
  bool passAgain_ GUARDED_BY(mutex_) = false;
  Waits waits_ GUARDED_BY(mutex_);
  bool anyUnreachable_ GUARDED_BY(mutex_) = false;
  std::vector<Change> underWay_ GUARDED_BY(mutex_);
  Timers::Token timer_ GUARDED_BY(mutex_) = 0;
  Clock timerDue_ GUARDED_BY(mutex_){0};
  /// When it was looked last what may begin.
  Clock lookedAt_ GUARDED_BY(mutex_){0};
  /// A look at very many changes takes long, and rests then.
  Clock passNotBefore_ GUARDED_BY(mutex_){0};
  /// The store could not be reached so often, and is tried again then.
  int offline_ GUARDED_BY(mutex_) = 0;
  Clock offlineUntil_ GUARDED_BY(mutex_){0};
  /// Sent and not looked at since, by the folder that they are in.
  std::map<ItemId, std::set<ItemId>> unverified_ GUARDED_BY(mutex_);
  std::set<ItemId> verifying_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
