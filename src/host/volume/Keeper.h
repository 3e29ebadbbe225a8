// Keeps the contents here of files that are to be kept here: learns their policies in the background, fetches what is missing,
// and fetches again what changed at the store.
//
// A policy is read from the described item, and that may cost a file read each: never on the way of a listing, always some
// at a time between other work.
//
//   described items ──▶ queue ──▶ Tree::setPolicy ──▶ missing? ──▶ fill, two at a time ──▶ whole
//                                                                   └─ failed: again after 5 s, 10 s … 5 minutes, and at once
//                                                                      when the store answers after it could not be reached
//
// Threads: every operation may be called from any thread and returns at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "host/basics/Timers.h"
#include "host/volume/Contents.h"
#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Keeper : public std::enable_shared_from_this<Keeper> {
 public:
  static constexpr std::size_t kAtOnce = 2;
  static constexpr std::size_t kBatch = 64;
  static constexpr std::chrono::seconds kFirstPause{5};
  static constexpr std::chrono::seconds kLongestPause{300};

  Keeper(std::shared_ptr<Volume> volume, std::shared_ptr<Contents> contents)
      : volume_(std::move(volume)), contents_(std::move(contents)) {}

  /// Fetches what is missing of what is known to be kept here.
  void begin();
  /// The extension described these items.
  void described(std::vector<platform::NSFileProviderItemPtr> items);
  /// Asks the extension for the item's policy; answers when it is known here.
  void askPolicy(ItemId item, Reply<Done> reply);
  /// The store answered (null), or this came instead.
  void reached(const platform::NSErrorPtr& error);
  /// Nothing is begun any more.
  void stop();

 private:
  struct Pause {
    std::chrono::seconds length{0};
    Timers::Token timer = 0;
    bool unreachable = false;
  };
  void walk();
  void learn(const std::vector<platform::NSFileProviderItemPtr>& items);
  void want(const std::vector<ItemId>& files);
  void pump();
  void wantAgain(ItemId file);
  void ended(ItemId file, const Answer<Done>& answer);
  bool isMissing(ItemId file);

  const std::shared_ptr<Volume> volume_;
  const std::shared_ptr<Contents> contents_;

  platform::Mutex mutex_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  bool walking_ GUARDED_BY(mutex_) = false;
  std::deque<platform::NSFileProviderItemPtr> described_ GUARDED_BY(mutex_);
  std::set<ItemId> wanted_ GUARDED_BY(mutex_);
  std::set<ItemId> filling_ GUARDED_BY(mutex_);
  std::map<ItemId, Pause> pauses_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
