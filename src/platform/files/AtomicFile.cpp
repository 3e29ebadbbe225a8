#include "platform/files/AtomicFile.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>
#include <vector>

#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {

namespace {

[[noreturn]] void fail(int errorNumber, const char* tried, const std::filesystem::path& path) {
  throw NSPOSIXError(errorNumber, std::string(tried) + " '" + path.string() + "'");
}

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  int get() const { return number_; }
  bool isOpen() const { return number_ >= 0; }
  /// 0 or the errno. The descriptor is gone either way.
  int close() { return ::close(std::exchange(number_, -1)) == 0 ? 0 : errno; }

 private:
  int number_;
};

/// A system call takes what stands before the first zero byte; that would be another file.
void refuseZeroBytes(const std::filesystem::path& path, const char* tried) {
  if (path.native().find('\0') != std::string::npos) fail(EINVAL, tried, path);
}

int openFolderOf(const std::filesystem::path& path) {
  const std::filesystem::path parent = path.has_parent_path() ? path.parent_path() : ".";
  const int folder = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) fail(errno, "open the folder of", path);
  return folder;
}

/// Waits until what was written to an open file or folder is on the disk. False: errno says why.
bool flushToDisk(int descriptor) {
#if defined(__APPLE__)
  // fsync leaves it in the drive's own cache. File systems that do not know the command (those of a
  // network) refuse it; then fsync is what there is.
  if (::fcntl(descriptor, F_FULLFSYNC) == 0) return true;
#endif
  return ::fsync(descriptor) == 0;
}

/// Whether nobody else can see what is written to the open file `descriptor`: it is an ordinary
/// file of one name, ours, and open nowhere else. False where the system cannot say.
bool isOursAlone(int descriptor) {
#if defined(__linux__)
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_nlink != 1 || status.st_uid != ::geteuid()) return false;
  // A write lease is granted only where no other descriptor or mapping of the file is left
  // (fcntl(2)). Whoever opens it by its hidden name meanwhile sends a signal, which must be a
  // harmless one.
  if (::fcntl(descriptor, F_SETSIG, SIGURG) != 0) return false;
  if (::fcntl(descriptor, F_SETLEASE, F_WRLCK) != 0) return false;
  return ::fcntl(descriptor, F_SETLEASE, F_UNLCK) == 0;
#else
  static_cast<void>(descriptor);
  return false;
#endif
}

constexpr std::string_view kPrefix = ".kestrune-";
constexpr std::string_view kSuffix = ".tmp";

std::string hiddenName() { return std::string(kPrefix).append(newUUIDString()).append(kSuffix); }

/// A file in an open folder, which its destructor removes unless it has got to its place.
class TemporaryFile {
 public:
  /// A new one.
  TemporaryFile(int folder, const std::filesystem::path& target)
      : TemporaryFile(folder, target, hiddenName(), O_CREAT | O_EXCL) {
    if (!file_.isOpen()) fail(errno, "create a file beside", target_);
  }
  /// The one of that name, if it is still there; `isOpen` tells.
  TemporaryFile(int folder, const std::filesystem::path& target, const std::string& name)
      : TemporaryFile(folder, target, name, O_NONBLOCK) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!placed_) ::unlinkat(folder_, name_.c_str(), 0);
  }

  bool isOpen() const { return file_.isOpen(); }
  int descriptor() const { return file_.get(); }
  const std::string& name() const { return name_; }

  void write(std::string_view contents) {
    struct stat before {};
    if (::fstat(file_.get(), &before) != 0) fail(errno, "examine", target_);
    // The process's umask may have taken bits away, or somebody given some.
    const bool isPrivate = (before.st_mode & 07777U) == 0600U;
    if (!isPrivate && ::fchmod(file_.get(), 0600) != 0) fail(errno, "set the mode of", target_);
    const auto size = static_cast<off_t>(contents.size());
    while (!contents.empty()) {
      const ssize_t written = ::write(file_.get(), contents.data(), contents.size());
      if (written < 0) {
        if (errno == EINTR) continue;
        fail(errno, "write", target_);
      }
      contents.remove_prefix(static_cast<std::size_t>(written));
    }
    if (before.st_size > size && ::ftruncate(file_.get(), size) != 0) fail(errno, "write", target_);
  }

  void flush() {
    if (!flushToDisk(file_.get())) fail(errno, "flush", target_);
  }

  /// Afterwards this name is that of the file that was replaced. False, and nothing has happened,
  /// where the target is no ordinary file or the system cannot do it.
  bool changePlaces() {
#if defined(__linux__)
    struct stat status {};
    const std::string target = target_.filename();
    const int examined = ::fstatat(folder_, target.c_str(), &status, AT_SYMLINK_NOFOLLOW);
    if (examined != 0 || !S_ISREG(status.st_mode)) return false;
    placed_ = ::renameat2(folder_, name_.c_str(), folder_, target.c_str(), RENAME_EXCHANGE) == 0;
#endif
    return placed_;
  }

  /// Some file systems report a failed write only here.
  void close() {
    if (const int failure = file_.close(); failure != 0) fail(failure, "write", target_);
  }

  void moveToTarget() {
    if (::renameat(folder_, name_.c_str(), folder_, target_.filename().c_str()) != 0)
      fail(errno, "replace", target_);
    placed_ = true;
  }

 private:
  TemporaryFile(int folder, const std::filesystem::path& target, std::string name, int flags)
      : folder_(folder),
        target_(target),
        name_(std::move(name)),
        file_(::openat(folder, name_.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC | flags, 0600)) {}

  const int folder_;
  const std::filesystem::path& target_;
  const std::string name_;
  Descriptor file_;
  bool placed_ = false;
};

}  // namespace

void replaceFile(const std::filesystem::path& path, std::string_view contents,
                 Durability durability) {
  refuseZeroBytes(path, "replace");
  // Everything happens below this descriptor, so that a folder that is moved meanwhile takes both
  // files along.
  const Descriptor folder(openFolderOf(path));
  TemporaryFile file(folder.get(), path);
  file.write(contents);
  if (durability == Durability::durable) file.flush();
  file.close();
  file.moveToTarget();
  // EINVAL: a file system whose folders cannot be flushed.
  if (durability == Durability::durable && !flushToDisk(folder.get()) && errno != EINVAL) {
    fail(errno, "flush the folder of", path);
  }
}

void removeAbandonedReplacements(const std::filesystem::path& folder, std::chrono::seconds age) {
  const auto youngest = std::filesystem::file_time_type::clock::now() - age;
  std::error_code error;
  std::vector<std::filesystem::path> abandoned;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    if (!name.starts_with(kPrefix) || !name.ends_with(kSuffix)) continue;
    std::error_code unknown;
    const auto written = entry->last_write_time(unknown);
    const bool isFile = std::filesystem::is_regular_file(entry->symlink_status(unknown));
    if (!unknown && isFile && written < youngest) abandoned.push_back(entry->path());
  }
  for (const auto& path : abandoned) ::unlink(path.c_str());
}

void FileReplacer::rest() {
  const std::filesystem::path spare = std::exchange(spare_, {});
  if (!spare.empty()) ::unlink(spare.c_str());
}

void FileReplacer::replace(const std::filesystem::path& path, std::string_view contents) {
  refuseZeroBytes(path, "replace");
  const std::filesystem::path spare = std::exchange(spare_, {});
  const Descriptor folder(openFolderOf(path));
  std::optional<TemporaryFile> file;
  if (!spare.empty()) {
    file.emplace(folder.get(), path, spare.filename());
    if (!file->isOpen() || !isOursAlone(file->descriptor())) file.reset();
  }
  if (!file) file.emplace(folder.get(), path);
  file->write(contents);
  file->close();
  if (file->changePlaces()) {
    spare_ = path.parent_path() / file->name();
  } else {
    file->moveToTarget();
  }
}

std::string readFile(const std::filesystem::path& path, std::uint64_t limitBytes) {
  refuseZeroBytes(path, "read");
  // Non-blocking: opening a named pipe that lies in the file's place would wait for a writer.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.isOpen()) fail(errno, "open", path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) fail(errno, "examine", path);
  if (S_ISDIR(status.st_mode)) fail(EISDIR, "read", path);
  if (!S_ISREG(status.st_mode)) fail(EINVAL, "read", path);
  const auto announced = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  if (announced > limitBytes) fail(EFBIG, "read", path);

  // The size is a hint: the file may grow or shrink while it is read. One byte more than expected
  // shows the end.
  std::string contents(announced + 1, '\0');
  std::size_t used = 0;
  for (;;) {
    const ssize_t got = ::read(file.get(), contents.data() + used, contents.size() - used);
    if (got < 0) {
      if (errno == EINTR) continue;
      fail(errno, "read", path);
    }
    if (got == 0) break;
    used += static_cast<std::size_t>(got);
    if (used > limitBytes) fail(EFBIG, "read", path);
    if (used == contents.size()) contents.resize(used * 2);
  }
  contents.resize(used);
  return contents;
}

}  // namespace kestrune::platform
