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

// The kernel keeps 16,384 events unless told otherwise. One call of `take` can hand over all of them, with names of 100
// bytes.
constexpr int kReadsInOneTake = 128;
constexpr std::size_t kReadBytes = 16384;

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

FileEvents::FileEvents() : stop_(newCounter()) {}

FileEvents::~FileEvents() {
  closeQueue();
  ::close(stop_);
}

void FileEvents::closeQueue() noexcept {
  if (queue_ >= 0) ::close(queue_);
  queue_ = -1;
}

void FileEvents::begin() {
  closeQueue();
  queue_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (queue_ < 0) throw NSPOSIXError(errno, "watch for changes of files");
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
