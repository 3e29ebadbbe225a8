#include "host/front/OpenHandles.h"

namespace kestrune::host {

using platform::MutexLock;

OpenHandles::Number OpenHandles::add(OpenHandle handle) {
  MutexLock lock(mutex_);
  handles_.emplace(next_, std::move(handle));
  return next_++;
}

OpenHandle OpenHandles::at(Number number) const {
  MutexLock lock(mutex_);
  return handles_.at(number);
}

OpenHandle OpenHandles::remove(Number number) {
  MutexLock lock(mutex_);
  const auto found = handles_.find(number);
  OpenHandle handle = std::move(found->second);
  handles_.erase(found);
  return handle;
}

std::vector<std::pair<OpenHandles::Number, OpenHandle>> OpenHandles::all() const {
  MutexLock lock(mutex_);
  return {handles_.begin(), handles_.end()};
}

OpenHandles::Number OpenHandles::next() const {
  MutexLock lock(mutex_);
  return next_;
}

void OpenHandles::restore(Number number, OpenHandle handle) {
  MutexLock lock(mutex_);
  handles_.insert_or_assign(number, std::move(handle));
}

void OpenHandles::beginAt(Number next) {
  MutexLock lock(mutex_);
  next_ = next;
}

}  // namespace kestrune::host
