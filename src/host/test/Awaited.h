// An answer of the host's to a test that waits for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "host/basics/Answer.h"
#include "platform/values/Mutex.h"

namespace kestrune::host::test {

/// An answer that comes some time.
template <class T>
class Awaited {
 public:
  Reply<T> reply() const {
    return [state = state_](Answer<T> answer) {
      platform::MutexLock lock(state->mutex);
      ++state->count;
      state->answer.emplace(std::move(answer));
      state->arrived.notify_all();
    };
  }
  bool ready() const { return count() > 0; }
  int count() const {
    platform::MutexLock lock(state_->mutex);
    return state_->count;
  }
  /// Waits for it; throws if it does not come within 20 s.
  Answer<T> get() const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    platform::MutexLock lock(state_->mutex);
    while (!state_->answer) {
      if (!lock.waitUntil(state_->arrived, deadline)) throw std::runtime_error("no answer came");
    }
    return *state_->answer;
  }

 private:
  struct State {
    platform::Mutex mutex;
    std::condition_variable arrived;
    int count GUARDED_BY(mutex) = 0;
    std::optional<Answer<T>> answer GUARDED_BY(mutex);
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace kestrune::host::test
