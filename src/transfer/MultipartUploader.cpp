#include "transfer/MultipartUploader.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "config/Loggers.h"
#include "platform/files/FileHandle.h"
#include "platform/net/URL.h"
#include "platform/tasks/Patience.h"
#include "platform/tasks/TaskGroup.h"
#include "platform/values/Checked.h"
#include "platform/values/Mutex.h"
#include "transfer/PartReader.h"

namespace kestrune {

using platform::FileHandle;
using platform::LogLevel;
using platform::NSErrorPtr;
using platform::Task;
using platform::TaskGroup;
using platform::URL;
using PartResult = MultipartUploader::PartResult;

namespace {

constexpr std::chrono::seconds kPartTimeout(60);
constexpr std::chrono::seconds kAbortPatience(5);
constexpr int kFirstSuccessStatus = 200;
constexpr int kLastSuccessStatus = 299;
constexpr std::int64_t kPercentWhole = 100;
constexpr std::int64_t kPercentWhileRunning = 99;

std::int64_t partCount(std::int64_t size) {
  const std::int64_t raised =
      platform::addOrDie(size, MultipartUploader::kPartBytes, "the size of an upload");
  return (raised - 1) / MultipartUploader::kPartBytes;
}

// What the part tasks of one upload share.
struct OpenUpload {
  OpenUpload(std::int64_t sizeBytes, DirectMultipartInitResponse response, FileHandle file,
             std::shared_ptr<platform::NSProgress> uploadProgress,
             std::shared_ptr<platform::URLSession> transferSession)
      : size(sizeBytes),
        opened(std::move(response)),
        progress(std::move(uploadProgress)),
        session(std::move(transferSession)),
        reader(std::move(file)) {}

  const std::int64_t size;
  const DirectMultipartInitResponse opened;
  const std::shared_ptr<platform::NSProgress> progress;
  const std::shared_ptr<platform::URLSession> session;
  PartReader reader;

  FilePart part(std::int64_t number) const {
    const std::int64_t offset = (number - 1) * MultipartUploader::kPartBytes;
    return {number, offset, std::min(size - offset, MultipartUploader::kPartBytes)};
  }

  void partIsSent(std::int64_t bytes) {
    platform::MutexLock lock(mutex_);
    sent_ += bytes;
    const std::int64_t percent =
        platform::multiplyOrDie(sent_, kPercentWhole, "the progress of an upload") /
        std::max<std::int64_t>(size, 1);
    // Under the lock, so that the count never falls.
    progress->setCompletedUnitCount(std::min(percent, kPercentWhileRunning));
  }

 private:
  platform::Mutex mutex_;
  std::int64_t sent_ GUARDED_BY(mutex_) = 0;
};

PartResult resultOf(std::int64_t number, const platform::HTTPURLResponse& response) {
  if (response.statusCode < kFirstSuccessStatus || response.statusCode > kLastSuccessStatus) {
    throw MPError::partFailed(number, "HTTP " + std::to_string(response.statusCode));
  }
  auto etag = response.valueForHTTPHeaderField("ETag");
  if (!etag) throw MPError::partFailed(number, "missing ETag");
  return {number, std::move(*etag)};
}

Task<PartResult> sendPart(std::shared_ptr<OpenUpload> upload, std::int64_t number) {
  const FilePart part = upload->part(number);
  auto bytes = co_await upload->reader.read(part);
  const std::string address = co_await KestruneAPI::directMultipartPartURL(
      upload->opened.key, upload->opened.s3UploadId, number);
  auto url = URL::parse(address);
  if (!url) throw MPError::partFailed(number, "invalid url");
  platform::URLRequest request(std::move(*url));
  request.httpMethod = "PUT";  // the session says how long the body is
  request.timeoutInterval = kPartTimeout;
  const auto reply = co_await upload->session->uploadFromData(std::move(request), std::move(bytes));
  PartResult result = resultOf(number, reply.response);
  upload->partIsSent(part.length);
  co_return result;
}

// Keeps as many parts in flight as are allowed, begun in their order. The pointers outlive the
// task: whoever awaits it owns what they point to.
Task<void> sendInOrder(TaskGroup<PartResult>* group, std::shared_ptr<OpenUpload> upload,
                       std::vector<PartResult>* results) {
  const std::int64_t count = partCount(upload->size);
  std::int64_t started = 0;
  while (started < std::min(count, MultipartUploader::kPartsInFlight)) {
    group->add(sendPart(upload, ++started));
  }
  for (;;) {
    auto result = co_await group->next();
    if (!result) break;
    results->push_back(std::move(*result));
    if (started < count) group->add(sendPart(upload, ++started));
  }
}

Task<std::vector<PartResult>> sendParts(std::shared_ptr<OpenUpload> upload) {
  std::vector<PartResult> results;
  auto body = [&upload, &results](TaskGroup<PartResult>& group) {
    return sendInOrder(&group, upload, &results);
  };
  co_await platform::withTaskGroup<PartResult>(body);
  std::ranges::sort(results, {}, &PartResult::partNumber);
  co_return results;
}

Task<void> completeAndImport(DirectMultipartInitResponse opened, std::string destPath,
                             std::vector<PartResult> results) {
  NSErrorPtr failure;
  try {
    co_await KestruneAPI::directMultipartComplete(opened.key, opened.s3UploadId,
                                                  std::move(results));
    co_await KestruneAPI::directImport(opened.key, std::move(destPath));
  } catch (...) {
    failure = platform::currentError();
  }
  if (failure) throw MPError::completeFailed(failure->localizedDescription());
}

FileHandle openSource(const std::filesystem::path& srcURL) {
  try {
    return FileHandle::forReading(srcURL);
  } catch (const platform::NSError&) {
    throw MPError::readFailed(srcURL.string());
  }
}

Task<DirectMultipartInitResponse> openUpload(std::string destPath) {
  NSErrorPtr failure;
  try {
    DirectMultipartInitResponse opened =
        co_await KestruneAPI::directMultipartInit(std::move(destPath));
    co_return opened;
  } catch (...) {
    failure = platform::currentError();
  }
  throw MPError::initFailed(failure->localizedDescription());
}

// Everything between the opening and the end, whose failures want an abort.
Task<void> fillAndImport(DirectMultipartInitResponse opened, std::filesystem::path srcURL,
                         std::int64_t size, std::string destPath,
                         std::shared_ptr<platform::NSProgress> progress,
                         std::shared_ptr<platform::URLSession> session) {
  auto upload = std::make_shared<OpenUpload>(size, opened, openSource(srcURL), std::move(progress),
                                             std::move(session));
  auto results = co_await sendParts(upload);
  co_await completeAndImport(std::move(opened), std::move(destPath), std::move(results));
}

}  // namespace

Task<void> MultipartUploader::upload(std::filesystem::path srcURL, std::int64_t size,
                                     std::string destPath,
                                     std::shared_ptr<platform::NSProgress> progress,
                                     std::shared_ptr<platform::URLSession> session) {
  mpLog().write(LogLevel::standard, "begin size=%lld parts=%ld destPath=%{public}s", size,
                partCount(size), destPath);
  DirectMultipartInitResponse opened = co_await openUpload(destPath);
  mpLog().write(LogLevel::standard, "s3UploadId=%{public}s key=%{public}s", opened.s3UploadId,
                opened.key);
  NSErrorPtr failure;
  try {
    co_await fillAndImport(opened, std::move(srcURL), size, destPath, progress, std::move(session));
  } catch (...) {
    failure = platform::currentError();
  }
  if (failure) {
    auto abort = KestruneAPI::directMultipartAbort(opened.key, opened.s3UploadId);
    co_await platform::startAndWaitAtMost(kAbortPatience, "multipart abort", std::move(abort));
    failure->raise();
  }
  progress->setCompletedUnitCount(kPercentWhole);
  mpLog().write(LogLevel::standard, "done destPath=%{public}s", destPath);
}

}  // namespace kestrune
