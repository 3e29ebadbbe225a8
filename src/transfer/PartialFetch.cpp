#include "transfer/PartialFetch.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "namespace/FileProviderItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Directories.h"
#include "platform/files/FileHandle.h"
#include "platform/net/URLError.h"
#include "platform/values/Checked.h"
#include "platform/values/UUID.h"
#include "status/SyncStatusStore.h"
#include "transfer/PieceQueue.h"

namespace kestrune {

using platform::addOrDie;
using platform::FileHandle;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::NSRange;
using platform::subtractOrDie;
using platform::Task;
using platform::URL;

namespace {

constexpr std::int64_t kLeastAlignment = 4096;
constexpr std::size_t kBufferBytes = 1U << 20U;
constexpr int kLastAttempt = 5;  // counted from 0: six attempts
constexpr std::chrono::seconds kRequestTimeout(60);
constexpr int kOK = 200;
constexpr int kPartialContent = 206;

constexpr const char* kEndOfRange = "the end of a byte range";

std::int64_t alignedDown(std::int64_t offset, std::int64_t alignment) {
  return platform::multiplyOrDie(offset / alignment, alignment, kEndOfRange);
}

std::int64_t alignedUp(std::int64_t offset, std::int64_t alignment) {
  const std::int64_t raised = addOrDie(offset, alignment, kEndOfRange);
  return alignedDown(subtractOrDie(raised, 1, kEndOfRange), alignment);
}

// The local file while it is being filled. Unless it is kept it is removed.
class SparseFile {
 public:
  explicit SparseFile(std::int64_t size)
      : path_(platform::temporaryDirectory() / ("kes-" + platform::newUUIDString())) {
    handle_.emplace(FileHandle::forWritingNew(path_));
    try {
      handle_->truncate(size);
    } catch (...) {
      remove();
      throw;
    }
  }
  ~SparseFile() {
    if (!isKept_) remove();
  }
  SparseFile(const SparseFile&) = delete;
  SparseFile& operator=(const SparseFile&) = delete;

  const std::filesystem::path& path() const { return path_; }
  FileHandle& handle() { return *handle_; }
  void keep() { isKept_ = true; }
  void remove() {
    handle_.reset();
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
    isKept_ = true;
  }

 private:
  const std::filesystem::path path_;
  std::optional<FileHandle> handle_;
  bool isKept_ = false;
};

// One fetch whose range is known and whose transfer is registered. It lives on the frame of the
// task that runs it.
class RangeTransfer {
 public:
  RangeTransfer(const PartialFetch& fetch, FetchedRange range, SparseFile& file)
      : fetch_(fetch), range_(range), file_(file) {}

  std::int64_t written() const { return written_; }

  /// Attempts until the range is there; throws the last attempt's error.
  Task<void> run() {
    int attempt = 0;
    while (!isComplete()) {
      NSErrorPtr failure;
      try {
        co_await fetchRest();
      } catch (...) {
        failure = platform::currentError();
      }
      if (!failure) continue;
      if (attempt == kLastAttempt) {
        if (isComplete()) break;
        failure->raise();
      }
      const std::chrono::seconds delay(1LL << attempt);
      ++attempt;
      fpLog().write(platform::LogLevel::standard,
                    "partial fetch attempt %ld failed at %ld/%ld \xE2\x80\x94 retrying in %.*fs "
                    "(%{public}s)",
                    attempt, offset(), range_.end, 1, static_cast<double>(delay.count()),
                    failure->localizedDescription());
      co_await fetch_.sleeper->sleep(delay);
    }
  }

 private:
  std::int64_t offset() const { return addOrDie(range_.start, written_, kEndOfRange); }
  bool isComplete() const { return offset() >= range_.end; }

  // One attempt at everything that is missing. A stream that ends early without an error is none:
  // the caller asks for the rest.
  Task<void> fetchRest() {
    PresignResponse presigned = co_await KestruneAPI::presignDownload(fetch_.path);
    auto url = URL::parse(presigned.url);
    if (!url) throw NSFileProviderError(NSFileProviderError::serverUnreachable);
    platform::URLRequest request(std::move(*url));
    request.timeoutInterval = kRequestTimeout;
    request.headers = {
        {"Range", "bytes=" + std::to_string(offset()) + "-" + std::to_string(range_.end - 1)}};
    file_.handle().seek(offset());
    auto stream = co_await fetch_.session->bytes(std::move(request));
    const int status = stream.response().statusCode;
    if (status != kPartialContent && status != kOK) {
      throw NSFileProviderError(NSFileProviderError::serverUnreachable);
    }
    co_await writeBody(std::move(stream));
  }

  Task<void> writeBody(platform::URLByteStream stream) {
    buffer_.clear();  // what a failed attempt left in it is asked for again
    const std::int64_t before = written_;
    for (;;) {
      auto piece = co_await stream.next(buffer_.takeUsed());
      if (!piece) break;
      buffer_.push(std::move(*piece));
      while (buffer_.size() >= kBufferBytes) write(kBufferBytes);
    }
    if (buffer_.size() > 0) write(buffer_.size());
    // An empty answer is no progress: asking again without counting could go on for ever.
    if (written_ == before) throw platform::URLError(platform::URLError::networkConnectionLost);
  }

  void write(std::size_t count) {
    file_.handle().write(buffer_.front(count));
    buffer_.drop(count);
    written_ = addOrDie(written_, static_cast<std::int64_t>(count), "a count of bytes");
    fetch_.progress->setCompletedUnitCount(std::min(written_, fetch_.requested.length));
    SyncStatusStore::shared().update(fetch_.transferId, written_);
  }

  const PartialFetch& fetch_;
  const FetchedRange range_;
  SparseFile& file_;
  PieceQueue buffer_;
  std::int64_t written_ = 0;  // from the range's start; survives between attempts
};

// The file's entry in its parent's listing. Throws noSuchItem if there is none.
Task<KestruneAPI::Entry> listedEntry(ItemLocation location) {
  auto entries = co_await KestruneAPI::list(location.parent);
  const auto* entry = findEntry(entries, location.name);
  if (entry == nullptr) throw NSFileProviderError(NSFileProviderError::noSuchItem);
  co_return *entry;
}

FetchedRange sizeAndLog(const PartialFetch& fetch, std::int64_t fileSize) {
  const std::int64_t requestedEnd =
      addOrDie(fetch.requested.location, fetch.requested.length, kEndOfRange);
  const std::int64_t readAhead =
      fetch.prefetcher->recordAndAdvise(fetch.identifier, fetch.requested.location, requestedEnd);
  const FetchedRange range = sizedRange(fetch.requested, fetch.alignment, readAhead, fileSize);
  fpLog().write(platform::LogLevel::standard, "partial fetch sized: %ld bytes (read-ahead=%ld)",
                subtractOrDie(range.end, range.start, kEndOfRange), readAhead);
  return range;
}

// How a fetch ended: with a file that now belongs to whoever gets it, or by an exception.
struct Fetched {
  std::filesystem::path file;
  NSRange range;
};

Task<Fetched> fetchRange(std::shared_ptr<const PartialFetch> fetch, FetchedRange range,
                         std::int64_t fileSize) {
  SparseFile file(fileSize);
  RangeTransfer transfer(*fetch, range, file);
  co_await transfer.run();
  file.handle().close();
  file.keep();
  co_return Fetched{file.path(), {range.start, transfer.written()}};
}

}  // namespace

FetchedRange sizedRange(NSRange requested, std::int64_t alignment, std::int64_t readAhead,
                        std::int64_t fileSize) {
  alignment = std::max(alignment, kLeastAlignment);
  const std::int64_t requestedEnd = addOrDie(requested.location, requested.length, kEndOfRange);
  const std::int64_t wantedEnd = addOrDie(requestedEnd, readAhead, kEndOfRange);
  FetchedRange range;
  range.start = alignedDown(std::max<std::int64_t>(requested.location, 0), alignment);
  range.end = std::min(alignedUp(std::min(wantedEnd, fileSize), alignment), fileSize);
  if (range.start >= range.end) {
    range.end = std::min(addOrDie(range.start, alignment, kEndOfRange), fileSize);
  }
  return range;
}

Task<void> runPartialFetch(PartialFetch given) {
  const auto fetch = std::make_shared<const PartialFetch>(std::move(given));
  auto& status = SyncStatusStore::shared();
  const ItemLocation location(fetch->path);
  Fetched fetched;
  platform::NSFileProviderItemPtr item;
  NSErrorPtr failure;
  bool registered = false;
  try {
    const KestruneAPI::Entry entry = co_await listedEntry(location);
    const FetchedRange range = sizeAndLog(*fetch, entry.size);
    status.begin(fetch->transferId, fetch->path, range.end - range.start,
                 SyncTransfer::Direction::download);
    registered = true;
    fetched = co_await fetchRange(fetch, range, entry.size);
    item = FileProviderItem::from(entry, location.parent);
    fetch->progress->setCompletedUnitCount(std::min(fetch->requested.length, fetched.range.length));
  } catch (...) {
    failure = platform::currentError();
  }
  // Answered outside of the try: nothing that a handler does may bring it a second call.
  constexpr auto kNoFlags = platform::NSFileProviderMaterializationFlags::none;
  if (failure) {
    if (registered) status.finish(fetch->transferId);
    fetch->completionHandler(std::nullopt, nullptr, NSRange{}, kNoFlags, failure);
  } else {
    fetch->completionHandler(fetched.file, std::move(item), fetched.range, kNoFlags, nullptr);
    status.finish(fetch->transferId);
  }
}

}  // namespace kestrune
