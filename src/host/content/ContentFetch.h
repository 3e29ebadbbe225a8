// One question to the extension for a file's bytes, whole or in part, and its one answer.
//
// Threads: every operation may be called from any thread. The extension is called, and the reply given, on the shared
// executor or a thread of the extension; never inside `start`, and without a lock held.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

#include "host/basics/Answer.h"
#include "host/content/ContentState.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

/// A file that the extension handed over. It is removed with the last copy unless somebody has moved it away.
struct FetchedFile {
  std::shared_ptr<const std::filesystem::path> path;
  platform::NSFileProviderItemPtr item;
  /// Which bytes are present; none: all.
  std::optional<ByteRange> range;

  std::string contentVersion() const;
};

class ContentFetch : public std::enable_shared_from_this<ContentFetch> {
 public:
  /// The ends of what is asked for in part are multiples of this.
  static constexpr std::int64_t kAlignment = 1 << 20;

  ContentFetch(std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension,
               ContentSource source)
      : extension_(std::move(extension)), source_(std::move(source)) {}

  /// Asks, once: for at least `range`, or for the whole file if none is given or the extension knows no parts. Answers once
  /// whatever the extension does, with an error if there is no usable file.
  void start(std::optional<ByteRange> range, Reply<FetchedFile> reply);
  /// Asks the extension to stop. It may finish all the same.
  void cancel();

 private:
  platform::NSProgressPtr call(std::optional<ByteRange> range, Reply<FetchedFile> reply);

  const std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension_;
  const ContentSource source_;
  platform::Mutex mutex_;
  platform::NSProgressPtr progress_ GUARDED_BY(mutex_);
  bool isCancelled_ GUARDED_BY(mutex_) = false;
};

}  // namespace kestrune::host
