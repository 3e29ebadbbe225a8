// Dispatch queues: work of one owner, one piece at a time.
//
// SerialQueue runs what is put on it in order, on a thread of its own: callers never wait for the
// work (only `sync` does), and the work may do file input and output. ConcurrentQueue runs its work
// on the caller's thread: plain blocks side by side, barrier blocks alone; a waiting barrier holds
// back the blocks that come after it.
//
// Fails: work must not throw; an exception that leaves it ends the process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>

#include "platform/values/Mutex.h"

namespace kestrune::platform {

class SerialQueue {
 public:
  /// Work that is done once whenever nothing was put on the queue for so long.
  struct Rest {
    std::chrono::milliseconds after;
    std::function<void()> work;
  };

  /// `label` names the queue's thread in debuggers (its first 15 bytes).
  explicit SerialQueue(std::string label, Rest rest = Rest{std::chrono::milliseconds(0), nullptr});
  /// Runs what is still queued, then ends the thread. REQUIRES: not called on the queue itself.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Appends `work` and returns at once. May be called from any thread, also from work on this
  /// queue.
  void async(std::function<void()> work);

  /// Appends `work` and waits until it has run, with everything that was queued before it.
  /// REQUIRES: not called from work on this queue (that would wait for itself).
  void sync(const std::function<void()>& work);

 private:
  using Batch = std::deque<std::function<void()>>;
  void run();
  /// What was queued; the rest's work where nothing came for so long; nothing at the end.
  Batch nextBatch();

  const std::string label_;
  const Rest rest_;
  Mutex mutex_;
  std::condition_variable wake_;
  Batch queue_ GUARDED_BY(mutex_);
  bool sleeping_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  bool hasRested_ = true;  // used by the thread alone
  std::thread thread_;
};

class ConcurrentQueue {
 public:
  explicit ConcurrentQueue(std::string label) : label_(std::move(label)) {}
  ConcurrentQueue(const ConcurrentQueue&) = delete;
  ConcurrentQueue& operator=(const ConcurrentQueue&) = delete;

  const std::string& label() const { return label_; }

  /// Runs `work` on this thread, side by side with other plain blocks. REQUIRES: not called from
  /// work on this queue.
  template <class Work>
  auto sync(const Work& work) noexcept {
    std::shared_lock<std::shared_mutex> lock;
    {
      std::lock_guard order(turnstile_);
      lock = std::shared_lock(blocks_);
    }
    return work();
  }

  /// Runs `work` on this thread when every block before it has ended, and lets none begin until it
  /// has.
  template <class Work>
  auto syncBarrier(const Work& work) noexcept {
    std::unique_lock<std::shared_mutex> lock;
    {
      std::lock_guard order(turnstile_);
      lock = std::unique_lock(blocks_);
    }
    return work();
  }

 private:
  const std::string label_;
  std::mutex
      turnstile_;  // first come, first served: a barrier that waits here holds back later readers
  std::shared_mutex blocks_;
};

}  // namespace kestrune::platform
