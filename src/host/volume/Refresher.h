// Keeps the folders that have been enumerated up to date: decides which folder is asked for changes, and when.
//
// The extension does not push changes. Something outside signals that the remote side may have changed; then every
// enumerated folder is asked. A folder whose sync anchor did not move needs no question. Nobody says where the change was, or whose:
// most often it was this host's own. So
// - folders that programs looked into last are asked at once, eight at a time; of the others two at a time, until somebody looks into one;
// - a folder that was asked rests, four times as long as that took, a second at most, before it is asked again. While contents are on their
//   way a second passes between two questions: what is said of a folder in which something is being changed is in doubt anyway.
//
// A change enumeration that failed may look like one without changes: it ends with the old anchor. So a folder whose
// anchor is still behind after it was asked is asked again after 2 s, 4 s and so on up to 60 s, as is one that answered
// with an error. One whose anchor has expired, or that has no anchors, is enumerated anew and compared.
//
// An extension may hold back deletions while contents of a file below the folder are on their way, and not report them
// later. So a folder that was asked during such a fetch is enumerated anew when no fetch below it runs any more; and so is
// the folder of a file that turned out to be missing when it was fetched.
//
//   idle ── signal ──▶ later ─▶ queued ──▶ asking ── done ──▶ resting ──▶ idle
//                        └────────────▲──────▲ │                │ signalled meanwhile
//                                     │        └─ failed ──▶ waiting (2…60 s)
//                                     └─────────────────────────┘
//   A signal while a folder is being asked, or rests, asks it once more.
//
// Threads: every operation may be called from any thread and returns at once.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "host/basics/HostLog.h"
#include "host/basics/Timers.h"
#include "host/in/Enumeration.h"
#include "host/volume/FolderLister.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Refresher : public std::enable_shared_from_this<Refresher> {
 public:
  static constexpr std::size_t kAtOnce = 8;
  /// How many folders are asked at once when something is signalled.
  static constexpr std::size_t kRecent = 32;
  /// Of the others.
  static constexpr std::size_t kLaterAtOnce = 2;
  /// How many times as long as a question took nothing is asked.
  static constexpr int kRests = 4;
  static constexpr std::chrono::seconds kLongestRest{1};
  static constexpr std::chrono::seconds kFirstDelay{2};
  static constexpr std::chrono::seconds kLongestDelay{60};

  Refresher(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister);

  /// The remote side may have changed.
  void signal();
  /// Something was heard of the store, or could not be: for who waits until it can be reached.
  void setReached(std::function<void(const platform::NSErrorPtr& error)> reached) {
    reached_ = std::move(reached);
  }
  /// As FolderLister::setDescribed, of what changed.
  void setDescribed(FolderLister::Described described) { described_ = std::move(described); }
  /// Somebody looks into the folder.
  void visited(ItemId folder);
  /// One folder may have changed.
  void ask(ItemId folder);
  /// One folder is not what its changes say.
  void enumerateAnew(ItemId folder);
  /// The contents of `file` began (+1) or ended (-1) to be fetched.
  void fetching(ItemId file, int step);
  bool isFetching(ItemId file);
  /// Whether a folder is being asked or will be as soon as it is its turn. One that rests, or waits after a failure, is not.
  bool isAsking();
  /// No question begins any more; those under way end without effect.
  void stop();

 private:
  using Clock = std::chrono::nanoseconds;
  enum class Phase { later, queued, asking, resting, waiting };
  struct Folder {
    Phase phase = Phase::later;
    bool isSlow = false;            // holds one of the two places
    Clock began{0};                 // the question
    bool again = false;             // signalled while it was being asked, or rested
    bool againNow = false;          // and not only later
    bool anew = false;              // only a whole enumeration will do
    std::chrono::seconds delay{0};  // of the last wait
    Timers::Token timer = 0;
  };

  // One change enumeration.
  struct Question {
    ItemId folder;
    platform::NSFileProviderItemIdentifier identifier;
    platform::NSFileProviderSyncAnchor anchor;
    /// The extension's present anchor is known to be another. Otherwise an answer that does not move is taken at its word.
    bool isBehind = false;
    /// When it was first asked, as the tree tells moments.
    std::uint64_t asOf = 0;
    /// What earlier pieces of the answer told, for the one question that follows; null at first.
    std::shared_ptr<ChangeSet> pieces = nullptr;
  };
  struct State {
    bool isListed = false;
    bool isAnew = false;
    platform::NSFileProviderItemIdentifier identifier;
    std::optional<platform::NSFileProviderSyncAnchor> anchor;
    std::uint64_t asOf = 0;
  };
  State stateOf(ItemId folder);
  std::vector<ItemId> staleFoldersIn(ItemId folder);

  enum class When { now, later };
  Clock now() const { return volume_->services().timers->now(); }
  bool mayWalk();
  void enqueue(ItemId folder, bool anew, When when = When::now);
  void place(ItemId folder, Folder& state, When when) REQUIRES_LOCK(mutex_);
  std::optional<ItemId> next() REQUIRES_LOCK(mutex_);
  void pump();
  Clock restAfter(Clock took) const REQUIRES_LOCK(mutex_);
  void rested(ItemId folder);
  void goOn(ItemId folder) REQUIRES_LOCK(mutex_);
  void leavePlace(Folder& state) REQUIRES_LOCK(mutex_);
  void begin(ItemId folder, bool anew);
  void askChanges(const Question& question);
  void changed(const Question& question, const Answer<ChangeSet>& answer);
  void list(ItemId folder);
  void ended(ItemId folder, bool failed);
  void report(ItemId folder, const platform::NSError& error);
  void fetchBegins(ItemId file);
  void fetchEnds(ItemId file);
  bool fetchRunsBelow(ItemId folder);

  // Constant.
  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<FolderLister> lister_;

  std::function<void(const platform::NSErrorPtr& error)>
      reached_;  // set once, before anything is asked
  FolderLister::Described described_;

  platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::map<ItemId, Folder> folders_ GUARDED_BY(mutex_);  // those that are not idle
  std::deque<ItemId> queue_ GUARDED_BY(mutex_);
  std::deque<ItemId> later_ GUARDED_BY(mutex_);  // and some that are not any more
  std::size_t asking_ GUARDED_BY(mutex_) = 0;
  std::size_t slow_ GUARDED_BY(mutex_) = 0;
  std::vector<ItemId> recent_ GUARDED_BY(mutex_);  // visited last, the last one first
  /// The whole tree is looked through for folders; that rests, too.
  Clock walkNotBefore_ GUARDED_BY(mutex_){0};
  Timers::Token walkTimer_ GUARDED_BY(mutex_) = 0;
  std::map<ItemId, int> fetches_ GUARDED_BY(mutex_);      // files
  std::set<ItemId> askedDuringFetch_ GUARDED_BY(mutex_);  // folders
};

}  // namespace kestrune::host
