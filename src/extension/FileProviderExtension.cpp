#include "extension/FileProviderExtension.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "api/KestruneAPI.h"
#include "config/Loggers.h"
#include "config/SharedConfig.h"
#include "extension/CreateItem.h"
#include "extension/CustomActions.h"
#include "extension/DeleteItem.h"
#include "extension/ItemPath.h"
#include "extension/ModifyItem.h"
#include "namespace/FileProviderEnumerator.h"
#include "namespace/FileProviderItem.h"
#include "namespace/SystemJunk.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/values/Checked.h"
#include "platform/values/UUID.h"
#include "transfer/ContentStream.h"
#include "transfer/PartialFetch.h"
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
      prefetcher_(std::make_shared<PrefetchTracker>(services.clock)),
      addresses_(std::make_shared<ContentAddresses>(std::move(services.clock))),
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

NSProgressPtr FileProviderExtension::fetchPartialContents(
    NSFileProviderItemIdentifier itemIdentifier, platform::NSFileProviderItemVersion,
    NSFileProviderRequest, platform::NSRange minimalRange, std::int64_t alignment,
    platform::NSFileProviderFetchContentsOptions, PartialContentsHandler completionHandler) {
  PartialFetch fetch;
  fetch.transferId = platform::newUUIDString();
  fetch.path = FileProviderItem::path(itemIdentifier);
  fetch.identifier = std::move(itemIdentifier);
  fetch.requested = minimalRange;
  fetch.alignment = alignment;
  fpLog().write(
      platform::LogLevel::standard, "fetchPartialContents path=%{public}s range=%ld..%ld",
      fetch.path, minimalRange.location,
      platform::addOrDie(minimalRange.location, minimalRange.length, "the end of a byte range"));
  auto progress = std::make_shared<NSProgress>(std::max<std::int64_t>(1, minimalRange.length));
  fetch.progress = progress;
  fetch.session = session_;
  fetch.sleeper = sleeper_;
  fetch.prefetcher = prefetcher_;
  fetch.completionHandler = std::move(completionHandler);
  platform::spawnDetached("fetchPartialContents", runPartialFetch(std::move(fetch)));
  return progress;
}

NSProgressPtr FileProviderExtension::streamContents(
    NSFileProviderItemIdentifier itemIdentifier,
    platform::NSFileProviderItemVersion requestedVersion, NSFileProviderRequest,
    platform::NSRange range, BytesHandler bytes, EndHandler completionHandler) {
  ContentStream stream;
  stream.transferId = platform::newUUIDString();
  stream.path = FileProviderItem::path(itemIdentifier);
  stream.version = std::move(requestedVersion.contentVersion);
  stream.range = range;
  fpLog().write(platform::LogLevel::standard, "streamContents path=%{public}s range=%ld..%ld",
                stream.path, range.location,
                platform::addOrDie(range.location, range.length, "the end of a byte range"));
  auto progress = std::make_shared<NSProgress>(std::max<std::int64_t>(1, range.length));
  stream.progress = progress;
  stream.session = session_;
  stream.sleeper = sleeper_;
  stream.addresses = addresses_;
  stream.bytes = std::move(bytes);
  stream.completionHandler = std::move(completionHandler);
  platform::spawnDetached("streamContents", runContentStream(std::move(stream)));
  return progress;
}

NSProgressPtr FileProviderExtension::createItem(platform::NSFileProviderItemPtr itemTemplate,
                                                platform::NSFileProviderItemFields,
                                                std::optional<std::filesystem::path> url,
                                                platform::NSFileProviderCreateItemOptions,
                                                NSFileProviderRequest,
                                                ChangeHandler completionHandler) {
  auto progress = std::make_shared<NSProgress>(kPercent);
  Creation creation;
  creation.name = itemTemplate->filename();
  creation.path = pathOfItem(*itemTemplate);
  creation.isDir = isFolder(*itemTemplate);
  creation.start = std::chrono::steady_clock::now();
  fpLog().write(platform::LogLevel::standard, "createItem begin name=%{public}s isDir=%{bool}d",
                creation.name, creation.isDir);
  if (isSystemJunk(creation.name)) {
    fpLog().write(platform::LogLevel::standard, "createItem rejecting system junk name=%{public}s",
                  creation.name);
    completionHandler(
        nullptr, platform::NSFileProviderItemFields::none, false,
        platform::NSFileProviderError(platform::NSFileProviderError::noSuchItem).share());
    return progress;
  }
  creation.contents = std::move(url);
  creation.progress = progress;
  creation.session = session_;
  creation.completionHandler = std::move(completionHandler);
  platform::spawnDetached("createItem", runCreation(std::move(creation)));
  return progress;
}

NSProgressPtr FileProviderExtension::modifyItem(platform::NSFileProviderItemPtr item,
                                                platform::NSFileProviderItemVersion,
                                                platform::NSFileProviderItemFields changedFields,
                                                std::optional<std::filesystem::path> newContents,
                                                platform::NSFileProviderModifyItemOptions,
                                                NSFileProviderRequest,
                                                ChangeHandler completionHandler) {
  auto progress = std::make_shared<NSProgress>(kPercent);
  std::string path = FileProviderItem::path(item->itemIdentifier());
  platform::spawnDetached(
      "modifyItem",
      runModification({std::move(path), std::move(item), changedFields, std::move(newContents),
                       progress, session_, std::move(completionHandler)}));
  return progress;
}

NSProgressPtr FileProviderExtension::deleteItem(NSFileProviderItemIdentifier identifier,
                                                platform::NSFileProviderItemVersion,
                                                platform::NSFileProviderDeleteItemOptions,
                                                NSFileProviderRequest,
                                                DoneHandler completionHandler) {
  auto progress = std::make_shared<NSProgress>(1);
  platform::spawnDetached("deleteItem", runDeletion(FileProviderItem::path(identifier), progress,
                                                    std::move(completionHandler)));
  return progress;
}

NSProgressPtr FileProviderExtension::performAction(
    std::string actionIdentifier, std::vector<NSFileProviderItemIdentifier> itemIdentifiers,
    DoneHandler completionHandler) {
  const auto count = static_cast<std::int64_t>(itemIdentifiers.size());
  auto progress = std::make_shared<NSProgress>(std::max<std::int64_t>(1, count));
  fpLog().write(platform::LogLevel::standard, "customAction %{public}s on %ld items",
                actionIdentifier, count);
  platform::spawnDetached(
      "performAction", runAction({std::move(actionIdentifier), std::move(itemIdentifiers), domain_,
                                  progress, std::move(completionHandler)}));
  return progress;
}

std::shared_ptr<platform::NSFileProviderEnumerator> FileProviderExtension::enumerator(
    NSFileProviderItemIdentifier containerItemIdentifier, NSFileProviderRequest) {
  return std::make_shared<FileProviderEnumerator>(FileProviderItem::path(containerItemIdentifier));
}

}  // namespace kestrune
