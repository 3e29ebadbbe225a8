#include "platform/files/FileHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

// Measured on Linux 6.18: a page cache that is filled by 1 MiB at once takes its memory in blocks of
// that size, which are rarely at hand; a virtual machine had to get them from its host, and 1 GiB
// took 2.8 seconds instead of 1.3.
constexpr std::size_t kBytesAtOnce = 64U << 10U;

int openOrThrow(const std::filesystem::path& path, int flags) {
  for (;;) {
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor >= 0) return descriptor;
    if (errno != EINTR) throw NSPOSIXError(errno, "open '" + path.string() + "'");
  }
}

}  // namespace

FileHandle FileHandle::forReading(const std::filesystem::path& path) {
  // Never waits: a named pipe opens at once, and cannot be sought in.
  return {path.string(), openOrThrow(path, O_RDONLY | O_NONBLOCK)};
}

FileHandle FileHandle::forWritingNew(const std::filesystem::path& path) {
  return {path.string(), openOrThrow(path, O_WRONLY | O_CREAT | O_EXCL)};
}

FileHandle::FileHandle(FileHandle&& other) noexcept
    : name_(std::move(other.name_)), descriptor_(std::exchange(other.descriptor_, -1)) {}

FileHandle::~FileHandle() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void FileHandle::seek(std::int64_t offset) {
  if (::lseek(descriptor_, offset, SEEK_SET) < 0) {
    throw NSPOSIXError(errno, "move to byte " + std::to_string(offset) + " of '" + name_ + "'");
  }
}

std::size_t FileHandle::read(std::span<char> destination) {
  std::size_t filled = 0;
  while (filled < destination.size()) {
    const auto rest = destination.subspan(filled);
    const ssize_t got = ::read(descriptor_, rest.data(), rest.size());
    if (got == 0) break;
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      throw NSPOSIXError(errno, "read '" + name_ + "'");
    }
  }
  return filled;
}

void FileHandle::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written =
        ::write(descriptor_, bytes.data(), std::min(bytes.size(), kBytesAtOnce));
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      throw NSPOSIXError(errno, "write '" + name_ + "'");
    }
  }
}

void FileHandle::write(std::span<const std::string_view> pieces) {
  for (const std::string_view piece : pieces) write(piece);
}

void FileHandle::truncate(std::int64_t size) {
  while (::ftruncate(descriptor_, size) != 0) {
    if (errno == EINTR) continue;
    throw NSPOSIXError(errno, "make '" + name_ + "' " + std::to_string(size) + " bytes long");
  }
}

void FileHandle::close() {
  // After EINTR the descriptor is gone on Linux; on no system may it be closed again.
  const int descriptor = std::exchange(descriptor_, -1);
  if (::close(descriptor) != 0 && errno != EINTR) {
    throw NSPOSIXError(errno, "close '" + name_ + "'");
  }
}

FileAttributes attributesOfFile(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    throw NSPOSIXError(errno, "read the attributes of '" + path.string() + "'");
  }
#if defined(__APPLE__)
  const timespec modified = status.st_mtimespec;
#else
  const timespec modified = status.st_mtim;
#endif
  const auto sinceEpoch =
      std::chrono::seconds(modified.tv_sec) + std::chrono::nanoseconds(modified.tv_nsec);
  return {status.st_size, Date(std::chrono::floor<std::chrono::microseconds>(sinceEpoch))};
}

}  // namespace kestrune::platform
