#include "service/Draft.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

/// The disk is asked to begin with what was written whenever this much has come together.
constexpr std::uint64_t kWriteBackBytes = 8U << 20U;

}  // namespace

Draft::Draft(int folder, std::string name, FileDescriptor file, platform::Durability durability)
    : folder_(folder), name_(std::move(name)), file_(std::move(file)), durability_(durability) {}

Draft::~Draft() {
  if (!name_.empty()) ::unlinkat(folder_, name_.c_str(), 0);
}

void Draft::reserve(std::uint64_t offset, std::uint64_t length) const {
  if (length == 0) return;
  // A reservation that fails takes the whole disk for a moment, so hopeless ones are not tried.
  struct statvfs disk {};
  if (::fstatvfs(file_.get(), &disk) != 0) throw fileError(errno, "fstatvfs");
  // Some file systems tell no size at all.
  const bool known = disk.f_blocks > 0 && disk.f_frsize > 0;
  if (known && length / disk.f_frsize > disk.f_bavail) throw fileError(ENOSPC, "reserve");
  int failed = 0;
  do {
    failed = ::fallocate(file_.get(), 0, static_cast<off_t>(offset), static_cast<off_t>(length));
  } while (failed != 0 && errno == EINTR);
  // Without this call the disk's end shows while writing.
  if (failed != 0 && errno != EOPNOTSUPP && errno != ENOSYS) throw fileError(errno, "fallocate");
}

void Draft::write(std::uint64_t offset, const char* data, std::size_t length) const {
  const std::uint64_t end = offset + length;
  for (std::uint64_t at = offset; at < end;) {
    const ssize_t written =
        ::pwrite(file_.get(), data + (at - offset), end - at, static_cast<off_t>(at));
    if (written > 0) {
      at += static_cast<std::uint64_t>(written);
    } else if (written == 0 || errno != EINTR) {
      throw fileError(written == 0 ? ENOSPC : errno, "write");
    }
  }
  const std::uint64_t begun = offset / kWriteBackBytes * kWriteBackBytes;
  const std::uint64_t complete = end / kWriteBackBytes * kWriteBackBytes;
  if (durability_ == platform::Durability::durable && complete > begun) {
    // Only a hint: where the file system does not know it, the sync takes longer.
    ::sync_file_range(file_.get(), static_cast<off_t>(begun), static_cast<off_t>(complete - begun),
                      SYNC_FILE_RANGE_WRITE);
  }
}

void Draft::truncate(std::uint64_t length) const {
  if (::ftruncate(file_.get(), static_cast<off_t>(length)) != 0)
    throw fileError(errno, "ftruncate");
}

void Draft::copyFrom(const Draft& source, std::uint64_t from, std::uint64_t length,
                     std::uint64_t offset) const {
  FileDescriptor reopened;
  if (!source.file_) {
    reopened = FileDescriptor(
        ::openat(source.folder_, source.name_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!reopened) throw fileError(errno, "open a part");
  }
  const int input = source.file_ ? source.file_.get() : reopened.get();
  auto in = static_cast<off_t>(from);
  auto out = static_cast<off_t>(offset);
  while (length > 0) {
    const ssize_t copied = ::copy_file_range(input, &in, file_.get(), &out, length, 0);
    if (copied < 0 && errno == EINTR) continue;
    if (copied < 0) throw fileError(errno, "copy_file_range");
    if (copied == 0) throw fileError(EIO, "copy_file_range met the end of a part");
    length -= static_cast<std::uint64_t>(copied);
  }
}

void Draft::sync() const {
  if (::fsync(file_.get()) != 0) throw fileError(errno, "fsync");
}

}  // namespace kestrune::service
