// The bytes of one file on the local disk and what is known of them: which are here, of which version, how often they were
// changed. Everything that touches the file goes through here, one after the other; nothing here waits for anybody else.
//
// On the disk the file is always as long as the contents; what is not here is a hole. While the newest snapshot is only a
// second name of the file, the file must not be written to: the first change copies it (`change`).
//
// Threads: every operation may be called from any thread. Two locks: one is held while the file is changed, which may
// take as long as the copy of a large file; the other for moments only, so that asking and reading never wait for a change.
// Blocks: for the local disk. Fails: throws NSPOSIXError; the state then says what is true of the file.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "host/basics/LocalFile.h"
#include "host/content/ContentDirectory.h"
#include "host/content/ContentState.h"
#include "host/content/RangeLog.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// The bytes of a file at one moment, in a file that nobody writes to.
struct ContentSnapshot {
  std::filesystem::path path;
  std::int64_t sizeBytes = 0;
  /// Of the edits so far; what comes later has a higher number.
  std::uint64_t edits = 0;
};

/// One change of the contents. `bytes` are only looked at.
struct ContentChange {
  enum class Kind { write, resize, reserve, reserveKeepingSize };
  Kind kind;
  /// Where it is; the new length for `resize`.
  std::int64_t offset = 0;
  /// For `reserve` alone.
  std::int64_t length = 0;
  std::span<const std::byte> bytes = {};
};

class ContentFile {
 public:
  /// `state` as it was remembered; what the disk says otherwise counts (ContentRecovery.h).
  ContentFile(std::shared_ptr<ContentDirectory> directory, ContentState state);

  ContentState state() const;
  std::int64_t sizeBytes() const;
  std::string version() const;
  /// Allocated on the local disk.
  std::int64_t storedBytes() const;
  /// Neither bytes nor changes nor an empty file that was fetched.
  bool hasNothing() const;
  bool isEdited() const;
  /// 0 while there is no file.
  ContentNumber number() const;
  /// The first stretch of the existing bytes of `range` that can be fetched and is not here.
  ByteRange firstMissing(ByteRange range) const;
  /// What is here in one piece around `offset`.
  ByteRange around(std::int64_t offset) const;
  /// The file, if there is one and the existing bytes of `range` are here; else null.
  LocalFilePtr file(ByteRange range);

  /// While it is open its descriptor is kept, and it is not evicted.
  void setOpen(bool isOpen);

  /// What is fetched from now on is of this. Nothing happens unless `hasNothing()`. True if the length is another one now.
  bool startAnew(const ContentSource& source);
  /// Takes what is missing of the `range` of a fetched file (the whole file if none is given), by a rename if there is
  /// nothing yet: as contents `fresh` then. False if `version` is not what is wanted any more; then nothing is taken. The
  /// file at `path` is gone afterwards. Throws EIO if the file cannot be what it is said to be.
  bool take(const std::filesystem::path& path, std::optional<ByteRange> range,
            const std::string& version, ContentNumber fresh);

  /// The same where nothing is here at that moment, else false: a whole file is one version, whichever that is.
  bool takeAlone(const std::filesystem::path& path, std::optional<ByteRange> range,
                 const std::string& version, ContentNumber fresh);

  /// The same as `take` for bytes that came by themselves: takes those that are missing. The first ones make the file, as contents
  /// `fresh`.
  bool take(std::int64_t offset, std::span<const std::byte> bytes, const std::string& version,
            ContentNumber fresh);

  /// Makes sure of a file, as contents `fresh` if there is none, and returns the state to be committed before a change.
  /// To be followed by one of the next two.
  ContentState prepareEdit(ContentNumber fresh);
  /// It was committed: changes may come.
  void confirmEdit();
  /// The changes up to `edits` were committed otherwise, as those that make a file are: the next ones belong to them, unless
  /// there was a snapshot since.
  void remembered(std::uint64_t edits);
  /// It was not.
  void cancelEdit();

  /// Nothing of the store's version can be had any more: what is missing is zeros from now on. False if nothing is missing,
  /// or nothing is here.
  bool giveUpMissing();

  /// Whether it told anything new: other ranges or another length.
  struct Changed {
    bool state = false;
  };
  /// Changes the bytes if no edit has to be begun and nothing to be copied first; else none.
  std::optional<Changed> tryChange(const ContentChange& change);
  /// The same, copied first if need be: none if an edit has to be begun.
  std::optional<Changed> change(const ContentChange& change);
  /// Whether no edit has to be begun before a change.
  bool mayChange() const;

  /// EBUSY and the like are the caller's business; ENODATA if it is not whole. `fresh` as for `prepareEdit`.
  ContentSnapshot snapshot(ContentNumber fresh);
  void giveBack(const ContentSnapshot& snapshot);
  void sent(std::uint64_t edits, const std::string& version);

  /// Brings bytes and log to the disk.
  void flush();
  /// Drops the bytes. Throws EBUSY if it is open, edited, or an edit is being begun.
  void evict();
  /// Removes the file for good; nothing is taken any more. Who has it open keeps it.
  void discard() noexcept;

 private:
  LocalFilePtr openLocked() REQUIRES_LOCK(mutex_);
  LocalFilePtr fileToChange() REQUIRES_LOCK(changing_);
  void makeFile(ContentNumber fresh) REQUIRES_LOCK(changing_);
  bool takeWhole(const std::filesystem::path& path, std::optional<ByteRange> range,
                 const std::string& version, ContentNumber fresh) REQUIRES_LOCK(changing_);
  /// Puts the bytes of a range into the file.
  using Putter = std::function<void(int file, ByteRange range)>;
  bool takePiece(ByteRange piece, const std::string& version, ContentNumber fresh,
                 const Putter& put);
  void checkLength(std::int64_t length, ByteRange range) const;
  void unshare() REQUIRES_LOCK(changing_);
  bool isShared() const;
  Changed apply(const ContentChange& change) REQUIRES_LOCK(changing_);
  Changed write(int file, const ContentChange& change) REQUIRES_LOCK(changing_);
  Changed resize(int file, std::int64_t size) REQUIRES_LOCK(changing_);
  Changed reserve(int file, const ContentChange& change) REQUIRES_LOCK(changing_);
  void noteIfUnknown(ByteRange range) REQUIRES_LOCK(changing_);
  Changed nowHere(ByteRange range, std::int64_t size);

  // Constant.
  const std::shared_ptr<ContentDirectory> directory_;

  // Held while the file is changed; the number and whether it is edited change only under both.
  platform::Mutex changing_;
  std::unique_ptr<RangeLog> log_ GUARDED_BY(changing_);  // while there is a file
  bool editIsPrepared_ GUARDED_BY(changing_) = false;
  bool madeForEdit_ GUARDED_BY(changing_) = false;  // the file, by the edit that is prepared
  std::uint64_t notedAtPrepare_ GUARDED_BY(changing_) = 0;

  // Taken after `changing_`.
  mutable platform::Mutex mutex_;
  ContentState state_ GUARDED_BY(mutex_);
  bool isOpen_ GUARDED_BY(mutex_) = false;
  bool editMayGoOn_ GUARDED_BY(mutex_) = false;         // confirmed, and no snapshot since
  std::uint64_t snapshotEdits_ GUARDED_BY(mutex_) = 0;  // of the last snapshot
  bool isDiscarded_ GUARDED_BY(mutex_) = false;
  std::set<std::filesystem::path> otherNames_
      GUARDED_BY(mutex_);                                // snapshots that are the file itself
  LocalFilePtr file_ GUARDED_BY(mutex_);                 // while it is open
  LocalFilePtr shown_ GUARDED_BY(mutex_);                // the same with the present length
  mutable std::int64_t stored_ GUARDED_BY(mutex_) = -1;  // -1: to be looked up
};

}  // namespace kestrune::host
