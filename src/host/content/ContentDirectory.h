// The local disk below the mount: one private folder with the contents that are here, each a file named by a number, and
// the temporary folder from which fetched files are taken over by a rename.
//
//   <directory>/lock        held while a host uses the directory
//   <directory>/contents/   files named by number, mode 0600, sparse where not everything is here; beside one that is
//                           changed, <number>.log says what the database may not know yet (RangeLog.h), and
//                           <number>.edit what must be known if the database is lost (EditDescription.h)
//   <directory>/outgoing/   what is on its way to the store: a second name, or a copy, that nobody writes to
//   <directory>/rescued/    what was here and went at the store, by day
//   <directory>/tmp/        the temporary directory of the process; emptied at the start, as is outgoing/
//
// Names from the remote side never reach contents/ and outgoing/, and everything is used through descriptors of the
// folders without following links.
//
// Threads: every operation may be called from any thread. Blocks for local file work only.
// Fails: throws NSPOSIXError.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/basics/LocalFile.h"
#include "host/content/ContentState.h"

namespace kestrune::host {

class ContentDirectory {
 public:
  /// Makes the directory with mode 0700, or takes it over: it must belong to this user and be no symbolic link. Throws
  /// EBUSY if another host uses it.
  /// `heldLock`: the descriptor with which the process already holds the lock, taken over from the program that was executed
  /// before; -1 for none.
  explicit ContentDirectory(const std::filesystem::path& directory, int heldLock = -1);

  /// Holds the lock.
  int lockDescriptor() const { return lock_->number(); }

  const std::filesystem::path& path() const { return path_; }
  const std::filesystem::path& temporaryDirectory() const { return temporary_; }

  /// A new empty file for reading and writing. Throws EEXIST if there is one.
  LocalFilePtr create(ContentNumber number);
  /// The file again, for reading and writing; null if there is none.
  LocalFilePtr open(ContentNumber number) const;
  /// Makes the file at `path` the contents `number`. It must be a regular file on this file system; whatever happens, it
  /// is not there any more afterwards.
  LocalFilePtr takeOver(const std::filesystem::path& path, ContentNumber number);
  /// Opens the file at `path`, a regular one, for reading, and removes its name.
  LocalFilePtr takeUnnamed(const std::filesystem::path& path);
  /// Who has it open keeps it.
  void remove(ContentNumber number) noexcept;
  /// The log beside the contents, for reading and appending; null if there is none and `creates` is false.
  std::shared_ptr<Descriptor> openLog(ContentNumber number, bool creates);
  /// Notes beside the contents what is needed to send them; replaces what was noted.
  void noteEdit(ContentNumber number, const std::string& text);
  /// What was noted; empty if nothing was.
  std::string notedEdit(ContentNumber number) const;
  void forgetEdit(ContentNumber number) noexcept;
  /// Every number beside which an edit is noted.
  std::vector<ContentNumber> notedEdits() const;
  /// Every number that has a file: what the database does not know is removed by whoever knows both.
  std::vector<ContentNumber> numbers() const;

  /// A file with the present bytes of `number`. `shared`: it is the same file under a second name, so whoever writes to
  /// `number` must call `replaceWithCopy` before.
  struct Outgoing {
    std::filesystem::path path;
    bool shared = false;
  };
  Outgoing makeOutgoing(ContentNumber number, const LocalFile& file);
  void removeOutgoing(const std::filesystem::path& path) noexcept;
  /// Gives `number` a file of its own with the same bytes and holes; the old one stays under its other names.
  LocalFilePtr replaceWithCopy(ContentNumber number, const LocalFile& file, std::int64_t sizeBytes);

  /// Moves the contents to rescued/<day>/<name>, or a name beside it that is free. `name` has no slash. Returns the path.
  /// Days are those of UTC ("2024-05-31").
  std::filesystem::path rescue(ContentNumber number, const std::string& name);
  /// Removes the days of rescued/ that are older.
  void forgetRescued(int olderThanDays);

  /// What the file system below has left for this user.
  std::uint64_t freeBytes() const;

 private:
  void clear();

  std::filesystem::path path_;
  std::filesystem::path temporary_;
  std::unique_ptr<Descriptor> directory_;
  std::unique_ptr<Descriptor> lock_;
  std::unique_ptr<Descriptor> contents_;
  std::unique_ptr<Descriptor> outgoing_;
  std::unique_ptr<Descriptor> rescued_;
  std::atomic<std::uint64_t> nextOutgoing_ = 1;  // makes the names in outgoing/ differ
  std::atomic<bool> sharesBlocks_ = true;        // until the file system says that it never does
};

}  // namespace kestrune::host
