#include "platform/net/DownloadSink.h"

#include <boost/asio/post.hpp>
#include <system_error>
#include <utility>

#include "platform/files/Directories.h"
#include "platform/tasks/Task.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {

namespace {

constexpr std::size_t kGatherBytes = 256U << 10U;
// Observers are told about 20 times a second.
constexpr std::chrono::milliseconds kTellInterval(50);

}  // namespace

URLSessionDownloadTask::Implementation::Implementation(std::shared_ptr<CurlDriver> driver, URL url,
                                                       URLSessionConfiguration configuration,
                                                       CompletionHandler completionHandler)
    : driver_(std::move(driver)),
      request_(std::move(url)),
      configuration_(configuration),
      completionHandler_(std::move(completionHandler)) {}

void URLSessionDownloadTask::Implementation::setObserver(Observer observer) {
  MutexLock lock(observing_);
  observer_ = std::move(observer);
}

void URLSessionDownloadTask::Implementation::clearObserver() {
  MutexLock lock(observing_);
  observer_ = nullptr;
}

void URLSessionDownloadTask::Implementation::start(const std::shared_ptr<Implementation>& self) {
  auto transfer = std::make_shared<Transfer>(request_, configuration_, nullptr,
                                             std::make_unique<DownloadSink>(self));
  {
    MutexLock lock(mutex_);
    transfer_ = transfer;
  }
  driver_->add(std::move(transfer));
}

void URLSessionDownloadTask::Implementation::cancel() {
  std::shared_ptr<Transfer> transfer;
  {
    MutexLock lock(mutex_);
    transfer = transfer_.lock();
  }
  if (transfer) driver_->cancel(std::move(transfer));
}

void URLSessionDownloadTask::Implementation::tell(DownloadCounts counts) {
  MutexLock lock(observing_);
  if (observer_) observer_(counts);
}

void URLSessionDownloadTask::Implementation::complete(std::filesystem::path location,
                                                      std::optional<HTTPURLResponse> response,
                                                      NSErrorPtr error) {
  CompletionHandler handler;
  {
    MutexLock lock(mutex_);
    handler = std::exchange(completionHandler_, nullptr);
  }
  if (!handler) return;
  auto run = [handler = std::move(handler), location = std::move(location),
              response = std::move(response), error = std::move(error)] {
    std::error_code ignored;  // moved away by the handler, or never made
    const auto remove = [&] {
      if (!location.empty()) std::filesystem::remove(location, ignored);
    };
    if (error) remove();  // nothing is left behind when the handler hears of it
    handler(location.empty() || error ? std::nullopt : std::optional(location), response, error);
    remove();
  };
  boost::asio::post(sharedExecutor(), std::move(run));
}

void DownloadSink::createFile() {
  const auto location = temporaryDirectory() / ("download-" + newUUIDString());
  try {
    file_.emplace(FileHandle::forWritingNew(location));
  } catch (const NSPOSIXError& error) {
    throw URLError(URLError::cannotCreateFile, error.localizedDescription());
  }
  location_ = location;
}

void DownloadSink::didReceiveResponse(const HTTPURLResponse& response, std::int64_t expectedBytes) {
  response_ = response;
  answered_ = true;
  counts_.countOfBytesExpectedToReceive = expectedBytes;
  createFile();
  // The file's blocks are not reserved ahead: measured, reserved blocks that are written back while
  // more arrive cost more than blocks that are found as they are written.
  if (expectedBytes >= static_cast<std::int64_t>(kGatherBytes)) gathered_.reserve(kGatherBytes);
}

TransferSink::Take DownloadSink::didReceiveData(std::string_view bytes) {
  gathered_.append(bytes);
  counts_.countOfBytesReceived += static_cast<std::int64_t>(bytes.size());
  if (gathered_.size() >= kGatherBytes) writeGathered();
  return Take::taken;
}

void DownloadSink::writeGathered() {
  try {
    file_->write(gathered_);
  } catch (const NSPOSIXError& error) {
    throw URLError(URLError::cannotWriteToFile, error.localizedDescription());
  }
  gathered_.clear();
}

void DownloadSink::turnEnded() {
  if (counts_.countOfBytesReceived == toldBytes_) return;
  if (std::chrono::steady_clock::now() - toldAt_ >= kTellInterval) tellObserver();
}

void DownloadSink::tellObserver() {
  toldAt_ = std::chrono::steady_clock::now();
  toldBytes_ = counts_.countOfBytesReceived;
  task_->tell(counts_);
}

void DownloadSink::didEnd(std::exception_ptr error) {
  if (file_) {
    try {
      if (!error) writeGathered();
      file_->close();
    } catch (const NSPOSIXError& failure) {
      if (!error) {
        error = std::make_exception_ptr(
            URLError(URLError::cannotWriteToFile, failure.localizedDescription()));
      }
    } catch (...) {
      error = std::current_exception();
    }
    file_.reset();
  }
  if (counts_.countOfBytesReceived != toldBytes_) tellObserver();
  task_->complete(location_, answered_ ? std::optional(response_) : std::nullopt, errorFrom(error));
}

}  // namespace kestrune::platform
