#include "platform/files/FileEvents.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <system_error>

#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

// The kernel keeps 16,384 events unless told otherwise, most of them of 32 bytes: a call of `take` can hold more than
// all of them.
constexpr int kReadsInOneTake = 32;
constexpr std::size_t kReadBytes = 16384;

// Takes `stop` along where it fails.
int newQueue(int stop) {
  const int queue = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (queue >= 0) return queue;
  const int error = errno;
  ::close(stop);
  throw NSPOSIXError(error, "watch for changes of files");
}

int newCounter() {
  const int counter = ::eventfd(0, EFD_CLOEXEC);
  if (counter < 0) throw NSPOSIXError(errno, "create an event counter");
  return counter;
}

// A signal begins the wait again: a little longer does no harm.
void pollFor(std::span<pollfd> polled, std::chrono::milliseconds limit) {
  while (::poll(polled.data(), polled.size(), static_cast<int>(limit.count())) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
}

}  // namespace

FileEvents::FileEvents() : stop_(newCounter()), queue_(newQueue(stop_)) {}

FileEvents::~FileEvents() {
  ::close(queue_);
  ::close(stop_);
}

int FileEvents::watch(const char* path, std::uint32_t kinds) noexcept {
  return ::inotify_add_watch(queue_, path, kinds);
}

void FileEvents::forget(int watch) noexcept { ::inotify_rm_watch(queue_, watch); }

bool FileEvents::wait(std::chrono::milliseconds limit) {
  std::array<pollfd, 2> polled = {pollfd{stop_, POLLIN, 0}, pollfd{queue_, POLLIN, 0}};
  pollFor(polled, limit);
  return polled[0].revents == 0;
}

bool FileEvents::pause(std::chrono::milliseconds duration) {
  std::array<pollfd, 1> polled = {pollfd{stop_, POLLIN, 0}};
  pollFor(polled, duration);
  return polled[0].revents == 0;
}

void FileEvents::take(const std::function<void(const Event&)>& taken) {
  alignas(inotify_event) std::array<char, kReadBytes> buffer{};
  for (int reads = 0; reads < kReadsInOneTake; ++reads) {
    const ssize_t length = ::read(queue_, buffer.data(), buffer.size());
    if (length <= 0) return;
    for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      // The name is filled up with zeros.
      const char* name = buffer.data() + at + sizeof event;
      taken({event.wd, event.mask, {name, ::strnlen(name, event.len)}});
      at += sizeof event + event.len;
    }
  }
}

void FileEvents::stop() noexcept {
  const std::uint64_t one = 1;
  // An event counter's write fails only when it would overflow.
  [[maybe_unused]] const auto written = ::write(stop_, &one, sizeof one);
}

}  // namespace kestrune::platform
