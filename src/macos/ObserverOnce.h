// Observers that hear exactly one finish call, and nothing after it, whatever the enumerator does. If
// the enumerator drops one without a finish call, the enumeration fails as cancelled.
//
// Threads: any, one call at a time, as the observers behind them are called.
#pragma once

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

#include "platform/file_provider/NSFileProviderEnumerator.h"

namespace kestrune::macos {

/// The finish calls that both kinds have in common. `Observer` is the interface.
template <class Observer>
class ObserverOnce : public Observer {
 public:
  explicit ObserverOnce(std::shared_ptr<Observer> observer) : observer_(std::move(observer)) {}
  ObserverOnce(const ObserverOnce&) = delete;
  ObserverOnce& operator=(const ObserverOnce&) = delete;
  ~ObserverOnce() override {
    if (end()) observer_->finishEnumeratingWithError(platform::CancellationError().share());
  }

  void finishEnumeratingWithError(platform::NSErrorPtr error) override {
    if (end()) observer_->finishEnumeratingWithError(std::move(error));
  }

 protected:
  Observer& observer() const { return *observer_; }
  bool hasEnded() const { return ended_; }
  /// True for the first who asks.
  bool end() { return !ended_.exchange(true); }

 private:
  const std::shared_ptr<Observer> observer_;
  std::atomic<bool> ended_ = false;
};

class EnumerationObserverOnce final
    : public ObserverOnce<platform::NSFileProviderEnumerationObserver> {
 public:
  using ObserverOnce::ObserverOnce;
  void didEnumerateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override {
    if (!hasEnded()) observer().didEnumerateItems(std::move(updatedItems));
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override {
    if (end()) observer().finishEnumeratingUpToPage(std::move(nextPage));
  }
};

class ChangeObserverOnce final : public ObserverOnce<platform::NSFileProviderChangeObserver> {
 public:
  using ObserverOnce::ObserverOnce;
  void didUpdateItems(std::vector<platform::NSFileProviderItemPtr> updatedItems) override {
    if (!hasEnded()) observer().didUpdateItems(std::move(updatedItems));
  }
  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> deletedItemIdentifiers) override {
    if (!hasEnded()) observer().didDeleteItemsWithIdentifiers(std::move(deletedItemIdentifiers));
  }
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    if (end()) observer().finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), moreComing);
  }
};

}  // namespace kestrune::macos
