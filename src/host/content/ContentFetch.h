// One question to the extension for a file's bytes, whole or in part, and its one answer: a file, or, from an extension that
// streams, the bytes as they arrive and then the news of their end.
//
// Threads: every operation may be called from any thread. The extension is called, bytes are handed on and the reply is given
// on the shared executor or a thread of the extension; never inside `start`, and without a lock held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/basics/Answer.h"
#include "host/content/ContentState.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// How an extension hands over parts of files; none if there is no extension.
enum class PartFetching { none, asFiles, asStreams };
PartFetching partFetchingOf(platform::NSFileProviderReplicatedExtension* extension);

/// A file that the extension handed over. It is removed with the last copy unless somebody has moved it away. Of a stream
/// there is no file; the item says what the store has now, if that is not what was asked for.
struct FetchedFile {
  std::shared_ptr<const std::filesystem::path> path;
  platform::NSFileProviderItemPtr item;
  /// Which bytes are present; none: all.
  std::optional<ByteRange> range;

  std::string contentVersion() const;
};

/// The extension says that the version that it was asked for is there no more.
bool isVersionGone(const platform::NSError& error);

class ContentFetch : public std::enable_shared_from_this<ContentFetch> {
 public:
  /// The ends of what is asked for as a file are multiples of this.
  static constexpr std::int64_t kAlignment = 1 << 20;

  /// Takes the bytes from `offset` on, which follow those of the call before. False: no more are wanted.
  using Taker = std::function<bool(std::int64_t offset, std::span<const std::byte> bytes)>;

  ContentFetch(std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension,
               ContentSource source)
      : extension_(std::move(extension)), source_(std::move(source)) {}

  /// Asks, once: for at least `range`, or for the whole file if none is given or the extension knows no parts. Answers once
  /// whatever the extension does, with an error if there is no usable file. Where the extension streams, `taker` gets the
  /// bytes of exactly `range` before the answer, one call at a time.
  void start(std::optional<ByteRange> range, Taker taker, Reply<FetchedFile> reply);
  /// Asks the extension to stop. It may finish all the same.
  void cancel();

 private:
  platform::NSProgressPtr call(std::optional<ByteRange> range, Taker taker,
                               Reply<FetchedFile> reply);
  platform::NSProgressPtr stream(ByteRange range, Taker taker, Reply<FetchedFile> reply);

  const std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension_;
  const ContentSource source_;
  platform::Mutex mutex_;
  platform::NSProgressPtr progress_ GUARDED_BY(mutex_);
  bool isCancelled_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
