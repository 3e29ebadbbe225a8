#include "extension/CreateItem.h"

#include <algorithm>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "extension/SingleUpload.h"
#include "namespace/FileProviderItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/FileHandle.h"
#include "platform/values/Checked.h"
#include "platform/values/UUID.h"
#include "status/SyncStatusStore.h"
#include "transfer/MultipartUploader.h"

namespace kestrune {

using platform::LogLevel;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSFileProviderItemFields;
using platform::NSProgress;
using platform::Task;

namespace {

constexpr std::int64_t kPercentWhole = 100;
constexpr double kLeastElapsedSeconds = 0.001;

// A transfer in the status store, from its registration on. Where the file goes in parts, the
// progress moves with them, and the store with the progress.
class UploadRecord {
 public:
  UploadRecord(const std::string& path, std::int64_t size, NSProgress& progress)
      : id_(platform::newUUIDString()) {
    SyncStatusStore::shared().begin(id_, path, size, SyncTransfer::Direction::upload);
    observation_ = progress.observe([id = id_, size](const NSProgress::Snapshot& snapshot) {
      const double bytes = snapshot.fractionCompleted() * static_cast<double>(size);
      SyncStatusStore::shared().update(id,
                                       platform::truncateOrDie(bytes, "the progress of an upload"));
    });
  }
  UploadRecord(const UploadRecord&) = delete;
  UploadRecord& operator=(const UploadRecord&) = delete;
  ~UploadRecord() {
    observation_.invalidate();
    SyncStatusStore::shared().finish(id_);
  }

  const std::string& id() const { return id_; }

 private:
  const std::string id_;
  NSProgress::Observation observation_;
};

Task<void> uploadInOneRequest(std::filesystem::path contents, std::string path, std::int64_t size,
                              std::string transferId,
                              std::shared_ptr<platform::URLSession> session) {
  DirectPresignResponse presigned = co_await KestruneAPI::directPresignUpload(path);
  co_await putFile(std::move(session), presigned.url, std::move(contents));
  SyncStatusStore::shared().update(std::move(transferId), size);
  co_await KestruneAPI::directImport(std::move(presigned.key), std::move(path));
}

// Size of the local file, which is there.
std::int64_t sizeOf(const Creation& creation) {
  if (!creation.contents) throw NSFileProviderError(NSFileProviderError::noSuchItem);
  const std::int64_t size = platform::attributesOfFile(*creation.contents).size;
  fpLog().write(LogLevel::standard, "createItem uploading %lld bytes", size);
  return size;
}

Task<void> uploadContents(std::shared_ptr<const Creation> creation, std::int64_t size,
                          std::string transferId) {
  const std::filesystem::path& contents = creation->contents.value();
  if (size < kSingleUploadLimitBytes) {
    return uploadInOneRequest(contents, creation->path, size, std::move(transferId),
                              creation->session);
  }
  return MultipartUploader::upload(contents, size, creation->path, creation->progress,
                                   creation->session);
}

void logDone(const Creation& creation, std::int64_t size) {
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - creation.start;
  const double mebibytes = static_cast<double>(size) * (1.0 / 1024) * (1.0 / 1024);
  fpLog().write(LogLevel::standard, "createItem done %lld bytes in %.*fs (%.*f MB/s)", size, 2,
                elapsed.count(), 1, mebibytes / std::max(elapsed.count(), kLeastElapsedSeconds));
}

void succeed(const Creation& creation, std::int64_t size) {
  auto item =
      std::make_shared<FileProviderItem>(creation.path, creation.isDir, size, platform::dateNow());
  creation.progress->setCompletedUnitCount(kPercentWhole);
  creation.completionHandler(std::move(item), NSFileProviderItemFields::none, false, nullptr);
}

void fail(const Creation& creation, const NSErrorPtr& failure) {
  fpLog().write(LogLevel::error, "createItem failed name=%{public}s err=%{public}s", creation.name,
                failure->localizedDescription());
  creation.completionHandler(nullptr, NSFileProviderItemFields::none, false, failure);
}

Task<NSErrorPtr> makeFolder(std::string path) {
  try {
    co_await KestruneAPI::mkdir(std::move(path));
  } catch (...) {
    co_return platform::currentError();
  }
  co_return nullptr;
}

Task<void> createFolder(std::shared_ptr<const Creation> creation) {
  const NSErrorPtr failure = co_await makeFolder(creation->path);
  if (failure) {
    fail(*creation, failure);
  } else {
    succeed(*creation, 0);
  }
}

// Answered outside of the try: nothing that a handler does may bring it a second call. A success is
// told while the transfer is still registered, a failure when it no longer is.
Task<void> createFile(std::shared_ptr<const Creation> creation) {
  std::optional<UploadRecord> record;
  std::int64_t size = 0;
  NSErrorPtr failure;
  try {
    size = sizeOf(*creation);
    record.emplace(creation->path, size, *creation->progress);
    co_await uploadContents(creation, size, record->id());
  } catch (...) {
    failure = platform::currentError();
  }
  if (failure) {
    record.reset();
    fail(*creation, failure);
  } else {
    logDone(*creation, size);
    succeed(*creation, size);
    record.reset();
  }
}

}  // namespace

Task<void> runCreation(Creation creation) {
  const auto shared = std::make_shared<const Creation>(std::move(creation));
  if (shared->isDir) {
    co_await createFolder(shared);
  } else {
    co_await createFile(shared);
  }
}

}  // namespace kestrune
