// The directory tree that is served: all access to it goes through this class.
//
// The root is held by a descriptor and every path is resolved beneath it by the kernel (openat2
// with RESOLVE_BENEATH, RESOLVE_NO_SYMLINKS and RESOLVE_NO_MAGICLINKS), so that no name, no
// symbolic link and no rename that happens at the same time leads outside. Symbolic links are never
// followed and never served, not even those that point inside: an item has one path.
//
// Every change is one rename, one mkdir or one unlink: whoever looks, also after a kill at any
// moment, sees the item before or after it, never in between. A folder is removed by renaming it
// out of the tree as a whole.
//
// Threads: const operations only, callable from any thread; they block on the disk, so they run on
// the file threads. Two changes of the same item at the same time happen in some order.
// Fails: ServiceError (see fileError), except for the constructor.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "platform/files/AtomicFile.h"
#include "service/FileDescriptor.h"
#include "service/RemotePath.h"

namespace kestrune::service {

enum class ItemKind { file, folder, link, other };

/// A file system's point in time, of any year: seconds since 1970 (negative before) and the
/// nanoseconds after that second.
struct FileTime {
  std::int64_t seconds = 0;
  std::uint32_t nanoseconds = 0;
};

struct ItemAttributes {
  ItemKind kind = ItemKind::other;
  std::uint64_t sizeBytes = 0;
  FileTime modified;
  std::uint64_t inode = 0;
};

/// What lies at `name` in `folder`, links not followed. Throws ServiceError; 404 when nothing does.
ItemAttributes attributesAt(int folder, const char* name);
/// The attributes of an open file.
ItemAttributes attributesOf(const FileDescriptor& file);

class Tree {
 public:
  /// With `durable`, a change is on the disk when the operation returns. Throws std::runtime_error
  /// that says what is wrong: the root is missing or no folder, or the kernel has no openat2
  /// (before Linux 5.6).
  Tree(const std::filesystem::path& root, platform::Durability durability);

  /// The root's own descriptor; for comparing file systems.
  int rootDescriptor() const { return root_.get(); }
  platform::Durability durability() const { return durability_; }

  ItemAttributes attributes(const RemotePath& path) const;
  /// Opens a regular file for reading. 409 for a folder, 404 for a device, socket or pipe, as if it
  /// were not there.
  FileDescriptor openFile(const RemotePath& path) const;
  /// Opens a folder for listing. 409 for a file.
  FileDescriptor openFolder(const RemotePath& path) const;

  /// Opens the folder `name` in a folder of the tree for reading. 404 if that is no folder.
  static FileDescriptor openFolderIn(int folder, const char* name);

  /// Whether `folder`, opened here before, is still in the tree, wherever it was moved to since.
  bool holds(const FileDescriptor& folder) const;

  /// 409 if something of that name exists, 404 if the parent does not.
  void makeFolder(const RemotePath& path) const;
  /// Never replaces: 409 if `destination` exists, or if it lies below `source`.
  void move(const RemotePath& source, const RemotePath& destination) const;
  /// Removes a file, or moves a folder with all that is in it to `trashName` in the folder `trash`,
  /// which must lie on the same file system. True if there is something in the trash now. 400 for
  /// the root.
  bool remove(const RemotePath& path, int trash, const std::string& trashName) const;
  /// Moves the file `name` of the folder `from` to `path`; replaces a file there. 409 if a folder
  /// is there, 404 if the parent is missing; the file then stays where it was.
  /// REQUIRES: the file's
  /// contents are as durable as they need to be.
  void place(int from, const std::string& name, const RemotePath& path) const;
  /// Whether `place` would find its way: throws what it would throw for a missing parent or a
  /// folder in the place.
  void checkPlace(const RemotePath& path) const;

 private:
  FileDescriptor open(const RemotePath& path, int flags, const char* what) const;
  FileDescriptor openParent(const RemotePath& path) const;
  void settle(const FileDescriptor& folder) const;

  FileDescriptor root_;
  platform::Durability durability_;
};

}  // namespace kestrune::service
