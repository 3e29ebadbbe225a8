// One operation that the host asked for, at the extension's side: tells the host of its progress and its completion.
//
// Threads: any, unless said otherwise. Whoever holds it last without having completed it lets the host know that there will be no
// completion.
#pragma once

#include <memory>

#include "boundary/Loop.h"
#include "boundary/Messages.h"
#include "boundary/Wire.h"
#include "platform/progress/NSProgress.h"
#include "platform/values/Mutex.h"

namespace kestrune::boundary {

class ServedCall : public std::enable_shared_from_this<ServedCall> {
 public:
  /// REQUIRES: on the loop's thread.
  ServedCall(std::shared_ptr<Loop> loop, wire::Caller::Client caller);
  ~ServedCall();
  ServedCall(const ServedCall&) = delete;
  ServedCall& operator=(const ServedCall&) = delete;

  void complete(const Completed& completed);

  /// What the host holds of the operation. REQUIRES: on the loop's thread.
  wire::Operation::Client operation() const;
  /// The extension has returned the operation's progress.
  void started(const std::shared_ptr<platform::NSProgress>& progress) const;

 private:
  // What is cancelled, and whether it is. Not the call itself: the extension alone decides how long that lives.
  class Cancelling;

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<wire::Caller::Client> caller_;
  const std::shared_ptr<Cancelling> cancelling_;
  platform::Mutex mutex_;
  bool isCompleted_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::boundary
