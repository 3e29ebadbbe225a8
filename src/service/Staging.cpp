#include "service/Staging.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "platform/values/NSError.h"
#include "service/Folders.h"
#include "service/ServiceError.h"
#include "service/ServiceLog.h"
#include "service/Signing.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLockName = "kestrune-staging.lock";
constexpr std::int64_t kAbandonedSeconds = 86'400;
constexpr std::size_t kNameBytes = 16;

[[noreturn]] void refuse(const fs::path& directory, const std::string& why) {
  throw std::runtime_error("staging directory '" + directory.string() + "' " + why);
}

std::uint64_t mountOf(int descriptor) {
  struct statx status {};
  if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0) {
    throw std::runtime_error("statx: " + platform::errnoText(errno));
  }
  return status.stx_mnt_id;
}

bool isWithin(const fs::path& inner, const fs::path& outer) {
  const auto [end, unused] = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  return end == outer.end();
}

FileDescriptor openSubfolder(int parent, const char* name) {
  constexpr mode_t kPrivate = 0700;
  if (::mkdirat(parent, name, kPrivate) != 0 && errno != EEXIST) {
    throw std::runtime_error(std::string("staging folder '") + name +
                             "': " + platform::errnoText(errno));
  }
  FileDescriptor folder(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder)
    throw std::runtime_error(std::string("staging folder '") + name +
                             "': " + platform::errnoText(errno));
  return folder;
}

/// The staging directory, open: made if missing, never one that holds something else.
FileDescriptor openDirectory(const fs::path& directory, const fs::path& root) {
  constexpr mode_t kPrivate = 0700;
  if (::mkdir(directory.c_str(), kPrivate) != 0 && errno != EEXIST) {
    refuse(directory, "cannot be made: " + platform::errnoText(errno));
  }
  FileDescriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!opened) refuse(directory, "cannot be opened: " + platform::errnoText(errno));
  if (isWithin(fs::canonical(directory), fs::canonical(root)))
    refuse(directory, "lies inside the root");
  if (isWithin(fs::canonical(root), fs::canonical(directory))) refuse(directory, "holds the root");
  if (!fs::exists(directory / kLockName) && !fs::is_empty(directory)) {
    refuse(directory, "holds other things; give an empty or a new one");
  }
  if (::fchmod(opened.get(), kPrivate) != 0)
    refuse(directory, "is not ours: " + platform::errnoText(errno));
  return opened;
}

}  // namespace

fs::path Staging::defaultDirectory(const fs::path& root) {
  const fs::path whole = fs::canonical(root);
  if (!whole.has_relative_path())
    throw std::runtime_error("the root is '/', so a staging directory must be given");
  return whole.parent_path() / ("." + whole.filename().string() + ".kestrune-staging");
}

Staging::Staging(const fs::path& directory, const fs::path& root, const Tree& tree)
    : directory_(directory), tree_(tree) {
  const FileDescriptor opened = openDirectory(directory, root);
  if (mountOf(opened.get()) != mountOf(tree.rootDescriptor())) {
    refuse(directory,
           "is on another file system than the root; both must be on one, and the staging "
           "directory outside the root");
  }
  constexpr mode_t kPrivate = 0600;
  lock_ = FileDescriptor(
      ::openat(opened.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kPrivate));
  if (!lock_) refuse(directory, "cannot be locked: " + platform::errnoText(errno));
  if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0)
    refuse(directory, "is in use by another kestrune-service");
  drafts_ = openSubfolder(opened.get(), "drafts");
  objects_ = openSubfolder(opened.get(), "objects");
  trash_ = openSubfolder(opened.get(), "trash");
  removeDrafts();
}

platform::Secret Staging::signingKey() const { return loadSigningKey(directory_ / "signing-key"); }

std::string Staging::newName() {
  std::array<unsigned char, kNameBytes> random{};
  if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
    throw std::runtime_error("no random bytes for a name");
  }
  std::string name;
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const unsigned char byte : random) {
    name += kDigits[byte >> 4U];
    name += kDigits[byte & 15U];
  }
  return name;
}

bool Staging::isName(std::string_view text) {
  return text.size() == 2 * kNameBytes &&
         text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::unique_ptr<Draft> Staging::newDraft() const {
  const std::string name = newName();
  // Not private: the file keeps this mode in the tree, and the folder around it is private as long
  // as it is here.
  constexpr mode_t kModeBeforeMask = 0666;
  FileDescriptor file(::openat(drafts_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC,
                               kModeBeforeMask));
  if (!file) throw fileError(errno, "create a draft");
  return std::make_unique<Draft>(drafts_.get(), name, std::move(file), tree_.durability());
}

void Staging::keep(Draft& draft, const std::string& key) const {
  if (::renameat(drafts_.get(), draft.name_.c_str(), objects_.get(), key.c_str()) != 0) {
    throw fileError(errno, "keep a draft");
  }
  draft.name_.clear();
}

void Staging::place(Draft& draft, const RemotePath& path) const {
  if (tree_.durability() == platform::Durability::durable) draft.sync();
  tree_.place(drafts_.get(), draft.name_, path);
  draft.name_.clear();
}

void Staging::import(const std::string& key, const RemotePath& path) const {
  if (!isName(key)) throw notFound();
  const FileDescriptor object(
      ::openat(objects_.get(), key.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  if (!object) throw fileError(errno, "open an object");
  tree_.checkPlace(path);
  if (tree_.durability() == platform::Durability::durable && ::fsync(object.get()) != 0) {
    throw fileError(errno, "fsync of an object");
  }
  tree_.place(objects_.get(), key, path);
}

void Staging::discard(const std::string& key) const {
  if (isName(key)) ::unlinkat(objects_.get(), key.c_str(), 0);
}

bool Staging::remove(const RemotePath& path) const {
  return tree_.remove(path, trash_.get(), newName());
}

void Staging::emptyTrash(const std::function<bool()>& goOn) const {
  const std::size_t left = removeContents(trash_.get(), goOn);
  if (left > 0) {
    serviceLog().write(platform::LogLevel::error, "%ld items in the trash cannot be removed", left);
  }
}

void Staging::sweep(std::int64_t nowSeconds) const {
  std::int64_t swept = 0;
  for (const std::string& name : namesIn(objects_.get())) {
    struct stat status {};
    if (::fstatat(objects_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (nowSeconds - status.st_mtim.tv_sec < kAbandonedSeconds) continue;
    if (::unlinkat(objects_.get(), name.c_str(), 0) == 0) ++swept;
  }
  if (swept > 0) {
    serviceLog().write(platform::LogLevel::standard,
                       "removed %ld uploads that nobody imported within 24 hours", swept);
  }
}

void Staging::removeDrafts() const {
  for (const std::string& name : namesIn(drafts_.get())) ::unlinkat(drafts_.get(), name.c_str(), 0);
}

}  // namespace kestrune::service
