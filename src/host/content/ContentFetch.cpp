#include "host/content/ContentFetch.h"

#include <unistd.h>

#include <boost/asio/post.hpp>
#include <cerrno>
#include <utility>

#include "host/basics/OnceReply.h"
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

std::string FetchedFile::contentVersion() const {
  const auto version = item->itemVersion();
  return version ? version->contentVersion : std::string();
}

void ContentFetch::start(std::optional<ByteRange> range, Reply<FetchedFile> reply) {
  boost::asio::post(platform::sharedExecutor(),
                    [self = shared_from_this(), range, reply = std::move(reply)] {
                      const auto progress = self->call(range, reply);
                      bool cancels = false;
                      {
                        MutexLock lock(self->mutex_);
                        self->progress_ = progress;
                        cancels = self->isCancelled_;
                      }
                      if (cancels && progress) progress->cancel();
                    });
}

platform::NSProgressPtr ContentFetch::call(std::optional<ByteRange> range,
                                           Reply<FetchedFile> reply) {
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
