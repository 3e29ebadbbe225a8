// The contents of one file: bytes that are here, fetched when they are missed, changed by programs, handed out as snapshots.
//
//   nothing here ──▶ some ranges here ──▶ whole        fetched, for one version of the store
//         └──────────────┴────────────────┴──▶ edited  written here; sent from snapshots until nothing is newer
//
// Rules
// - All bytes fetched are of `state().version`. What a fetch brings of another version is thrown away and `versionGone` is
//   told; readers who wait get ESTALE if the object has changes or bytes, else the object starts anew with what can be
//   fetched now.
// - Bytes written here are never overwritten by fetched ones.
// - One fetch per range: who misses bytes that are on their way waits for them. Files up to kWholeFetchBytes, and all files
//   of an extension that has no partial fetching, are fetched whole; of larger ones what is missing around the read. From an
//   extension that streams, bytes are answered as they come.
// - While a reader goes on from where the one before ended and is in the last quarter of what is here, or comes, in one
//   piece (of one beyond 128 MiB: in its last 32 MiB), the next range is asked for already.
// - A failure answers those who wait, and for a second whoever misses the same file's bytes: the kernel repeats failed
//   reads by itself. Then the next read tries again.
// - When nobody has the file open, and nobody filled it on purpose, a running fetch is cancelled.
// - The first change after a clean state or a snapshot is told by `willEdit` and waits until that is committed; so no edit
//   can be forgotten by a crash. Later ones only write.
//
// Threads: every operation may be called from any thread; replies come on any thread, without a lock held. Reads and writes of
// what is here block for the local disk only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "host/basics/Answer.h"
#include "host/basics/LocalFile.h"
#include "host/basics/NodeId.h"
#include "host/content/ContentChanges.h"
#include "host/content/ContentFile.h"
#include "host/content/ContentReads.h"
#include "host/content/ContentState.h"
#include "host/content/FileObjectServices.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class FileObject {
 public:
  using Snapshot = ContentSnapshot;

  static constexpr std::int64_t kWholeFetchBytes = ContentReads::kWholeFetchBytes;
  static constexpr std::chrono::seconds kFailureHolds = ContentReads::kFailureHolds;

  /// `state`: as it was remembered; number 0 if nothing of it is here. What is not on the disk counts as not here; of a
  /// file with changes all that is left is kept (ContentRecovery.h). Looks at the disk; throws NSPOSIXError.
  FileObject(std::shared_ptr<const FileObjectServices> services, InodeNumber item,
             ContentState state);
  /// Removes the file if it may go and is not gone.
  ~FileObject();
  FileObject(const FileObject&) = delete;
  FileObject& operator=(const FileObject&) = delete;

  ContentState state() const;
  std::int64_t sizeBytes() const;
  /// The bytes that are allocated for it on the local disk.
  std::int64_t storedBytes() const;

  /// Counts those who have the file open. `closed` REQUIRES an `opened` before.
  void opened(bool forWriting);
  void closed(bool forWriting);
  bool isOpen() const;
  bool isOpenForWriting() const;

  /// The file, if the bytes that exist of [offset, offset + length) are here and it is open; else null. `sizeBytes` of the
  /// answer is the length that counts for this read.
  LocalFilePtr present(std::int64_t offset, std::size_t length);
  /// The same, fetched if need be, open or not. `mayFetch` false: ENODATA instead of a fetch.
  void read(std::int64_t offset, std::size_t length, bool mayFetch,
            const Reply<LocalFilePtr>& reply);
  /// All bytes in one file that nobody writes to at present; null if that is not so.
  LocalFilePtr whole() const;

  /// The changes up to `edits` are in the database: those that follow need not wait for it until there is a snapshot.
  void remembered(std::uint64_t edits) { content_->remembered(edits); }
  /// `bytes` need not outlive the call.
  void write(std::int64_t offset, std::span<const std::byte> bytes, const Reply<Done>& reply);
  /// Cuts or extends with zeros.
  void resize(std::int64_t sizeBytes, const Reply<Done>& reply);
  /// Sees to it that there is room on the disk; extends unless `keepsSize`.
  void reserve(std::int64_t offset, std::int64_t length, bool keepsSize, const Reply<Done>& reply);
  /// Flushes the bytes to the disk, on a thread of its own; state is the caller's business.
  void flushToDisk(Reply<Done> reply);

  /// Has what is here remembered now, not some time soon.
  void tellState() { services_->changed(item_, content_->state()); }

  /// Fetches all that is missing, open or not.
  void fill(Reply<Done> reply);

  /// The bytes as they are now, whole. Answers EAGAIN while a change is being begun, EBUSY while the file is open for
  /// writing, ENODATA if it is not whole (`fill` first). `giveBack` once per snapshot.
  Answer<Snapshot> snapshot();
  void giveBack(const Snapshot& snapshot);

  /// The store has the edits up to `edits` as `version`. If there are no later ones, the file is unchanged from now on.
  void sent(std::uint64_t edits, const std::string& version);

  /// Drops the bytes and keeps the object. Throws EBUSY if it is open, edited or being filled.
  void evict();
  /// The item has another version at the store, or is gone: nothing is fetched for this object any more; who has it open
  /// finishes on what is here (ESTALE for the rest, and for changes). No input or output: may be called with locks held.
  void abandon();
  /// That it was abandoned is remembered: its file goes, with the last who has it open. Until then a crash finds it under
  /// the name that it had.
  void mayGo();

 private:
  // Constant.
  const std::shared_ptr<const FileObjectServices> services_;
  const InodeNumber item_;
  const std::shared_ptr<ContentFile> content_;
  const std::shared_ptr<ContentReads> reads_;
  const std::shared_ptr<ContentChanges> changes_;

  // Taken before the locks of the parts.
  mutable platform::Mutex mutex_;
  std::size_t openCount_ GUARDED_BY(mutex_) = 0;
  std::size_t writerCount_ GUARDED_BY(mutex_) = 0;
  bool mayGo_ GUARDED_BY(mutex_) = false;
};

using FileObjectPtr = std::shared_ptr<FileObject>;

}  // namespace kestrune::host
