#include "transfer/WholeFileDownload.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <system_error>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "namespace/FileProviderItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Directories.h"
#include "platform/files/FileHandle.h"
#include "platform/tasks/Continuation.h"
#include "platform/values/UUID.h"
#include "status/SyncStatusStore.h"

namespace kestrune {

using platform::FileAttributes;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSProgressPtr;
using platform::Task;
using platform::URL;
using platform::URLSession;

namespace {

constexpr int kLastAttempt = 3;  // counted from 0: four attempts
constexpr int kFirstErrorStatus = 400;
constexpr std::int64_t kPercentWhole = 100;
constexpr std::int64_t kPercentWhileRunning = 99;

std::int64_t percent(std::int64_t received, std::int64_t expected) {
  // In 128 bits: a hundred times a length may not fit 64.
  const auto reached = static_cast<__int128>(received) * kPercentWhole / expected;
  return static_cast<std::int64_t>(std::min<__int128>(reached, kPercentWhileRunning));
}

// The finished download at a name of its own in the temporary directory.
std::filesystem::path takeOver(const std::filesystem::path& location) {
  auto kept = platform::temporaryDirectory() / platform::newUUIDString();
  if (::rename(location.c_str(), kept.c_str()) != 0) {
    throw platform::NSPOSIXError(errno,
                                 "move '" + location.string() + "' to '" + kept.string() + "'");
  }
  return kept;
}

std::filesystem::path deliveredFile(const std::optional<std::filesystem::path>& location,
                                    const std::optional<platform::HTTPURLResponse>& response,
                                    const NSErrorPtr& error) {
  if (error) error->raise();
  if (response && response->statusCode >= kFirstErrorStatus) {
    throw NSFileProviderError(NSFileProviderError::serverUnreachable);
  }
  if (!location) throw NSFileProviderError(NSFileProviderError::serverUnreachable);
  return takeOver(*location);
}

// How a download task ended: with a file, or with an error. An error crosses from the handler's
// thread to the task's as a value; thrown, it would be one exception object on two threads.
struct DownloadEnd {
  std::filesystem::path file;
  NSErrorPtr error;
};

Task<std::filesystem::path> downloadWithProgress(std::shared_ptr<URLSession> session, URL url,
                                                 std::string transferId, NSProgressPtr progress) {
  auto begin = [&](platform::Continuation<DownloadEnd> continuation) {
    // The task is told of its own end: it ends its observation first.
    auto task = std::make_shared<std::shared_ptr<platform::URLSessionDownloadTask>>();
    *task = session->downloadTask(
        url,
        [continuation, task](const auto& location, const auto& response, const NSErrorPtr& error) {
          (*task)->invalidateObservation();
          task->reset();
          DownloadEnd end;
          try {
            end.file = deliveredFile(location, response, error);
          } catch (...) {
            end.error = platform::currentError();
          }
          continuation.resume(std::move(end));
        });
    (*task)->observe([transferId, progress](platform::DownloadCounts counts) {
      SyncStatusStore::shared().update(transferId, counts.countOfBytesReceived);
      if (counts.countOfBytesExpectedToReceive < 1) return;
      progress->setCompletedUnitCount(
          percent(counts.countOfBytesReceived, counts.countOfBytesExpectedToReceive));
    });
    const auto started = *task;  // the handler may drop the task before `resume` returns
    started->resume();
  };
  DownloadEnd end = co_await platform::suspendUntilResumed<DownloadEnd>(begin);
  if (end.error) end.error->raise();
  co_return std::move(end.file);
}

// One attempt, with a fresh address.
Task<std::filesystem::path> attemptDownload(std::string path, std::string transferId,
                                            NSProgressPtr progress,
                                            std::shared_ptr<URLSession> session) {
  PresignResponse presigned = co_await KestruneAPI::presignDownload(path);
  auto url = URL::parse(presigned.url);
  if (!url) throw NSFileProviderError(NSFileProviderError::serverUnreachable);
  co_return co_await downloadWithProgress(std::move(session), std::move(*url),
                                          std::move(transferId), std::move(progress));
}

// Attempts until one succeeds; throws the last one's error.
Task<std::filesystem::path> downloadWithRetries(std::string path, std::string transferId,
                                                NSProgressPtr progress,
                                                std::shared_ptr<URLSession> session,
                                                std::shared_ptr<platform::Sleeper> sleeper) {
  for (int attempt = 0;; ++attempt) {
    NSErrorPtr failure;
    try {
      std::filesystem::path file = co_await attemptDownload(path, transferId, progress, session);
      co_return file;
    } catch (...) {
      failure = platform::currentError();
    }
    if (attempt == kLastAttempt) failure->raise();
    const std::chrono::seconds delay(1LL << attempt);
    fpLog().write(platform::LogLevel::standard,
                  "fetchContents attempt %ld failed \xE2\x80\x94 retrying in %.*fs (%{public}s)",
                  attempt + 1, 1, static_cast<double>(delay.count()),
                  failure->localizedDescription());
    co_await sleeper->sleep(delay);
  }
}

FileAttributes attributesOrRemove(const std::filesystem::path& file) {
  try {
    return platform::attributesOfFile(file);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
    throw;
  }
}

// The size that the parent's listing gives for the file; 0 where it does not name it.
Task<std::int64_t> expectedSize(ItemLocation location) {
  auto entries = co_await KestruneAPI::list(location.parent);
  const auto* entry = findEntry(entries, location.name);
  co_return entry != nullptr ? entry->size : 0;
}

}  // namespace

Task<void> runWholeFileDownload(WholeFileDownload download) {
  const std::string transferId = platform::newUUIDString();
  auto& status = SyncStatusStore::shared();
  std::filesystem::path file;
  std::shared_ptr<FileProviderItem> item;
  NSErrorPtr failure;
  bool registered = false;
  try {
    ItemLocation location(download.path);
    const std::int64_t expected = co_await expectedSize(std::move(location));
    status.begin(transferId, download.path, expected, SyncTransfer::Direction::download);
    registered = true;
    file = co_await downloadWithRetries(download.path, transferId, download.progress,
                                        download.session, download.sleeper);
    const FileAttributes local = attributesOrRemove(file);
    item = std::make_shared<FileProviderItem>(download.path, false, local.size, local.modified);
    download.progress->setCompletedUnitCount(kPercentWhole);
    status.update(transferId, local.size);
  } catch (...) {
    failure = platform::currentError();
  }
  // Answered outside of the try: nothing that a handler does may bring it a second call.
  if (failure) {
    if (registered) status.finish(transferId);
    download.completionHandler(std::nullopt, nullptr, failure);
  } else {
    download.completionHandler(file, std::move(item), nullptr);
    status.finish(transferId);
  }
}

}  // namespace kestrune
