// Where uploads grow before they become part of the tree: a directory of the service's own, outside
// the tree and on the same file system, so that entering the tree is one rename.
//
//     drafts/    files that are being written; all of them are removed at the start
//     objects/   complete uploads that wait for their import, by key; removed after 24 hours
//     trash/     folders on their way out
//     signing-key, kestrune-staging.lock
//
// One process at a time uses a staging directory (a lock on the last file); a directory that holds
// other things is refused.
//
// Threads: callable from any thread; all operations block on the disk.
// Fails: ServiceError, except
// for the constructor.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/values/Secret.h"
#include "service/Draft.h"
#include "service/FileDescriptor.h"
#include "service/RemotePath.h"
#include "service/Tree.h"

namespace kestrune::service {

class Staging {
 public:
  /// The hidden sibling of `root` that is used when none is given. Throws std::runtime_error for a
  /// root without a parent.
  static std::filesystem::path defaultDirectory(const std::filesystem::path& root);

  /// Makes the directory (mode 0700) if it is missing, locks it and removes what an earlier run
  /// left behind, except for the trash, which `emptyTrash` empties. Throws std::runtime_error that
  /// says what is wrong.
  Staging(const std::filesystem::path& directory, const std::filesystem::path& root,
          const Tree& tree);

  /// The key for signing that lies here; made if missing. Throws std::runtime_error.
  platform::Secret signingKey() const;

  /// A new name that nobody can guess: 32 hexadecimal digits.
  static std::string newName();
  /// Whether `text` could be such a name.
  static bool isName(std::string_view text);

  std::unique_ptr<Draft> newDraft() const;

  /// Makes `draft` the object `key`. It replaces one of that key.
  void keep(Draft& draft, const std::string& key) const;
  /// Puts `draft` into the tree, durably if the tree is.
  void place(Draft& draft, const RemotePath& path) const;
  /// Puts the object `key` into the tree. 404 if there is none.
  void import(const std::string& key, const RemotePath& path) const;
  /// Drops the object `key` if there is one.
  void discard(const std::string& key) const;

  /// Removes the item from the tree; what a folder held is freed by the next `emptyTrash`. True if
  /// that is worth calling.
  bool remove(const RemotePath& path) const;
  /// Frees what lies in the trash, as long as `goOn` says so. What cannot be removed is logged and
  /// stays.
  /// REQUIRES: one thread at a time.
  void emptyTrash(const std::function<bool()>& goOn) const;

  /// Removes the objects that are older than 24 hours.
  void sweep(std::int64_t nowSeconds) const;

 private:
  void removeDrafts() const;

  std::filesystem::path directory_;
  const Tree& tree_;
  FileDescriptor lock_;
  FileDescriptor drafts_;
  FileDescriptor objects_;
  FileDescriptor trash_;
};

}  // namespace kestrune::service
