// Work on its way to the desktop's thread: the host answers on threads of its own, and what belongs to a bus is used by one.
//
// Threads: `put` and `stop` on any; `descriptor` and `take` on the thread that does the work.
#pragma once

#include <functional>
#include <vector>

#include "host/basics/LocalFile.h"
#include "platform/values/Mutex.h"

namespace kestrune::desktop {

class Mailbox {
 public:
  using Work = std::function<void()>;

  /// Throws NSPOSIXError where the process has no descriptor left.
  Mailbox();
  /// Nothing is kept once it was stopped.
  void put(Work work);
  void stop();

  /// Readable when something was put or it was stopped.
  int descriptor() const { return wake_.number(); }
  struct Delivery {
    std::vector<Work> work;
    bool isStopped = false;
  };
  Delivery take();

 private:
  void wake();

  const host::Descriptor wake_;
  platform::Mutex mutex_;
  std::vector<Work> work_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::desktop
