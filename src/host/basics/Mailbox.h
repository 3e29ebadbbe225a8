// What other threads have for one thread that waits in poll for several things at once: they put it down and go on, it takes all of
// it together. The host answers on threads of its own; sockets, buses and the main thread's work belong to one.
//
// Threads: `put` and `stop` on any; `descriptor` and `take` on the thread that it is for.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>
#include <vector>

#include "host/basics/LocalFile.h"
#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

template <class Letter>
class Mailbox {
 public:
  /// Throws NSPOSIXError where the process has no descriptor left.
  Mailbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_.number() < 0) throw platform::NSPOSIXError(errno, "create an event counter");
  }
  Mailbox(const Mailbox&) = delete;
  Mailbox& operator=(const Mailbox&) = delete;

  /// Nothing is kept once it was stopped.
  void put(Letter letter) {
    {
      platform::MutexLock lock(mutex_);
      if (stopped_) return;
      letters_.push_back(std::move(letter));
    }
    wake();
  }
  /// Ends the reader's work.
  void stop() {
    {
      platform::MutexLock lock(mutex_);
      stopped_ = true;
    }
    wake();
  }

  /// Readable when something was put or it was stopped.
  int descriptor() const { return wake_.number(); }
  struct Delivery {
    /// In the order in which they were put.
    std::vector<Letter> letters;
    bool isStopped = false;
  };
  Delivery take() {
    // First: what is put from here on wakes again.
    std::uint64_t count = 0;
    [[maybe_unused]] const auto emptied = ::read(wake_.number(), &count, sizeof(count));
    platform::MutexLock lock(mutex_);
    return {std::exchange(letters_, {}), stopped_};
  }

 private:
  void wake() {
    const std::uint64_t one = 1;
    // An event counter's write fails only when it would overflow, and then it is readable.
    [[maybe_unused]] const auto written = ::write(wake_.number(), &one, sizeof(one));
  }

  const Descriptor wake_;
  platform::Mutex mutex_;
  std::vector<Letter> letters_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
