#include "host/control/ControlMailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/values/NSError.h"

namespace kestrune::host {

using platform::MutexLock;

ControlMailbox::ControlMailbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_.number() < 0) throw platform::NSPOSIXError(errno, "create an event counter");
}

void ControlMailbox::put(Letter letter) {
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    letters_.push_back(std::move(letter));
  }
  wake();
}

void ControlMailbox::stop() {
  {
    MutexLock lock(mutex_);
    stopped_ = true;
  }
  wake();
}

ControlMailbox::Delivery ControlMailbox::take() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto emptied = ::read(wake_.number(), &count, sizeof(count));
  MutexLock lock(mutex_);
  return {std::exchange(letters_, {}), stopped_};
}

void ControlMailbox::wake() {
  const std::uint64_t one = 1;
  // An event counter's write fails only when it would overflow, and then it is readable.
  [[maybe_unused]] const auto written = ::write(wake_.number(), &one, sizeof(one));
}

}  // namespace kestrune::host
