#include "host/content/FileCopy.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

// What reading and writing takes at a time: large enough that the calls do not count.
constexpr std::int64_t kBufferBytes = 1 << 20;

// Measured on Linux 6.18: a page cache that is filled by 512 KiB at once takes its memory in blocks of that size, which are
// rarely at hand; a virtual machine had to get them from its host, and 1 GiB took 1.3 seconds of processor time instead of 0.2.
constexpr std::size_t kBytesAtOnce = 128U << 10U;

// Whether copy_file_range says that it cannot do it here at all, rather than that it failed.
bool isRefusal(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

void readAndWrite(int from, int to, ByteRange range) {
  std::vector<std::byte> buffer(static_cast<std::size_t>(std::min(kBufferBytes, range.length())));
  while (!range.isEmpty()) {
    const auto room = static_cast<std::size_t>(std::min(kBufferBytes, range.length()));
    const ssize_t count = ::pread(from, buffer.data(), room, range.start);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw NSPOSIXError(errno, "read a file that is copied");
    if (count == 0) throw NSPOSIXError(EIO, "copy a file that ended early");
    writeBytes(to, range.start, std::span(buffer.data(), static_cast<std::size_t>(count)));
    range.start += count;
  }
}

}  // namespace

void copyBytes(int from, int to, ByteRange range) {
  while (!range.isEmpty()) {
    off_t source = range.start;
    off_t destination = range.start;
    const ssize_t count = ::copy_file_range(from, &source, to, &destination,
                                            static_cast<std::size_t>(range.length()), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && isRefusal(errno)) return readAndWrite(from, to, range);
    if (count < 0) throw NSPOSIXError(errno, "copy a file");
    if (count == 0) throw NSPOSIXError(EIO, "copy a file that ended early");
    range.start += count;
  }
}

void copyWithHoles(int from, int to, std::int64_t sizeBytes) {
  if (::ftruncate(to, sizeBytes) != 0) throw NSPOSIXError(errno, "size a copy");
  std::int64_t position = 0;
  while (position < sizeBytes) {
    const off_t data = ::lseek(from, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO) return;  // nothing but holes from here on
    if (data < 0) throw NSPOSIXError(errno, "find the bytes of a file that is copied");
    const off_t hole = ::lseek(from, data, SEEK_HOLE);
    if (hole < 0) throw NSPOSIXError(errno, "find the holes of a file that is copied");
    copyBytes(from, to, {data, std::min<std::int64_t>(hole, sizeBytes)});
    position = hole;
  }
}

bool shareBlocks(int from, int to) { return ::ioctl(to, FICLONE, from) == 0; }

void writeBytes(int file, std::int64_t offset, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        ::pwrite(file, bytes.data(), std::min(bytes.size(), kBytesAtOnce), offset);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw NSPOSIXError(errno, "write a file's contents");
    offset += count;
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

}  // namespace kestrune::host
