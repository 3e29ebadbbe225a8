#include "extension/FileProviderExtension.h"

#include <chrono>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "config/SharedConfig.h"
#include "namespace/FileProviderEnumerator.h"
#include "namespace/FileProviderItem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "transfer/WholeFileDownload.h"

namespace kestrune {

using platform::NSErrorPtr;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderRequest;
using platform::NSProgress;
using platform::NSProgressPtr;
using platform::Task;

namespace {

constexpr std::chrono::seconds kTransferTimeout(3600);
constexpr int kTransferConnectionsPerHost = 32;
constexpr std::int64_t kPercent = 100;

platform::URLSessionConfiguration transferConfiguration() {
  platform::URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = kTransferTimeout;
  configuration.timeoutIntervalForResource = kTransferTimeout;
  configuration.httpMaximumConnectionsPerHost = kTransferConnectionsPerHost;
  return configuration;
}

Task<NSFileProviderItemPtr> lookUp(std::string path) {
  const ItemLocation location(path);
  auto entries = co_await KestruneAPI::list(location.parent);
  const auto* entry = findEntry(entries, location.name);
  if (entry == nullptr)
    throw platform::NSFileProviderError(platform::NSFileProviderError::noSuchItem);
  co_return FileProviderItem::from(*entry, location.parent);
}

Task<void> answerItem(std::string path, NSProgressPtr progress,
                      platform::NSFileProviderReplicatedExtension::ItemHandler completionHandler) {
  NSFileProviderItemPtr item;
  NSErrorPtr failure;
  try {
    item = co_await lookUp(std::move(path));
  } catch (...) {
    failure = platform::currentError();
  }
  completionHandler(item, failure);
  progress->setCompletedUnitCount(1);
}

}  // namespace

FileProviderExtension::FileProviderExtension(platform::NSFileProviderDomainPtr domain)
    : FileProviderExtension(std::move(domain), Services()) {}

FileProviderExtension::FileProviderExtension(platform::NSFileProviderDomainPtr domain,
                                             Services services)
    : domain_(std::move(domain)),
      manager_(platform::NSFileProviderManager::forDomain(*domain_)),
      session_(std::make_shared<platform::URLSession>(transferConfiguration())),
      prefetcher_(std::make_shared<PrefetchTracker>(std::move(services.clock))),
      sleeper_(std::move(services.sleeper)) {
  const std::string apiURL = SharedConfig::apiURL().value_or("nil");
  const std::string token = SharedConfig::token() ? "present" : "missing";
  fpLog().write(platform::LogLevel::standard, "init domain=%s apiURL=%s token=%s",
                domain_->identifier(), apiURL, token);
}

std::shared_ptr<FileProviderExtension> FileProviderExtension::make(
    platform::NSFileProviderDomainPtr domain, Services services) {
  return std::make_shared<FileProviderExtension>(std::move(domain), std::move(services));
}

std::shared_ptr<FileProviderExtension> FileProviderExtension::make(
    platform::NSFileProviderDomainPtr domain) {
  return std::make_shared<FileProviderExtension>(std::move(domain));
}

void FileProviderExtension::invalidate() { session_->invalidateAndCancel(); }

NSProgressPtr FileProviderExtension::item(NSFileProviderItemIdentifier identifier,
                                          NSFileProviderRequest, ItemHandler completionHandler) {
  auto progress = std::make_shared<NSProgress>(1);
  if (identifier == platform::NSFileProviderRootContainerItemIdentifier) {
    completionHandler(std::make_shared<FileProviderItem>("", true, 0, platform::dateNow()),
                      nullptr);
    progress->setCompletedUnitCount(1);
    return progress;
  }
  platform::spawnDetached("item", answerItem(FileProviderItem::path(identifier), progress,
                                             std::move(completionHandler)));
  return progress;
}

NSProgressPtr FileProviderExtension::fetchContents(
    NSFileProviderItemIdentifier itemIdentifier, std::optional<platform::NSFileProviderItemVersion>,
    NSFileProviderRequest, ContentsHandler completionHandler) {
  auto progress = std::make_shared<NSProgress>(kPercent);
  platform::spawnDetached("fetchContents",
                          runWholeFileDownload({FileProviderItem::path(itemIdentifier), progress,
                                                session_, sleeper_, std::move(completionHandler)}));
  return progress;
}

std::shared_ptr<platform::NSFileProviderEnumerator> FileProviderExtension::enumerator(
    NSFileProviderItemIdentifier containerItemIdentifier, NSFileProviderRequest) {
  return std::make_shared<FileProviderEnumerator>(FileProviderItem::path(containerItemIdentifier));
}

}  // namespace kestrune
