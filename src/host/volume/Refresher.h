// Keeps the folders that have been enumerated up to date: decides which folder is asked for changes, and when.
//
// The extension does not push changes. Something outside signals that the remote side may have changed; then every
// enumerated folder is asked, a few at a time. A folder whose sync anchor did not move needs no question.
//
// A change enumeration that failed may look like one without changes: it ends with the old anchor. So a folder whose
// anchor is still behind after it was asked is asked again after 2 s, 4 s and so on up to 60 s, as is one that answered
// with an error. One whose anchor has expired, or that has no anchors, is enumerated anew and compared.
//
// An extension may hold back deletions while contents of a file below the folder are on their way, and not report them
// later. So a folder that was asked during such a fetch is enumerated anew when no fetch below it runs any more; and so is
// the folder of a file that turned out to be missing when it was fetched.
//
//   idle ── signal ──▶ queued ──▶ asking ── done ──▶ idle
//                        ▲           │
//                        │           └─ failed ──▶ waiting (2…60 s)
//                        └───────────────────────────┘
//   A signal while a folder is being asked asks it once more.
//
// Threads: every operation may be called from any thread and returns at once.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <set>

#include "host/basics/HostLog.h"
#include "host/basics/Timers.h"
#include "host/volume/FolderLister.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Refresher : public std::enable_shared_from_this<Refresher> {
 public:
  static constexpr std::size_t kAtOnce = 8;
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
  /// One folder may have changed.
  void ask(ItemId folder);
  /// One folder is not what its changes say.
  void enumerateAnew(ItemId folder);
  /// The contents of `file` began (+1) or ended (-1) to be fetched.
  void fetching(ItemId file, int step);
  bool isFetching(ItemId file);
  /// No question begins any more; those under way end without effect.
  void stop();

 private:
  enum class Phase { queued, asking, waiting };
  struct Folder {
    Phase phase = Phase::queued;
    bool again = false;             // signalled while it was being asked
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
    /// When it was asked, as the tree tells moments.
    std::uint64_t asOf = 0;
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

  void enqueue(ItemId folder, bool anew);
  void pump();
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
  std::size_t asking_ GUARDED_BY(mutex_) = 0;
  std::map<ItemId, int> fetches_ GUARDED_BY(mutex_);      // files
  std::set<ItemId> askedDuringFetch_ GUARDED_BY(mutex_);  // folders
};

}  // namespace kestrune::host
