// The changes that programs make to one file, in their order.
//
//   clean or snapshot taken ──▶ willEdit under way ──▶ committed: the changes that waited are made, later ones at once
//                                      └──▶ failed: the changes that waited fail, nothing is written
//
// A change that has to wait keeps a copy of its bytes. While some wait, later ones wait behind them.
//
// Threads: every operation may be called from any thread; replies and the services' functions are called without a lock
// held. A change that need not wait is made on the caller's thread and blocks for the local disk.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "host/basics/Answer.h"
#include "host/content/ContentFile.h"
#include "host/content/FileObjectServices.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class ContentChanges : public std::enable_shared_from_this<ContentChanges> {
 public:
  /// How long a changed state may go untold.
  static constexpr std::chrono::seconds kTellAfter{1};

  ContentChanges(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
                 std::shared_ptr<ContentFile> content)
      : services_(std::move(services)), item_(item), content_(std::move(content)) {}

  void add(const ContentChange& change, const Reply<Done>& reply);
  /// None waits.
  bool isIdle() const;
  /// Tells the services at once of a state that they do not know yet.
  void tell();
  /// Changes fail from now on. No input or output.
  void abandon();

 private:
  struct Waiting {
    ContentChange change;
    std::vector<std::byte> bytes;
    Reply<Done> reply;
  };

  enum class Joining { others, asFirst };
  enum class Made { moreWait, wasLast, mustBegin };

  bool waits(const ContentChange& change, const Reply<Done>& reply, Joining joining);
  bool isAbandoned() const;
  void begin();
  void prepare();
  void begun(const ContentState& committed, const Answer<Done>& answer);
  void makeWaiting();
  Made make(Waiting& next);
  void failWaiting(const platform::NSErrorPtr& error);
  void made(ContentFile::Changed changed);

  // Constant.
  const std::shared_ptr<const FileObjectServices> services_;
  const InodeNumber item_;
  const std::shared_ptr<ContentFile> content_;

  mutable platform::Mutex mutex_;
  std::deque<Waiting> waiting_ GUARDED_BY(mutex_);
  bool isBusy_ GUARDED_BY(mutex_) = false;  // with those that wait, or with what they wait for
  bool isAbandoned_ GUARDED_BY(mutex_) = false;
  bool isUntold_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
