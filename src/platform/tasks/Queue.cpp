#include "platform/tasks/Queue.h"

#include <pthread.h>

#include <cassert>
#include <future>
#include <utility>

namespace kestrune::platform {

namespace {

void nameThisThread(const std::string& label) {
#if defined(__APPLE__)
  pthread_setname_np(label.c_str());
#else
  pthread_setname_np(pthread_self(), label.substr(0, 15).c_str());
#endif
}

}  // namespace

SerialQueue::SerialQueue(std::string label, Rest rest)
    : label_(std::move(label)), rest_(std::move(rest)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  assert(std::this_thread::get_id() != thread_.get_id());
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    wake_.notify_one();
  }
  thread_.join();
}

void SerialQueue::async(std::function<void()> work) {
  // Woken under the lock: the work may be what somebody waits for who then destroys the queue.
  MutexLock lock(mutex_);
  queue_.push_back(std::move(work));
  // Waking is a system call: only where the thread sleeps, so that a burst of calls pays for one.
  if (std::exchange(sleeping_, false)) wake_.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
  assert(std::this_thread::get_id() != thread_.get_id());
  std::promise<void> done;
  async([&work, &done] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

SerialQueue::Batch SerialQueue::nextBatch() {
  const bool restIsDue = rest_.work && !hasRested_;
  const auto restTime = std::chrono::steady_clock::now() + rest_.after;
  MutexLock lock(mutex_);
  while (queue_.empty() && !stopping_) {
    sleeping_ = true;
    if (!restIsDue) {
      lock.wait(wake_);
    } else if (!lock.waitUntil(wake_, restTime) && queue_.empty() && !stopping_) {
      sleeping_ = false;
      hasRested_ = true;
      return {rest_.work};
    }
  }
  hasRested_ = false;
  return std::exchange(queue_, {});
}

void SerialQueue::run() {
  nameThisThread(label_);
  for (;;) {
    Batch batch = nextBatch();
    if (batch.empty()) return;
    for (auto& work : batch) {
      work();
      work = nullptr;  // what it holds is released before the next runs
    }
  }
}

}  // namespace kestrune::platform
