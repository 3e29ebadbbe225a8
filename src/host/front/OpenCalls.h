// The requests of a file system front that have not been answered yet, so that each is answered exactly once, by whoever
// comes first: the work, the program's signal, or the end of the mount.
//
// A request is known here by a number, never by an address: the kernel library may call an interrupt handler for a request
// that another thread is answering at that moment.
//
// Threads: every operation may be called from any thread. `fail` runs on the thread that interrupts or ends, without a
// lock held.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <utility>

#include "platform/values/Mutex.h"

namespace kestrune::host {

class OpenCalls {
 public:
  class Call {
   public:
    std::uint64_t number() const { return number_; }
    /// True for the first who asks, who then answers; everybody else keeps away from the request.
    bool claim();
    bool isClaimed() const { return claimed_; }

   private:
    friend class OpenCalls;
    Call(OpenCalls& owner, std::uint64_t number, std::function<void(int error)> fail)
        : owner_(owner), number_(number), fail_(std::move(fail)) {}
    OpenCalls& owner_;
    const std::uint64_t number_;
    const std::function<void(int error)> fail_;
    std::atomic<bool> claimed_ = false;
  };
  using CallPtr = std::shared_ptr<Call>;

  OpenCalls() = default;
  OpenCalls(const OpenCalls&) = delete;
  OpenCalls& operator=(const OpenCalls&) = delete;

  /// Registers a request. `arm` gets its number and sees to it that interrupts of it are told; it runs with the lock held,
  /// so that nobody answers the request before it returns. `fail` answers the request with an errno; it is called at most
  /// once, and never after `claim` succeeded elsewhere. Null after `endAll`: nothing has been done.
  CallPtr begin(const std::function<void(std::uint64_t number)>& arm,
                std::function<void(int error)> fail);
  /// Whether nobody has claimed the request yet.
  bool isOpen(std::uint64_t number) const;
  /// Answers the request with EINTR if it is still open.
  void interrupt(std::uint64_t number);
  /// Answers all open requests with `error`. No other begins.
  void endAll(int error);

 private:
  void forget(std::uint64_t number);
  static void fail(const CallPtr& call, int error);

  mutable platform::Mutex mutex_;
  std::uint64_t next_ GUARDED_BY(mutex_) = 1;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::unordered_map<std::uint64_t, CallPtr> calls_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
