#include "tests/support/FileOpens.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace kestrune::support {

namespace {
// The kernel drops an event that equals the unread one before it: with the closings between them two openings stay two.
constexpr std::uint32_t kEvents = IN_OPEN | IN_CLOSE;
}  // namespace

FileOpens::FileOpens(const std::filesystem::path& file)
    : descriptor_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (descriptor_ < 0 || ::inotify_add_watch(descriptor_, file.c_str(), kEvents) < 0) {
    const int error = errno;
    if (descriptor_ >= 0) ::close(descriptor_);
    throw std::system_error(error, std::generic_category(), "watch '" + file.string() + "'");
  }
}

FileOpens::~FileOpens() { ::close(descriptor_); }

std::size_t FileOpens::take() {
  std::size_t opens = 0;
  // Events of a file that is watched by itself have no name: all have the same size.
  std::array<char, 64 * sizeof(inotify_event)> buffer{};
  for (;;) {
    const ssize_t got = ::read(descriptor_, buffer.data(), buffer.size());
    if (got <= 0) return opens;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(got);) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + offset, sizeof event);
      if ((event.mask & IN_OPEN) != 0) ++opens;
      offset += sizeof event + event.len;
    }
  }
}

}  // namespace kestrune::support
