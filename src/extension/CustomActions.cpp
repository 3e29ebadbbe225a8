#include "extension/CustomActions.h"

#include <functional>
#include <optional>
#include <utility>

#include "config/Loggers.h"
#include "config/SharedConfig.h"
#include "extension/ShareLinks.h"
#include "namespace/FileProviderItem.h"
#include "namespace/PinStore.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/pasteboard/NSPasteboard.h"
#include "platform/tasks/Continuation.h"
#include "platform/tasks/MainQueue.h"

namespace kestrune {

using platform::NSErrorPtr;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderManager;
using platform::Task;

namespace {

enum class Action { copyShareLink, makeOnlineOnly, downloadNow, unknown };

Action actionOf(const std::string& identifier) {
  if (identifier.ends_with("copy-share-link")) return Action::copyShareLink;
  if (identifier.ends_with("make-online-only")) return Action::makeOnlineOnly;
  if (identifier.ends_with("download-now")) return Action::downloadNow;
  return Action::unknown;
}

// Asks a manager and waits for its answer, an error if it fails.
using ManagerCall = std::function<void(NSFileProviderManager::Handler)>;

Task<void> askManager(ManagerCall call) {
  auto begin = [&call](platform::Continuation<NSErrorPtr> continuation) {
    call([continuation](NSErrorPtr error) { continuation.resume(std::move(error)); });
  };
  const NSErrorPtr error = co_await platform::suspendUntilResumed<NSErrorPtr>(begin);
  if (error) error->raise();
}

Task<void> makeOnlineOnly(std::shared_ptr<NSFileProviderManager> manager,
                          NSFileProviderItemIdentifier identifier) {
  ManagerCall evict = [manager, identifier](NSFileProviderManager::Handler handler) {
    manager->evictItem(identifier, std::move(handler));
  };
  co_await askManager(std::move(evict));
  PinStore::setPinned(false, FileProviderItem::path(identifier));
}

Task<void> downloadNow(std::shared_ptr<NSFileProviderManager> manager,
                       NSFileProviderItemIdentifier identifier) {
  PinStore::setPinned(true, FileProviderItem::path(identifier));
  ManagerCall download = [manager, identifier](NSFileProviderManager::Handler handler) {
    manager->requestDownloadForItem(identifier, std::nullopt, std::move(handler));
  };
  co_await askManager(std::move(download));
}

Task<void> treat(Action action, std::shared_ptr<NSFileProviderManager> manager,
                 NSFileProviderItemIdentifier identifier) {
  if (action == Action::makeOnlineOnly) {
    co_await makeOnlineOnly(std::move(manager), std::move(identifier));
  } else if (action == Action::downloadNow) {
    co_await downloadNow(std::move(manager), std::move(identifier));
  }
}

// Every item in turn; the error of the last one that failed.
Task<NSErrorPtr> treatItems(std::shared_ptr<const ActionRun> run, Action action,
                            std::shared_ptr<NSFileProviderManager> manager) {
  NSErrorPtr lastFailure;
  for (const auto& identifier : run->items) {
    NSErrorPtr failure;
    try {
      co_await treat(action, manager, identifier);
    } catch (...) {
      failure = platform::currentError();
    }
    if (failure) {
      fpLog().write(platform::LogLevel::error, "customAction item=%{public}s err=%{public}s",
                    identifier, failure->localizedDescription());
      lastFailure = std::move(failure);
    }
    run->progress->addCompletedUnits(1);
  }
  co_return lastFailure;
}

Task<void> copyLinks(std::shared_ptr<const ActionRun> run) {
  const auto apiURL = SharedConfig::apiURL();
  if (!apiURL) co_return;  // no link can be made; what is on the pasteboard stays
  const std::string text = shareLinks(shareLinkBase(*apiURL), run->items);
  auto write = [text] { platform::NSPasteboard::general()->replaceContents(text); };
  co_await platform::MainQueue::run(write);
  run->progress->setCompletedUnitCount(static_cast<std::int64_t>(run->items.size()));
}

Task<NSErrorPtr> perform(std::shared_ptr<const ActionRun> run) {
  try {
    const auto manager = NSFileProviderManager::forDomain(*run->domain);
    if (!manager) {
      throw platform::NSFileProviderError(platform::NSFileProviderError::providerNotFound);
    }
    const Action action = actionOf(run->identifier);
    if (action != Action::copyShareLink) co_return co_await treatItems(run, action, manager);
    co_await copyLinks(run);
  } catch (...) {
    co_return platform::currentError();
  }
  co_return nullptr;
}

}  // namespace

Task<void> runAction(ActionRun action) {
  const auto run = std::make_shared<const ActionRun>(std::move(action));
  const NSErrorPtr failure = co_await perform(run);
  run->completionHandler(failure);
}

}  // namespace kestrune
