#include "host/Replica.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

namespace fs = std::filesystem;
using platform::NSPOSIXError;

[[noreturn]] void fail(const std::string& context) { throw NSPOSIXError(errno, context); }

int openFolder(int base, const char* name, const fs::path& shown) {
  const int number = ::openat(base, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (number < 0) fail("open '" + shown.string() + "'");
  return number;
}

std::unique_ptr<Descriptor> ownFolder(int base, const char* name, const fs::path& shown) {
  if (::mkdirat(base, name, 0700) != 0 && errno != EEXIST) fail("create '" + shown.string() + "'");
  auto folder = std::make_unique<Descriptor>(openFolder(base, name, shown));
  struct stat status = {};
  if (::fstat(folder->number(), &status) != 0) fail("examine '" + shown.string() + "'");
  if (status.st_uid != ::geteuid())
    throw NSPOSIXError(EPERM, "use '" + shown.string() + "', another user's folder");
  if (::fchmod(folder->number(), 0700) != 0) fail("protect '" + shown.string() + "'");
  return folder;
}

LocalFilePtr openRegular(int base, const char* name, const std::string& shown) {
  const int number = ::openat(base, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (number < 0) fail("open '" + shown + "'");
  struct stat status = {};
  const bool examined = ::fstat(number, &status) == 0;
  auto file = std::make_shared<LocalFile>(number, status.st_size);
  if (!examined) fail("examine '" + shown + "'");
  if (!S_ISREG(status.st_mode))
    throw NSPOSIXError(EINVAL, "use '" + shown + "', which is no regular file");
  return file;
}

// Removes a name when the scope is left.
class Unlinker {
 public:
  explicit Unlinker(const fs::path& path) : path_(path) {}
  ~Unlinker() { ::unlink(path_.c_str()); }
  Unlinker(const Unlinker&) = delete;
  Unlinker& operator=(const Unlinker&) = delete;

 private:
  const fs::path& path_;
};

}  // namespace

Replica::Replica(const fs::path& directory) : temporary_(directory / "tmp") {
  if (directory.has_parent_path()) {
    std::error_code error;
    fs::create_directories(directory.parent_path(), error);
    if (error)
      throw NSPOSIXError(error.value(), "create '" + directory.parent_path().string() + "'");
  }
  directory_ = ownFolder(AT_FDCWD, directory.c_str(), directory);
  const int lock =
      ::openat(directory_->number(), "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (lock < 0) fail("open '" + (directory / "lock").string() + "'");
  lock_ = std::make_unique<Descriptor>(lock);
  if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) errno = EBUSY;
    fail("lock '" + directory.string() + "', which another mount uses");
  }
  contents_ = ownFolder(directory_->number(), "contents", directory / "contents");
  const auto temporary = ownFolder(directory_->number(), "tmp", temporary_);
  clear();
}

void Replica::clear() {
  const int listed = ::fcntl(contents_->number(), F_DUPFD_CLOEXEC, 0);
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(listed < 0 ? nullptr : ::fdopendir(listed),
                                                    &::closedir);
  if (!entries) fail("list the replica's contents");
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") ::unlinkat(contents_->number(), entry->d_name, 0);
  }
  // What an extension left may be folders as well. The folder itself was just checked; links inside are not followed.
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(temporary_, error))
    fs::remove_all(entry.path(), error);
  if (error) throw NSPOSIXError(error.value(), "clear '" + temporary_.string() + "'");
}

LocalFilePtr Replica::takeOver(const fs::path& path, NodeId node) {
  const Unlinker unlinker(path);
  auto file = openRegular(AT_FDCWD, path.c_str(), path.string());
  if (::fchmod(file->descriptor(), 0600) != 0) fail("protect '" + path.string() + "'");
  const std::string name = std::to_string(node);
  if (::renameat(AT_FDCWD, path.c_str(), contents_->number(), name.c_str()) != 0) {
    fail("take over '" + path.string() + "'");
  }
  return file;
}

LocalFilePtr Replica::takeUnnamed(const fs::path& path) {
  const Unlinker unlinker(path);
  return openRegular(AT_FDCWD, path.c_str(), path.string());
}

LocalFilePtr Replica::open(NodeId node) const {
  try {
    const std::string name = std::to_string(node);
    return openRegular(contents_->number(), name.c_str(), "contents/" + name);
  } catch (const NSPOSIXError& error) {
    if (error.code() == ENOENT) return nullptr;
    throw;
  }
}

void Replica::remove(NodeId node) noexcept {
  ::unlinkat(contents_->number(), std::to_string(node).c_str(), 0);
}

}  // namespace kestrune::host
