// Enumerates folders, each once at a time whoever asks, and brings the answers into the volume.
//
// A folder is enumerated when it is visited first (its content is asked for, or a name in it). From then on it is kept as it
// is until changes are applied, so later visits do not wait. A wait is bounded: after the patience has passed the caller
// gets ETIMEDOUT, while the enumeration goes on for the next visit.
//
// Threads: every operation may be called from any thread; replies come on any thread, without a lock held.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "host/basics/OnceReply.h"
#include "host/volume/Volume.h"

namespace kestrune::host {

class FolderLister : public std::enable_shared_from_this<FolderLister> {
 public:
  static constexpr std::chrono::seconds kPatience{60};
  /// A folder that moves meanwhile is asked for again after this time, so often.
  static constexpr std::chrono::milliseconds kMoves{50};
  static constexpr int kMostAttempts = 100;
  /// One whose pages may have gaps so often: where something always changes, what there is has to do.
  static constexpr int kMostGaps = 3;

  explicit FolderLister(std::shared_ptr<Volume> volume) : volume_(std::move(volume)) {}

  /// Told of the items as the extension described them, when the volume knows them. Set once, before anything is listed.
  using Described = std::function<void(std::vector<platform::NSFileProviderItemPtr> items)>;
  void setDescribed(Described described) { described_ = std::move(described); }
  /// Told whenever the store answered (null), or what came instead. Set once, before anything is listed.
  void setReached(std::function<void(const platform::NSErrorPtr& error)> reached) {
    reached_ = std::move(reached);
  }

  /// Answers when the folder's names are known.
  void visit(ItemId folder, Reply<Done> reply);
  /// Enumerates the folder, which is at the store, from now on (not before), and answers when the volume knows.
  void list(ItemId folder, Reply<Done> reply);
  /// As `list`, unless a listing of the folder began less than `age` ago and was applied.
  void listUnlessFresh(ItemId folder, std::chrono::nanoseconds age, Reply<Done> reply);
  /// As `list`; answers with how many items of the folder were not there as they were known.
  void compare(ItemId folder, Reply<std::size_t> reply);
  /// Answers when the enumeration of the folder that runs has ended; false, and no answer, if none does.
  bool join(ItemId folder, Reply<Done> reply);
  /// The folders that are being enumerated.
  std::vector<ItemId> running();
  /// The folder was made here just now: nobody else can know anything of it.
  void madeHere(ItemId folder);
  /// What was listed of the item's folder is not to be gone by any more.
  void doubt(ItemId item);
  bool isFresh(ItemId folder, std::chrono::nanoseconds age);
  /// Answers after kMoves, for who asks again for what is just moving; with ENOTCONN as soon as nothing is asked again.
  void pause(const Reply<Done>& reply);
  /// Nothing is asked again; who waits for that is answered.
  void stop();

 private:
  struct Running {
    std::vector<Reply<Done>> waiters;
    /// Who came too late for the enumeration that runs.
    std::vector<Reply<Done>> next;
    /// How often the folder was not found where it was.
    int attempts = 0;
    /// Until it is asked for again; 0 while it is.
    Timers::Token pause = 0;
  };
  struct Question {
    ItemId folder = 0;
    platform::NSFileProviderItemIdentifier identifier;
    std::uint64_t asOf = 0;
    std::chrono::nanoseconds began{0};
  };
  void begin(ItemId folder);
  void listed(const Question& question, const Answer<Listing>& listing);
  bool hasMoved(const Question& question, const platform::NSError& error);
  bool beginsAgain(ItemId folder, int most);
  void goOn(ItemId folder);
  void paused(std::uint64_t pause);

  const std::shared_ptr<Volume> volume_;
  Described described_;
  std::function<void(const platform::NSErrorPtr& error)> reached_;
  platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::map<ItemId, Running> running_ GUARDED_BY(mutex_);
  std::uint64_t lastPause_ GUARDED_BY(mutex_) = 0;
  std::map<std::uint64_t, Reply<Done>> pausing_ GUARDED_BY(mutex_);
  /// Folders that are to be compared, and what the last listing of each came to.
  std::map<ItemId, std::size_t> compared_ GUARDED_BY(mutex_);
  std::map<ItemId, std::chrono::nanoseconds> fresh_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
