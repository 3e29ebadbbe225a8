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

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  assert(std::this_thread::get_id() != thread_.get_id());
  {
    MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void SerialQueue::async(std::function<void()> work) {
  bool wake = false;
  {
    MutexLock lock(mutex_);
    queue_.push_back(std::move(work));
    // Waking is a system call: only where the thread sleeps, so that a burst of calls pays for one.
    wake = std::exchange(sleeping_, false);
  }
  if (wake) wake_.notify_one();
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

void SerialQueue::run() {
  nameThisThread(label_);
  for (;;) {
    std::deque<std::function<void()>> batch;
    {
      MutexLock lock(mutex_);
      while (queue_.empty() && !stopping_) {
        sleeping_ = true;
        lock.wait(wake_);
      }
      if (queue_.empty()) return;
      batch.swap(queue_);
    }
    for (auto& work : batch) {
      work();
      work = nullptr;  // what it holds is released before the next runs
    }
  }
}

}  // namespace kestrune::platform
