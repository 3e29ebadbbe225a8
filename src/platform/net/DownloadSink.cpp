#include "platform/net/DownloadSink.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/files/Directories.h"
#include "platform/tasks/Task.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {

namespace {

constexpr std::size_t kGatherBytes = 1U << 20U;
// The disk is started early: a gigabyte of unwritten pages would be written when somebody waits for
// it.
constexpr std::int64_t kPushOutBytes = 16 << 20;
// Observers are told about 20 times a second.
constexpr std::chrono::milliseconds kTellInterval(50);

[[noreturn]] void throwFileError(URLError::Code code, const std::string& what,
                                 const std::filesystem::path& path) {
  const int error = errno;
  throw URLError(code, what + " '" + path.string() + "': " + errnoText(error));
}

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
    const auto delivered = location.empty() || error ? std::nullopt : std::optional(location);
    handler(delivered, response, error);
    std::error_code ignored;  // moved away by the handler, or never made
    if (!location.empty()) std::filesystem::remove(location, ignored);
  };
  boost::asio::post(sharedExecutor(), std::move(run));
}

DownloadSink::~DownloadSink() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

void DownloadSink::createFile() {
  location_ = temporaryDirectory() / ("download-" + newUUIDString());
  descriptor_ =
      ::open(location_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor_ < 0) {
    const int error = errno;
    const std::string name = std::exchange(location_, {}).string();
    throw URLError(URLError::cannotCreateFile, "create '" + name + "': " + errnoText(error));
  }
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
  std::string_view rest = gathered_;
  while (!rest.empty()) {
    const ssize_t wrote = ::write(descriptor_, rest.data(), rest.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) throwFileError(URLError::cannotWriteToFile, "write", location_);
    rest.remove_prefix(static_cast<std::size_t>(wrote));
  }
  written_ += static_cast<std::int64_t>(gathered_.size());
  gathered_.clear();
#if defined(__linux__)
  if (written_ - pushedOut_ >= kPushOutBytes) {
    ::sync_file_range(descriptor_, pushedOut_, written_ - pushedOut_, SYNC_FILE_RANGE_WRITE);
    pushedOut_ = written_;
  }
#endif
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
  try {
    if (!error) writeGathered();
  } catch (...) {
    error = std::current_exception();
  }
  if (descriptor_ >= 0 && ::close(std::exchange(descriptor_, -1)) != 0 && !error) {
    error = std::make_exception_ptr(URLError(
        URLError::cannotWriteToFile, "close '" + location_.string() + "': " + errnoText(errno)));
  }
  if (counts_.countOfBytesReceived != toldBytes_) tellObserver();
  task_->complete(location_, answered_ ? std::optional(response_) : std::nullopt, errorFrom(error));
}

}  // namespace kestrune::platform
