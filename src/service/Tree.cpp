#include "service/Tree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

#include "platform/values/NSError.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

constexpr unsigned kWantedAttributes = STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_INO;

/// -1 with errno, like open. A rename somewhere that raced with the resolution is told by EAGAIN, or
/// by EXDEV where it took a folder of the path out of the root meanwhile (a removal does): both are
/// looked up again, and what is gone is then missing. Nothing else of ours gets EXDEV: paths hold no
/// "..", and other mounts are entered.
int openBeneath(int root, const char* relative, int flags) {
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  constexpr int kAttempts = 100;
  long descriptor = -1;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    descriptor = ::syscall(SYS_openat2, root, relative, &how, sizeof how);
    if (descriptor >= 0 || (errno != EAGAIN && errno != EXDEV && errno != EINTR)) break;
  }
  return static_cast<int>(descriptor);
}

ItemKind kindOf(unsigned mode) {
  if (S_ISREG(mode)) return ItemKind::file;
  if (S_ISDIR(mode)) return ItemKind::folder;
  if (S_ISLNK(mode)) return ItemKind::link;
  return ItemKind::other;
}

ItemAttributes convert(const struct statx& status) {
  ItemAttributes attributes;
  attributes.kind = kindOf(status.stx_mode);
  attributes.sizeBytes = status.stx_size;
  attributes.modified = {status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec};
  attributes.inode = status.stx_ino;
  return attributes;
}

/// Nothing if nothing is there.
std::optional<ItemAttributes> findAt(const FileDescriptor& folder, const std::string& name) {
  struct statx status {};
  if (::statx(folder.get(), name.c_str(), AT_SYMLINK_NOFOLLOW, kWantedAttributes, &status) == 0) {
    return convert(status);
  }
  if (errno == ENOENT) return std::nullopt;
  throw fileError(errno, "statx");
}

void refuseLink(const ItemAttributes& attributes) {
  if (attributes.kind == ItemKind::link) throw fileError(ELOOP, "statx");
}

struct FolderStatus {
  /// The file system and the inode.
  std::pair<dev_t, ino_t> identity;
  bool isRemoved = false;
};

FolderStatus statusOf(const FileDescriptor& folder) {
  struct stat status {};
  if (::fstat(folder.get(), &status) != 0) throw fileError(errno, "fstat");
  return {{status.st_dev, status.st_ino}, status.st_nlink == 0};
}

/// Whether a file may be put where `present` is.
void checkReplaceable(const std::optional<ItemAttributes>& present) {
  if (!present) return;
  refuseLink(*present);
  if (present->kind == ItemKind::folder) throw fileError(EISDIR, "place");
  if (present->kind == ItemKind::other) throw conflict("something that is no file is in the place");
}

}  // namespace

ItemAttributes attributesAt(int folder, const char* name) {
  struct statx status {};
  if (::statx(folder, name, AT_SYMLINK_NOFOLLOW, kWantedAttributes, &status) != 0)
    throw fileError(errno, "statx");
  return convert(status);
}

ItemAttributes attributesOf(const FileDescriptor& file) {
  struct statx status {};
  if (::statx(file.get(), "", AT_EMPTY_PATH, kWantedAttributes, &status) != 0)
    throw fileError(errno, "statx");
  return convert(status);
}

Tree::Tree(const std::filesystem::path& root, platform::Durability durability)
    : root_(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), durability_(durability) {
  if (!root_)
    throw std::runtime_error("root '" + root.string() + "': " + platform::errnoText(errno));
  const FileDescriptor probe(openBeneath(root_.get(), ".", O_PATH | O_DIRECTORY));
  if (!probe)
    throw std::runtime_error("openat2 (Linux 5.6 or later is needed): " +
                             platform::errnoText(errno));
}

FileDescriptor Tree::open(const RemotePath& path, int flags, const char* what) const {
  FileDescriptor opened(openBeneath(root_.get(), path.relative().c_str(), flags));
  if (!opened) throw fileError(errno, what);
  return opened;
}

FileDescriptor Tree::openParent(const RemotePath& path) const {
  return open(path.parent(), O_RDONLY | O_DIRECTORY, "open parent");
}

void Tree::settle(const FileDescriptor& folder) const {
  if (durability_ == platform::Durability::durable && ::fsync(folder.get()) != 0) {
    throw fileError(errno, "fsync of a folder");
  }
}

ItemAttributes Tree::attributes(const RemotePath& path) const {
  return attributesOf(open(path, O_PATH, "open"));
}

FileDescriptor Tree::openFile(const RemotePath& path) const {
  // Non-blocking, so that a pipe in the tree cannot hold the thread; it means nothing for regular
  // files.
  FileDescriptor file(
      openBeneath(root_.get(), path.relative().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
  if (!file) {
    if (errno == ENXIO || errno == ENODEV) throw notFound();
    throw fileError(errno, "open file");
  }
  const ItemKind kind = attributesOf(file).kind;
  if (kind == ItemKind::folder) throw conflict("the item is a folder");
  if (kind != ItemKind::file) throw notFound();
  return file;
}

FileDescriptor Tree::openFolder(const RemotePath& path) const {
  FileDescriptor folder(openBeneath(root_.get(), path.relative().c_str(), O_RDONLY | O_DIRECTORY));
  if (folder) return folder;
  if (errno != ENOTDIR) throw fileError(errno, "open folder");
  // Either the item itself is a file, or something above it is.
  if (attributes(path).kind == ItemKind::file) throw conflict("the item is a file");
  throw notFound();
}

FileDescriptor Tree::openFolderIn(int folder, const char* name) {
  FileDescriptor opened(openBeneath(folder, name, O_RDONLY | O_DIRECTORY));
  if (!opened) throw fileError(errno, "open folder");
  return opened;
}

bool Tree::holds(const FileDescriptor& folder) const {
  const FolderStatus root = statusOf(root_);
  FolderStatus here = statusOf(folder);
  // A folder that has no name any more still knows where it was.
  if (here.isRemoved) return false;
  FileDescriptor above;
  int present = folder.get();
  while (here.identity != root.identity) {
    FileDescriptor next(::openat(present, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!next) throw fileError(errno, "open ..");
    const FolderStatus parent = statusOf(next);
    // Only the uppermost folder is its own parent.
    if (parent.identity == here.identity) return false;
    above = std::move(next);
    present = above.get();
    here = parent;
  }
  return true;
}

void Tree::makeFolder(const RemotePath& path) const {
  if (path.isRoot()) throw fileError(EEXIST, "mkdir");
  const FileDescriptor parent = openParent(path);
  constexpr mode_t kModeBeforeMask = 0777;
  if (::mkdirat(parent.get(), path.name().c_str(), kModeBeforeMask) != 0)
    throw fileError(errno, "mkdir");
  settle(parent);
}

void Tree::move(const RemotePath& source, const RemotePath& destination) const {
  if (source.isRoot()) throw badRequest("the root cannot be moved");
  if (destination.isRoot()) throw fileError(EEXIST, "rename");
  const FileDescriptor from = openParent(source);
  refuseLink(attributesAt(from.get(), source.name().c_str()));
  if (destination.isBelow(source)) throw conflict("a folder cannot be moved into itself");
  const FileDescriptor to = openParent(destination);
  if (::renameat2(from.get(), source.name().c_str(), to.get(), destination.name().c_str(),
                  RENAME_NOREPLACE) != 0) {
    // The kernel's own check for a folder that moves below itself, for moves that meet on the way.
    if (errno == EINVAL) throw conflict("a folder cannot be moved into itself");
    throw fileError(errno, "rename");
  }
  settle(to);
  if (source.parent() != destination.parent()) settle(from);
}

bool Tree::remove(const RemotePath& path, int trash, const std::string& trashName) const {
  if (path.isRoot()) throw badRequest("the root cannot be deleted");
  const FileDescriptor parent = openParent(path);
  const std::string name = path.name();
  const ItemAttributes present = attributesAt(parent.get(), name.c_str());
  refuseLink(present);
  bool trashed = present.kind == ItemKind::folder;
  if (!trashed && ::unlinkat(parent.get(), name.c_str(), 0) != 0) {
    // A folder has come into the place meanwhile.
    if (errno != EISDIR) throw fileError(errno, "unlink");
    trashed = true;
  }
  if (trashed && ::renameat(parent.get(), name.c_str(), trash, trashName.c_str()) != 0)
    throw fileError(errno, "rename into the trash");
  settle(parent);
  return trashed;
}

void Tree::place(int from, const std::string& name, const RemotePath& path) const {
  if (path.isRoot()) throw fileError(EISDIR, "place");
  const FileDescriptor parent = openParent(path);
  checkReplaceable(findAt(parent, path.name()));
  if (::renameat(from, name.c_str(), parent.get(), path.name().c_str()) != 0)
    throw fileError(errno, "rename");
  settle(parent);
}

void Tree::checkPlace(const RemotePath& path) const {
  if (path.isRoot()) throw fileError(EISDIR, "place");
  const FileDescriptor parent = openParent(path);
  checkReplaceable(findAt(parent, path.name()));
}

}  // namespace kestrune::service
