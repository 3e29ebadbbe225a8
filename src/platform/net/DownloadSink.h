// Writes an answer to a new file of the temporary directory and tells an observer how far it is.
// Used by URLSession alone.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/files/FileHandle.h"
#include "platform/net/CurlDriver.h"
#include "platform/net/Transfer.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

/// What a download task and its transfer share.
class URLSessionDownloadTask::Implementation {
 public:
  Implementation(std::shared_ptr<CurlDriver> driver, URL url, URLSessionConfiguration configuration,
                 CompletionHandler completionHandler);

  void setObserver(Observer observer);
  /// Waits for a running observer.
  void clearObserver();
  /// REQUIRES: called once. `self` is this, kept by the transfer.
  void start(const std::shared_ptr<Implementation>& self);
  void cancel();

  // From the sink, on the driver thread.
  void tell(DownloadCounts counts);
  /// Calls the completion handler on the shared executor and removes the file that it leaves
  /// behind.
  void complete(std::filesystem::path location, std::optional<HTTPURLResponse> response,
                NSErrorPtr error);

 private:
  const std::shared_ptr<CurlDriver> driver_;
  const URLRequest request_;
  const URLSessionConfiguration configuration_;

  Mutex observing_;  // held while the observer runs
  Observer observer_ GUARDED_BY(observing_);

  Mutex mutex_;
  std::weak_ptr<Transfer> transfer_ GUARDED_BY(mutex_);
  CompletionHandler completionHandler_ GUARDED_BY(mutex_);
};

class DownloadSink final : public TransferSink {
 public:
  explicit DownloadSink(std::shared_ptr<URLSessionDownloadTask::Implementation> task)
      : task_(std::move(task)) {}

  void didReceiveResponse(const HTTPURLResponse& response, std::int64_t expectedBytes) override;
  Take didReceiveData(std::string_view bytes) override;
  void turnEnded() override;
  void didEnd(std::exception_ptr error) override;

 private:
  void createFile();
  void writeGathered();
  void tellObserver();

  std::shared_ptr<URLSessionDownloadTask::Implementation> task_;
  HTTPURLResponse response_;
  bool answered_ = false;
  std::filesystem::path location_;
  std::optional<FileHandle> file_;
  // Bytes are gathered before a write: libcurl hands over at most 16 KiB at once, and writing those
  // costs three times as much a gigabyte.
  std::string gathered_;
  DownloadCounts counts_;
  std::int64_t toldBytes_ = 0;
  std::chrono::steady_clock::time_point toldAt_;
};

}  // namespace kestrune::platform
