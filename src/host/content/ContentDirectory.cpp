#include "host/content/ContentDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "host/content/FileCopy.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

namespace fs = std::filesystem;
using platform::NSPOSIXError;
using std::chrono::sys_days;

constexpr std::string_view kLogSuffix = ".log";
constexpr std::string_view kEditSuffix = ".edit";
// Of a path and the ranges of a file in pieces; what is longer was not written here.
constexpr std::size_t kLongestNote = 64UL << 20U;

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

LocalFilePtr openRegular(int base, const char* name, int access, const std::string& shown) {
  const int number = ::openat(base, name, access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (number < 0) fail("open '" + shown + "'");
  struct stat status = {};
  const bool examined = ::fstat(number, &status) == 0;
  auto file = std::make_shared<LocalFile>(number, status.st_size);
  if (!examined) fail("examine '" + shown + "'");
  if (!S_ISREG(status.st_mode))
    throw NSPOSIXError(EINVAL, "use '" + shown + "', which is no regular file");
  return file;
}

bool isSameFile(int one, int other) {
  struct stat first = {};
  struct stat second = {};
  return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
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

std::vector<std::string> entries(const Descriptor& folder) {
  const int listed = ::openat(folder.number(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(listed < 0 ? nullptr : ::fdopendir(listed),
                                                   &::closedir);
  if (!stream) fail("list a folder of the replica");
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(stream.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

std::optional<ContentNumber> numberOf(std::string_view name) {
  ContentNumber number = 0;
  const auto parsed = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == name.data() + name.size();
  return isNumber && std::to_string(number) == name ? std::optional(number) : std::nullopt;
}

std::string logName(ContentNumber number) {
  return std::to_string(number) + std::string(kLogSuffix);
}

std::string editName(ContentNumber number) {
  return std::to_string(number) + std::string(kEditSuffix);
}

std::string dayName(sys_days day) {
  const std::time_t moment = std::chrono::system_clock::to_time_t(day);
  std::tm parts = {};
  ::gmtime_r(&moment, &parts);
  std::array<char, 16> text{};
  return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts)};
}

std::optional<sys_days> dayOf(const std::string& name) {
  std::tm parts = {};
  const char* end = ::strptime(name.c_str(), "%Y-%m-%d", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return std::chrono::floor<std::chrono::days>(
      std::chrono::system_clock::from_time_t(::timegm(&parts)));
}

sys_days today() { return std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()); }

// "report.txt" and 2 are "report 2.txt".
std::string nameBeside(const std::string& name, int count) {
  if (count == 1) return name;
  const auto dot = name.rfind('.');
  const auto stem = dot == 0 ? std::string::npos : dot;
  const std::string ending = stem == std::string::npos ? "" : name.substr(stem);
  return name.substr(0, stem) + " " + std::to_string(count) + ending;
}

}  // namespace

ContentDirectory::ContentDirectory(const fs::path& directory, int heldLock)
    : path_(directory), temporary_(directory / "tmp") {
  if (directory.has_parent_path()) {
    std::error_code error;
    fs::create_directories(directory.parent_path(), error);
    if (error)
      throw NSPOSIXError(error.value(), "create '" + directory.parent_path().string() + "'");
  }
  directory_ = ownFolder(AT_FDCWD, directory.c_str(), directory);
  const int base = directory_->number();
  if (heldLock >= 0) lock_ = std::make_unique<Descriptor>(heldLock);
  const int lock = ::openat(base, "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (lock < 0) fail("open '" + (directory / "lock").string() + "'");
  if (heldLock >= 0) {
    const Descriptor closing(lock);
    if (!isSameFile(heldLock, lock)) throw NSPOSIXError(ESTALE, "use '" + directory.string() + "'");
  } else {
    lock_ = std::make_unique<Descriptor>(lock);
  }
  if (::flock(lock_->number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) errno = EBUSY;
    fail("lock '" + directory.string() + "', which another mount uses");
  }
  contents_ = ownFolder(base, "contents", directory / "contents");
  outgoing_ = ownFolder(base, "outgoing", directory / "outgoing");
  rescued_ = ownFolder(base, "rescued", directory / "rescued");
  const auto temporary = ownFolder(base, "tmp", temporary_);
  clear();
}

void ContentDirectory::clear() {
  // The folders were just checked; links inside are not followed.
  std::error_code error;
  for (const auto& folder : {temporary_, path_ / "outgoing"}) {
    for (const auto& entry : fs::directory_iterator(folder, error))
      fs::remove_all(entry.path(), error);
    if (error) throw NSPOSIXError(error.value(), "clear '" + folder.string() + "'");
  }
  // A log or a note without its contents says nothing.
  const auto listed = entries(*contents_);
  const std::set<std::string> names(listed.begin(), listed.end());
  for (const auto& name : names) {
    for (const std::string_view suffix : {kLogSuffix, kEditSuffix}) {
      if (name.ends_with(suffix) && !names.contains(name.substr(0, name.size() - suffix.size())))
        ::unlinkat(contents_->number(), name.c_str(), 0);
    }
  }
}

LocalFilePtr ContentDirectory::create(ContentNumber number) {
  const std::string name = std::to_string(number);
  // A log that an earlier file of this number left would be taken for this one's.
  ::unlinkat(contents_->number(), logName(number).c_str(), 0);
  const int file = ::openat(contents_->number(), name.c_str(),
                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (file < 0) fail("create 'contents/" + name + "'");
  return std::make_shared<LocalFile>(file, 0);
}

LocalFilePtr ContentDirectory::open(ContentNumber number) const {
  try {
    const std::string name = std::to_string(number);
    return openRegular(contents_->number(), name.c_str(), O_RDWR, "contents/" + name);
  } catch (const NSPOSIXError& error) {
    if (error.code() == ENOENT) return nullptr;
    throw;
  }
}

LocalFilePtr ContentDirectory::takeOver(const fs::path& path, ContentNumber number) {
  const Unlinker unlinker(path);
  const auto file = openRegular(AT_FDCWD, path.c_str(), O_RDONLY, path.string());
  if (::fchmod(file->descriptor(), 0600) != 0) fail("protect '" + path.string() + "'");
  const std::string name = std::to_string(number);
  if (::renameat(AT_FDCWD, path.c_str(), contents_->number(), name.c_str()) != 0) {
    fail("take over '" + path.string() + "'");
  }
  // Opened for writing only now: the extension may have made it for reading.
  return openRegular(contents_->number(), name.c_str(), O_RDWR, "contents/" + name);
}

LocalFilePtr ContentDirectory::takeUnnamed(const fs::path& path) {
  const Unlinker unlinker(path);
  return openRegular(AT_FDCWD, path.c_str(), O_RDONLY, path.string());
}

void ContentDirectory::remove(ContentNumber number) noexcept {
  ::unlinkat(contents_->number(), std::to_string(number).c_str(), 0);
  ::unlinkat(contents_->number(), logName(number).c_str(), 0);
  ::unlinkat(contents_->number(), editName(number).c_str(), 0);
}

void ContentDirectory::noteEdit(ContentNumber number, const std::string& text) {
  const std::string name = editName(number);
  const int opened = ::openat(contents_->number(), name.c_str(),
                              O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (opened < 0) fail("create 'contents/" + name + "'");
  const Descriptor file(opened);
  // A note that a crash or a full disk cuts off is known for what it is.
  if (::write(opened, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    fail("write 'contents/" + name + "'");
}

std::string ContentDirectory::notedEdit(ContentNumber number) const {
  const std::string name = editName(number);
  const int opened = ::openat(contents_->number(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (opened < 0 && errno == ENOENT) return {};
  if (opened < 0) fail("open 'contents/" + name + "'");
  const Descriptor file(opened);
  std::string text;
  std::array<char, 4096> piece{};
  for (;;) {
    const ssize_t count = ::read(opened, piece.data(), piece.size());
    if (count < 0) fail("read 'contents/" + name + "'");
    if (count == 0 || text.size() > kLongestNote) return text;
    text.append(piece.data(), static_cast<std::size_t>(count));
  }
}

void ContentDirectory::forgetEdit(ContentNumber number) noexcept {
  ::unlinkat(contents_->number(), editName(number).c_str(), 0);
}

std::vector<ContentNumber> ContentDirectory::notedEdits() const {
  std::vector<ContentNumber> numbers;
  for (const std::string_view name : entries(*contents_)) {
    if (!name.ends_with(kEditSuffix)) continue;
    if (const auto number = numberOf(name.substr(0, name.size() - kEditSuffix.size())))
      numbers.push_back(*number);
  }
  return numbers;
}

std::shared_ptr<Descriptor> ContentDirectory::openLog(ContentNumber number, bool creates) {
  const std::string name = logName(number);
  const int flags = O_RDWR | O_APPEND | O_NOFOLLOW | O_CLOEXEC | (creates ? O_CREAT : 0);
  const int file = ::openat(contents_->number(), name.c_str(), flags, 0600);
  if (file >= 0) return std::make_shared<Descriptor>(file);
  if (errno == ENOENT && !creates) return nullptr;
  fail("open 'contents/" + name + "'");
}

std::vector<ContentNumber> ContentDirectory::numbers() const {
  std::vector<ContentNumber> numbers;
  for (const auto& name : entries(*contents_)) {
    if (const auto number = numberOf(name)) numbers.push_back(*number);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

ContentDirectory::Outgoing ContentDirectory::makeOutgoing(ContentNumber number,
                                                          const LocalFile& file) {
  const std::string from = std::to_string(number);
  const std::string name = from + "-" + std::to_string(nextOutgoing_++);
  const fs::path path = path_ / "outgoing" / name;
  // A file that is made and removed again for each snapshot costs far more than a second name.
  if (sharesBlocks_) {
    const int copy = ::openat(outgoing_->number(), name.c_str(),
                              O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (copy < 0) fail("create '" + path.string() + "'");
    const Descriptor closing(copy);
    if (shareBlocks(file.descriptor(), copy)) return {path, false};
    if (errno == EOPNOTSUPP || errno == ENOTTY) sharesBlocks_ = false;
    ::unlinkat(outgoing_->number(), name.c_str(), 0);
  }
  if (::linkat(contents_->number(), from.c_str(), outgoing_->number(), name.c_str(), 0) != 0)
    fail("link '" + path.string() + "'");
  return {path, true};
}

void ContentDirectory::removeOutgoing(const fs::path& path) noexcept {
  ::unlinkat(outgoing_->number(), path.filename().c_str(), 0);
}

LocalFilePtr ContentDirectory::replaceWithCopy(ContentNumber number, const LocalFile& file,
                                               std::int64_t sizeBytes) {
  const std::string name = std::to_string(number);
  // Copied where a crash leaves nothing, and made the contents when it is complete.
  const std::string copyName = name + "-copy";
  ::unlinkat(outgoing_->number(), copyName.c_str(), 0);
  const int copy = ::openat(outgoing_->number(), copyName.c_str(),
                            O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (copy < 0) fail("create 'outgoing/" + copyName + "'");
  auto own = std::make_shared<LocalFile>(copy, sizeBytes);
  try {
    copyWithHoles(file.descriptor(), copy, sizeBytes);
    if (::renameat(outgoing_->number(), copyName.c_str(), contents_->number(), name.c_str()) != 0)
      fail("replace 'contents/" + name + "'");
  } catch (...) {
    ::unlinkat(outgoing_->number(), copyName.c_str(), 0);
    throw;
  }
  return own;
}

fs::path ContentDirectory::rescue(ContentNumber number, const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
    throw NSPOSIXError(EINVAL, "rescue a file under a name that is none");
  const std::string day = dayName(today());
  const auto folder = ownFolder(rescued_->number(), day.c_str(), path_ / "rescued" / day);
  const std::string from = std::to_string(number);
  std::string wanted = name;
  for (int count = 1;; ++count) {
    const std::string to = nameBeside(wanted, count);
    if (::renameat2(contents_->number(), from.c_str(), folder->number(), to.c_str(),
                    RENAME_NOREPLACE) == 0) {
      remove(number);  // the log
      return path_ / "rescued" / day / to;
    }
    if (errno == ENAMETOOLONG && wanted != from) {
      wanted = from;
      count = 0;
    } else if (errno != EEXIST) {
      fail("rescue 'contents/" + from + "'");
    }
  }
}

void ContentDirectory::forgetRescued(int olderThanDays) {
  for (const auto& name : entries(*rescued_)) {
    const auto day = dayOf(name);
    if (!day || today() - *day <= std::chrono::days(olderThanDays)) continue;
    std::error_code error;
    fs::remove_all(path_ / "rescued" / name, error);
    if (error) throw NSPOSIXError(error.value(), "remove 'rescued/" + name + "'");
  }
}

std::uint64_t ContentDirectory::freeBytes() const {
  struct statvfs status = {};
  if (::fstatvfs(directory_->number(), &status) != 0) fail("examine '" + path_.string() + "'");
  return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

}  // namespace kestrune::host
