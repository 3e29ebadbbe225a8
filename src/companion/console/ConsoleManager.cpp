#include "companion/console/ConsoleManager.h"

#include <boost/asio/post.hpp>
#include <utility>

#include "companion/console/ConsoleJson.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune {

using namespace platform;

namespace {

// The system answers from a thread of its own, never inside the call.
void answerLater(NSFileProviderManager::Handler handler, NSErrorPtr error) {
  boost::asio::post(sharedExecutor(),
                    [handler = std::move(handler), error = std::move(error)] { handler(error); });
}

}  // namespace

void ConsoleManager::follow(const Orders& orders) {
  MutexLock lock(mutex_);
  if (orders.isPresent) isPresent_ = *orders.isPresent;
  if (orders.failingEvictions) {
    failingEvictions_ =
        Identifiers(orders.failingEvictions->begin(), orders.failingEvictions->end());
  }
  if (orders.failingDownloads) {
    failingDownloads_ =
        Identifiers(orders.failingDownloads->begin(), orders.failingDownloads->end());
  }
}

bool ConsoleManager::isPresent() const {
  MutexLock lock(mutex_);
  return isPresent_;
}

void ConsoleManager::evictItem(NSFileProviderItemIdentifier identifier, Handler completionHandler) {
  bool fails = false;
  {
    MutexLock lock(mutex_);
    fails = failingEvictions_.contains(identifier);
  }
  writer_->write(nullptr, "evict", {{"identifier", identifier}, {"failed", fails}});
  NSErrorPtr error;
  if (fails) {
    error = std::make_shared<NSFileProviderError>(
        NSFileProviderError::nonEvictable, "The item \"" + identifier + "\" cannot be evicted.");
  }
  answerLater(std::move(completionHandler), std::move(error));
}

void ConsoleManager::requestDownloadForItem(NSFileProviderItemIdentifier identifier,
                                            std::optional<NSRange> range,
                                            Handler completionHandler) {
  bool fails = false;
  {
    MutexLock lock(mutex_);
    fails = failingDownloads_.contains(identifier);
  }
  writer_->write(nullptr, "requestDownload",
                 {{"identifier", identifier}, {"failed", fails}, {"range", rangeJson(range)}});
  NSErrorPtr error;
  if (fails) {
    error = std::make_shared<NSFileProviderError>(
        NSFileProviderError::cannotSynchronize,
        "The item \"" + identifier + "\" cannot be downloaded.");
  }
  answerLater(std::move(completionHandler), std::move(error));
}

void ConsoleManager::signalEnumerator(NSFileProviderItemIdentifier, Handler completionHandler) {
  answerLater(std::move(completionHandler), nullptr);
}

}  // namespace kestrune
