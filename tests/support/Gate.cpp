#include "tests/support/Gate.h"

#include <algorithm>
#include <condition_variable>

#include "platform/values/Mutex.h"

namespace kestrune::support {

using platform::MutexLock;

struct Gate::State {
  platform::Mutex mutex;
  std::condition_variable changed;
  bool isOpen GUARDED_BY(mutex) = false;
  std::uint64_t permits GUARDED_BY(mutex) = 0;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::open() const {
  {
    MutexLock lock(state_->mutex);
    state_->isOpen = true;
  }
  state_->changed.notify_all();
}

void Gate::release(std::uint64_t permits) const {
  {
    MutexLock lock(state_->mutex);
    state_->permits += permits;
  }
  state_->changed.notify_all();
}

std::uint64_t Gate::take(std::uint64_t most, std::chrono::milliseconds patience) const {
  const auto end = std::chrono::steady_clock::now() + patience;
  MutexLock lock(state_->mutex);
  while (!state_->isOpen && state_->permits == 0) {
    if (!lock.waitUntil(state_->changed, end)) return 0;
  }
  if (state_->isOpen) return most;
  const std::uint64_t taken = std::min(most, state_->permits);
  state_->permits -= taken;
  return taken;
}

}  // namespace kestrune::support
