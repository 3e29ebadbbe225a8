// One operation that the host asked for, at the extension's side: tells the host of its progress and its completion.
//
// Threads: any, unless said otherwise. Whoever holds it last without having completed it lets the host know that there will be no
// completion.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>

#include "boundary/Loop.h"
#include "boundary/Messages.h"
#include "boundary/Wire.h"
#include "platform/progress/NSProgress.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary {

/// What is cancelled, and whether it is, or has ended. Not the call itself: the extension alone decides how long that lives.
class Cancelling {
 public:
  void started(const std::shared_ptr<platform::NSProgress>& progress);
  void cancel();
  /// The progress as it is now, of which nobody will be told any more; none where it never was there.
  std::optional<platform::NSProgress::Snapshot> end();
  bool hasEnded() const { return hasEnded_; }

 private:
  platform::Mutex mutex_;
  std::shared_ptr<platform::NSProgress> progress_ GUARDED_BY(mutex_);
  bool isCancelled_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> hasEnded_ = false;
};

class ServedCall {
 public:
  /// A message with a wire::Answer.
  using Message = kj::Own<capnp::MallocMessageBuilder>;

  /// REQUIRES: in the loop.
  ServedCall(std::shared_ptr<Loop> loop, std::shared_ptr<wire::Host::Client> host,
             std::uint64_t operation, kj::Own<kj::PromiseFulfiller<Message>> answer);
  ~ServedCall();
  ServedCall(const ServedCall&) = delete;
  ServedCall& operator=(const ServedCall&) = delete;

  void complete(Completed completed);

  const std::shared_ptr<Cancelling>& cancelling() const { return cancelling_; }
  /// The extension has returned the operation's progress.
  void started(const std::shared_ptr<platform::NSProgress>& progress) const;

 private:
  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<wire::Host::Client> host_;
  const std::uint64_t operation_;
  const std::shared_ptr<kj::Own<kj::PromiseFulfiller<Message>>> answer_;
  const std::shared_ptr<Cancelling> cancelling_ = std::make_shared<Cancelling>();
  platform::Mutex mutex_;
  bool isCompleted_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::boundary
