#include "host/front/OpenCalls.h"

#include <cerrno>
#include <utility>

namespace kestrune::host {

using platform::MutexLock;

bool OpenCalls::Call::claim() {
  if (claimed_.exchange(true)) return false;
  owner_.forget(number_);
  return true;
}

OpenCalls::CallPtr OpenCalls::begin(const std::function<void(std::uint64_t)>& arm,
                                    std::function<void(int error)> fail) {
  MutexLock lock(mutex_);
  if (ended_) return nullptr;
  CallPtr call(new Call(*this, next_++, std::move(fail)));
  arm(call->number());
  calls_.emplace(call->number(), call);
  return call;
}

bool OpenCalls::isOpen(std::uint64_t number) const {
  MutexLock lock(mutex_);
  return calls_.contains(number);
}

void OpenCalls::interrupt(std::uint64_t number) {
  CallPtr call;
  {
    MutexLock lock(mutex_);
    const auto found = calls_.find(number);
    if (found != calls_.end()) call = found->second;
  }
  if (call) fail(call, EINTR);
}

void OpenCalls::endAll(int error) {
  std::unordered_map<std::uint64_t, CallPtr> open;
  {
    MutexLock lock(mutex_);
    ended_ = true;
    open.swap(calls_);
  }
  for (const auto& [number, call] : open) fail(call, error);
}

void OpenCalls::fail(const CallPtr& call, int error) {
  if (call->claim()) call->fail_(error);
}

void OpenCalls::forget(std::uint64_t number) {
  MutexLock lock(mutex_);
  calls_.erase(number);
}

}  // namespace kestrune::host
