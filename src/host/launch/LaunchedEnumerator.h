// An enumerator of an extension that may die: an enumeration that was interrupted is asked of the next one.
//
// Threads: as the protocol says. REQUIRES: the extension hands what it reports to the observer only with the last call, as
// boundary/RemoteEnumerator does; else an interrupted enumeration would be reported twice.
#pragma once

#include <functional>
#include <memory>

#include "host/launch/ExtensionSource.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class LaunchedEnumerator final : public platform::NSFileProviderEnumerator,
                                 public std::enable_shared_from_this<LaunchedEnumerator> {
 public:
  LaunchedEnumerator(std::shared_ptr<ExtensionSource> source,
                     platform::NSFileProviderItemIdentifier container,
                     platform::NSFileProviderRequest request)
      : source_(std::move(source)),
        container_(std::move(container)),
        request_(std::move(request)) {}

  void invalidate() override;
  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage page) override;
  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override;
  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override;

  /// What is asked of one extension after the other until one answers.
  struct Question {
    std::function<void(const RunningExtensionPtr& running,
                       const std::shared_ptr<platform::NSFileProviderEnumerator>& enumerator,
                       std::function<bool()> askAgain)>
        ask;
    std::function<void(platform::NSErrorPtr error)> fail;
    int interruptions = 0;
  };

 private:
  void put(std::shared_ptr<Question> question);
  std::shared_ptr<platform::NSFileProviderEnumerator> enumeratorOf(const RunningExtension& running);

  const std::shared_ptr<ExtensionSource> source_;
  const platform::NSFileProviderItemIdentifier container_;
  const platform::NSFileProviderRequest request_;
  platform::Mutex mutex_;
  // Of which extension the enumerator is.
  std::weak_ptr<platform::NSFileProviderReplicatedExtension> extension_ GUARDED_BY(mutex_);
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator_ GUARDED_BY(mutex_);
};

}  // namespace kestrune::host
