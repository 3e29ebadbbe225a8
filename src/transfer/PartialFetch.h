// Fetches a byte range of one file into a new sparse file of the remote file's whole length. The
// range is aligned and enlarged by what the prefetch tracker advises, and fetched with one request
// a try: up to six attempts with growing pauses, each with a fresh address and from the first
// missing byte on.
//
// The body goes to the file in buffers of 1 MiB, and that is all that is held of it: where the disk
// is slower than the network, the network waits. Bytes that were written stay when an attempt
// fails; those still in the buffer are fetched again.
//
// Threads: the task runs on the shared executor; several fetches may run at once, also of one file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "transfer/PrefetchTracker.h"

namespace kestrune {

/// What one fetch works with. All of it is kept until the task ends.
struct PartialFetch {
  /// Names the file for the prefetch tracker.
  platform::NSFileProviderItemIdentifier identifier;
  /// The remote path of the file.
  std::string path;
  /// What was asked for, in bytes. It may lie beyond the file; nothing is fetched then.
  platform::NSRange requested;
  /// Both ends of what is fetched are multiples of this (at least 4096), or the file's end.
  std::int64_t alignment = 0;
  /// In the status store.
  std::string transferId;
  /// Counts bytes, up to the requested length.
  platform::NSProgressPtr progress;
  std::shared_ptr<platform::URLSession> session;
  std::shared_ptr<platform::Sleeper> sleeper;
  std::shared_ptr<PrefetchTracker> prefetcher;
  /// Called exactly once, from the task: with the file (the receiver's from then on), its item and
  /// the range that is present; or with an error.
  platform::NSFileProviderPartialContentFetching::PartialContentsHandler completionHandler;
};

/// Runs one fetch to its end. The task fails with nothing: every error goes to the completion
/// handler, as it is. NSFileProviderError noSuchItem: the parent's listing does not name the file;
/// serverUnreachable: an unusable address, or a storage answer other than 200 and 206. An overflow
/// of the offsets ends the process.
platform::Task<void> runPartialFetch(PartialFetch fetch);

/// The bytes [start, end) that are fetched for a request. `end` may lie before `start` when the
/// request does not meet the file.
struct FetchedRange {
  std::int64_t start = 0;
  std::int64_t end = 0;
  bool operator==(const FetchedRange&) const = default;
};

/// Aligns and enlarges a request by `readAhead` bytes, within a file of `fileSize` bytes. Ends the
/// process where an offset does not fit 64 bits.
FetchedRange sizedRange(platform::NSRange requested, std::int64_t alignment, std::int64_t readAhead,
                        std::int64_t fileSize);

}  // namespace kestrune
