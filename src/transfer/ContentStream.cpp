#include "transfer/ContentStream.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "namespace/FileProviderItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/net/URLError.h"
#include "status/SyncStatusStore.h"

namespace kestrune {

using platform::NSErrorPtr;
using platform::NSFileProviderError;
using platform::Task;
using platform::URL;
using Address = ContentAddresses::Address;

namespace {

constexpr int kLastAttempt = 5;  // counted from 0: six attempts
constexpr std::chrono::seconds kRequestTimeout(60);
constexpr int kOK = 200;
constexpr int kPartialContent = 206;
// What is lent takes all that comes.
static_assert(platform::ContentStreaming::kLentBytes >= platform::URLByteStream::kRoomBytes);
// Observers are told about 20 times a second: the record of transfers is a file, which is written each time.
constexpr std::chrono::milliseconds kTellInterval(50);

[[noreturn]] void failAsUnreachable() {
  throw NSFileProviderError(NSFileProviderError::serverUnreachable);
}

// The first byte of "bytes 100-199/1000"; none if it says nothing of the kind.
std::optional<std::int64_t> firstByte(std::string_view contentRange) {
  constexpr std::string_view kUnit = "bytes ";
  if (!contentRange.starts_with(kUnit)) return std::nullopt;
  contentRange.remove_prefix(kUnit.size());
  std::int64_t first = 0;
  const auto parsed =
      std::from_chars(contentRange.data(), contentRange.data() + contentRange.size(), first);
  return parsed.ec == std::errc() ? std::optional(first) : std::nullopt;
}

// How many bytes of an answer come before the byte that was asked for; none if it is no answer to that.
std::optional<std::int64_t> bytesBefore(const platform::HTTPURLResponse& response,
                                        std::int64_t offset) {
  if (response.statusCode == kOK) return offset;  // the whole file
  if (response.statusCode != kPartialContent) return std::nullopt;
  const auto told = response.valueForHTTPHeaderField("Content-Range");
  if (told && firstByte(*told) != offset) return std::nullopt;
  return 0;
}

// The file as its parent's listing has it. Throws noSuchItem if it is not there.
Task<platform::NSFileProviderItemPtr> listedItem(ItemLocation location) {
  auto entries = co_await KestruneAPI::list(location.parent);
  const auto* entry = findEntry(entries, location.name);
  if (entry == nullptr) throw NSFileProviderError(NSFileProviderError::noSuchItem);
  co_return FileProviderItem::from(*entry, location.parent);
}

// Of one stream; lives on the frame of the task that runs it.
class Streaming {
 public:
  explicit Streaming(const ContentStream& stream)
      : stream_(stream),
        position_(stream.range.location),
        end_(stream.range.location + stream.range.length) {}

  /// What the store has where it is not what was asked for.
  const platform::NSFileProviderItemPtr& itemNow() const { return itemNow_; }

  /// Attempts until all that is wanted was handed on; throws the last attempt's error.
  Task<void> run() {
    for (int attempt = 0; !isComplete();) {
      NSErrorPtr failure;
      try {
        co_await fetchRest();
      } catch (...) {
        failure = platform::currentError();
      }
      if (!failure || isComplete()) continue;
      if (attempt == kLastAttempt || asksForVersion_) failure->raise();
      const std::chrono::seconds delay(1LL << attempt);
      ++attempt;
      fpLog().write(platform::LogLevel::standard,
                    "stream attempt %ld failed at %ld/%ld \xE2\x80\x94 retrying in %.*fs "
                    "(%{public}s)",
                    attempt, position_, end_, 1, static_cast<double>(delay.count()),
                    failure->localizedDescription());
      co_await stream_.sleeper->sleep(delay);
    }
  }

 private:
  bool isComplete() const {
    return isRefused_ || position_ >= end_ || stream_.progress->isCancelled();
  }

  // One attempt at everything that is missing. A stream that ends early without an error is none: the caller asks for the
  // rest.
  Task<void> fetchRest() {
    if (const auto known = stream_.addresses->find(stream_.path, stream_.version)) {
      auto opened = co_await openKnown(*known);
      if (opened) {
        const std::int64_t before = bytesBefore(opened->response(), position_).value_or(0);
        co_await handOn(std::move(*opened), before);
        co_return;
      }
    }
    co_await checkVersion();
    PresignResponse presigned = co_await KestruneAPI::presignDownload(stream_.path);
    auto url = URL::parse(presigned.url);
    if (!url) failAsUnreachable();
    auto opened = co_await open(*url);
    const auto before = bytesBefore(opened.response(), position_);
    if (!before) failAsUnreachable();
    stream_.addresses->remember(stream_.path, stream_.version,
                                {std::move(*url), entityTagOf(opened)});
    co_await handOn(std::move(opened), *before);
  }

  // The rest under an address that gave bytes of this version before; none if it does not give them any more.
  Task<std::optional<platform::URLByteStream>> openKnown(Address known) {
    try {
      auto opened = co_await open(known.url);
      if (bytesBefore(opened.response(), position_) && entityTagOf(opened) == known.entityTag)
        co_return opened;
    } catch (const platform::URLError&) {
      // Whether the store can be reached at all is found when it is asked for the version.
    }
    stream_.addresses->forget(stream_.path);
    co_return std::nullopt;
  }

  Task<platform::URLByteStream> open(URL url) {
    platform::URLRequest request(std::move(url));
    request.timeoutInterval = kRequestTimeout;
    request.headers = {
        {"Range", "bytes=" + std::to_string(position_) + "-" + std::to_string(end_ - 1)}};
    co_return co_await stream_.session->bytes(std::move(request));
  }

  static std::string entityTagOf(const platform::URLByteStream& opened) {
    return opened.response().valueForHTTPHeaderField("ETag").value_or("");
  }

  // Whatever comes of it counts at once, as with every other look at an item.
  Task<void> checkVersion() {
    asksForVersion_ = true;
    auto item = co_await listedItem(ItemLocation(stream_.path));
    const auto version = item->itemVersion();
    if (!version || version->contentVersion != stream_.version) {
      itemNow_ = std::move(item);
      throw NSFileProviderError(NSFileProviderError::versionNoLongerAvailable);
    }
    asksForVersion_ = false;
  }

  // `before`: so many bytes come before those that are wanted.
  Task<void> handOn(platform::URLByteStream opened, std::int64_t before) {
    const std::int64_t start = position_;
    platform::ByteBuffer memory = lent();
    // To the end of the answer, so that the connection can be used again.
    while (!isUnwanted_ && !stream_.progress->isCancelled()) {
      auto piece = co_await opened.next(std::move(memory));
      if (!piece) break;
      const auto skipped = std::min(before, static_cast<std::int64_t>(piece->size()));
      before -= skipped;
      handOn(piece->bytes().substr(static_cast<std::size_t>(skipped)));
      // What lies in lent memory may still be read there.
      memory = stream_.bytes.lends() ? lent() : std::move(*piece);
    }
    // An empty answer is no progress: asking again without counting could go on for ever.
    if (position_ == start && !isComplete())
      throw platform::URLError(platform::URLError::networkConnectionLost);
  }

  platform::ByteBuffer lent() const {
    return stream_.bytes.lends() ? stream_.bytes.lend() : platform::ByteBuffer();
  }

  void handOn(std::string_view bytes) {
    const auto wanted = static_cast<std::size_t>(end_ - position_);
    isUnwanted_ = bytes.size() > wanted;
    bytes = bytes.substr(0, wanted);
    if (bytes.empty()) return;
    if (!stream_.bytes(position_, bytes)) {
      isRefused_ = true;
      isUnwanted_ = true;
      return;
    }
    position_ += static_cast<std::int64_t>(bytes.size());
    const auto now = std::chrono::steady_clock::now();
    if (now - toldAt_ < kTellInterval && position_ < end_) return;
    toldAt_ = now;
    stream_.progress->setCompletedUnitCount(position_ - stream_.range.location);
    SyncStatusStore::shared().update(stream_.transferId, position_ - stream_.range.location);
  }

  const ContentStream& stream_;
  std::int64_t position_;  // of the next byte
  const std::int64_t end_;
  std::chrono::steady_clock::time_point toldAt_;
  bool isRefused_ = false;
  bool isUnwanted_ = false;  // what may still come of the present answer
  bool asksForVersion_ = false;
  platform::NSFileProviderItemPtr itemNow_;
};

}  // namespace

Task<void> runContentStream(ContentStream given) {
  const auto stream = std::make_shared<const ContentStream>(std::move(given));
  auto& status = SyncStatusStore::shared();
  Streaming streaming(*stream);
  NSErrorPtr failure;
  status.begin(stream->transferId, stream->path, stream->range.length,
               SyncTransfer::Direction::download);
  try {
    co_await streaming.run();
  } catch (...) {
    failure = platform::currentError();
  }
  status.finish(stream->transferId);
  // Outside of the try: nothing that a handler does may bring it a second call.
  stream->completionHandler(streaming.itemNow(), failure);
}

}  // namespace kestrune
