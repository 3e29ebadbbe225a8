#include "host/content/ContentFetch.h"

#include <unistd.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <string_view>
#include <utility>

#include "host/basics/OnceReply.h"
#include "platform/file_provider/ContentStreaming.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSPOSIXError;
namespace fs = std::filesystem;

std::shared_ptr<const fs::path> owned(const fs::path& path) {
  return {new fs::path(path), [](const fs::path* owning) {
            ::unlink(owning->c_str());
            delete owning;
          }};
}

Answer<FetchedFile> answerOf(const std::optional<fs::path>& url,
                             platform::NSFileProviderItemPtr item,
                             std::optional<platform::NSRange> range, const NSErrorPtr& error) {
  FetchedFile file;
  if (url) file.path = owned(*url);  // removed whatever comes of it
  if (error) return error;
  if (!url || !item)
    return NSPOSIXError(EIO, "use an answer of the extension without a file or its item").share();
  file.item = std::move(item);
  if (range) {
    std::int64_t end = 0;
    if (range->location < 0 || range->length < 0 ||
        __builtin_add_overflow(range->location, range->length, &end))
      return NSPOSIXError(EIO, "use an answer of the extension with an absurd range").share();
    file.range = ByteRange{range->location, end};
  }
  return file;
}

}  // namespace

PartFetching partFetchingOf(platform::NSFileProviderReplicatedExtension* extension) {
  if (dynamic_cast<platform::ContentStreaming*>(extension) != nullptr)
    return PartFetching::asStreams;
  const bool asFiles =
      dynamic_cast<platform::NSFileProviderPartialContentFetching*>(extension) != nullptr;
  return asFiles ? PartFetching::asFiles : PartFetching::none;
}

bool isVersionGone(const platform::NSError& error) {
  return error.domain() == platform::kNSFileProviderErrorDomain &&
         error.code() == platform::NSFileProviderError::versionNoLongerAvailable;
}

std::string FetchedFile::contentVersion() const {
  const auto version = item->itemVersion();
  return version ? version->contentVersion : std::string();
}

void ContentFetch::start(std::optional<ByteRange> range, Taker taker, Reply<FetchedFile> reply) {
  boost::asio::post(
      platform::sharedExecutor(),
      [self = shared_from_this(), range, taker = std::move(taker), reply = std::move(reply)] {
        const auto progress = self->call(range, taker, reply);
        bool cancels = false;
        {
          MutexLock lock(self->mutex_);
          self->progress_ = progress;
          cancels = self->isCancelled_;
        }
        if (cancels && progress) progress->cancel();
      });
}

// An extension that goes on handing over bytes after its answer is not listened to.
platform::NSProgressPtr ContentFetch::stream(ByteRange range, Taker taker,
                                             Reply<FetchedFile> reply) {
  const OnceReply<FetchedFile> once(std::move(reply));
  const auto answered = std::make_shared<std::atomic<bool>>(false);
  return dynamic_cast<platform::ContentStreaming&>(*extension_)
      .streamContents(
          source_.identifier, source_.version, {}, {range.start, range.length()},
          [range, answered, taker = std::move(taker)](std::int64_t offset, std::string_view bytes) {
            const bool fits = offset >= range.start && offset <= range.end &&
                              static_cast<std::int64_t>(bytes.size()) <= range.end - offset;
            return fits && !*answered && taker(offset, std::as_bytes(std::span(bytes)));
          },
          [once, answered](platform::NSFileProviderItemPtr item, const NSErrorPtr& error) {
            *answered = true;
            FetchedFile end;
            if (error && isVersionGone(*error)) end.item = std::move(item);
            if (error && !end.item) {
              once.answer(error);
            } else {
              once.answer(std::move(end));
            }
          });
}

platform::NSProgressPtr ContentFetch::call(std::optional<ByteRange> range, Taker taker,
                                           Reply<FetchedFile> reply) {
  if (range && partFetchingOf(extension_.get()) == PartFetching::asStreams)
    return stream(*range, std::move(taker), std::move(reply));
  const OnceReply<FetchedFile> once(std::move(reply));
  auto* partial = dynamic_cast<platform::NSFileProviderPartialContentFetching*>(extension_.get());
  if (partial == nullptr || !range) {
    return extension_->fetchContents(
        source_.identifier, source_.version, {},
        [once](const std::optional<fs::path>& url, platform::NSFileProviderItemPtr item,
               const NSErrorPtr& error) {
          once.answer(answerOf(url, std::move(item), std::nullopt, error));
        });
  }
  return partial->fetchPartialContents(
      source_.identifier, source_.version, {}, {range->start, range->length()}, kAlignment,
      platform::NSFileProviderFetchContentsOptions::strictVersioning,
      [once](const std::optional<fs::path>& url, platform::NSFileProviderItemPtr item,
             platform::NSRange present, platform::NSFileProviderMaterializationFlags,
             const NSErrorPtr& error) {
        once.answer(answerOf(url, std::move(item), present, error));
      });
}

void ContentFetch::cancel() {
  platform::NSProgressPtr running;
  {
    MutexLock lock(mutex_);
    isCancelled_ = true;
    running = progress_;
  }
  if (running) running->cancel();
}

}  // namespace kestrune::host
