#include "boundary/Watch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/values/NSError.h"

namespace kestrune::boundary {

using platform::NSPOSIXError;

namespace {

// epoll_ctl(2) has numbers of its own for the same events.
static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT);

kj::AutoCloseFd opened(int descriptor, const char* what) {
  if (descriptor < 0) throw NSPOSIXError(errno, what);
  return kj::AutoCloseFd(descriptor);
}

epoll_event eventOf(Watch::Event event, std::uint32_t events) {
  epoll_event one{};
  one.events = events;
  one.data.u32 = static_cast<std::uint32_t>(event);
  return one;
}

}  // namespace

Watch::Watch()
    : bell_(opened(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "make an event descriptor")),
      timer_(opened(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "make a timer")),
      epoll_(opened(::epoll_create1(EPOLL_CLOEXEC), "make a set of descriptors")) {
  addForGood(bell_.get(), Event::bell);
  addForGood(timer_.get(), Event::timer);
}

// Edge-triggered: told once of each change, and never read.
void Watch::addForGood(int descriptor, Event event) const {
  epoll_event one = eventOf(event, EPOLLIN | EPOLLET);
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &one) != 0)
    throw NSPOSIXError(errno, "watch a descriptor");
}

void Watch::add(int descriptor) {
  epoll_event one = eventOf(Event::descriptor, EPOLLONESHOT);
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &one) != 0)
    throw NSPOSIXError(errno, "watch a descriptor");
  descriptor_ = descriptor;
}

void Watch::remove() {
  // Who waits for a descriptor holds what is behind it, closed or not.
  if (descriptor_ >= 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor_, nullptr);
  descriptor_ = -1;
}

void Watch::arm(short events) const {
  epoll_event one = eventOf(Event::descriptor, static_cast<std::uint32_t>(events) | EPOLLONESHOT);
  if (descriptor_ >= 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor_, &one);
}

void Watch::armTimer(std::chrono::milliseconds delay) const {
  itimerspec when{};
  when.it_value.tv_nsec = std::chrono::nanoseconds(delay).count();
  ::timerfd_settime(timer_.get(), 0, &when, nullptr);
}

void Watch::ring() const {
  const std::uint64_t one = 1;
  while (::write(bell_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

Watch::Event Watch::wait() const {
  epoll_event one{};
  while (::epoll_wait(epoll_.get(), &one, 1, -1) < 1) {
  }
  return static_cast<Event>(one.data.u32);
}

}  // namespace kestrune::boundary
