#include "desktop/Mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::desktop {

using platform::MutexLock;

Mailbox::Mailbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_.number() < 0) throw platform::NSPOSIXError(errno, "create an event counter");
}

void Mailbox::put(Work work) {
  {
    MutexLock lock(mutex_);
    if (stopped_) return;
    work_.push_back(std::move(work));
  }
  wake();
}

void Mailbox::stop() {
  {
    MutexLock lock(mutex_);
    stopped_ = true;
  }
  wake();
}

Mailbox::Delivery Mailbox::take() {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto emptied = ::read(wake_.number(), &count, sizeof(count));
  MutexLock lock(mutex_);
  return {std::exchange(work_, {}), stopped_};
}

void Mailbox::wake() {
  const std::uint64_t one = 1;
  // An event counter's write fails only when it would overflow, and then it is readable.
  [[maybe_unused]] const auto written = ::write(wake_.number(), &one, sizeof(one));
}

}  // namespace kestrune::desktop
