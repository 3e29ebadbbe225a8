// Lets answers that come some time come back to an object only while that is there. Answers may come long after whoever asked
// has ended: from the extension, from the disk, from the thread that commits.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <utility>

#include "host/basics/Answer.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class AnswerGate {
 public:
  /// What goes on with an answer: `work`, during which `close` waits; after it, ENOTCONN as an answer to `reply`.
  template <class T>
  static Reply<Done> whileOpen(const std::shared_ptr<AnswerGate>& gate, const Reply<T>& reply,
                               Reply<Done> work) {
    return [gate, reply, work = std::move(work)](Answer<Done> answer) {
      if (!gate->enter())
        return reply(platform::NSPOSIXError(ENOTCONN, "go on in a mount that ended").share());
      const Visit visit(*gate);
      work(std::move(answer));
    };
  }

  /// Nothing goes on from now on, nor does anything any more when this returns. REQUIRES: not called by what goes on.
  void close() {
    platform::MutexLock lock(mutex_);
    isClosed_ = true;
    while (visits_ > 0) lock.wait(left_);
  }

 private:
  class Visit {
   public:
    explicit Visit(AnswerGate& gate) : gate_(gate) {}
    ~Visit() { gate_.leave(); }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

   private:
    AnswerGate& gate_;
  };

  bool enter() {
    platform::MutexLock lock(mutex_);
    if (!isClosed_) ++visits_;
    return !isClosed_;
  }
  void leave() {
    platform::MutexLock lock(mutex_);
    if (--visits_ == 0) left_.notify_all();
  }

  platform::Mutex mutex_;
  std::condition_variable left_;
  std::size_t visits_ GUARDED_BY(mutex_) = 0;
  bool isClosed_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
