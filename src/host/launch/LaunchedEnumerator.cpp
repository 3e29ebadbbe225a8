#include "host/launch/LaunchedEnumerator.h"

#include <utility>

#include "host/launch/RepeatedCall.h"

namespace kestrune::host {

namespace {

using platform::MutexLock;
using platform::NSErrorPtr;
using platform::NSFileProviderEnumerator;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderSyncAnchor;

// Passes on what it hears, but for the death of the extension. Keeps that running meanwhile.
class ItemObserver final : public platform::NSFileProviderEnumerationObserver {
 public:
  ItemObserver(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
               RunningExtensionPtr running, std::function<bool()> askAgain)
      : observer_(std::move(observer)),
        running_(std::move(running)),
        askAgain_(std::move(askAgain)) {}
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    observer_->didEnumerateItems(std::move(updatedItems));
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override {
    observer_->finishEnumeratingUpToPage(std::move(nextPage));
  }
  void finishEnumeratingWithError(NSErrorPtr error) override {
    if (!platform::isInterruption(*error) || !askAgain_())
      observer_->finishEnumeratingWithError(std::move(error));
  }

 private:
  const std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer_;
  const RunningExtensionPtr running_;
  const std::function<bool()> askAgain_;
};

class ChangeObserver final : public platform::NSFileProviderChangeObserver {
 public:
  ChangeObserver(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                 RunningExtensionPtr running, std::function<bool()> askAgain)
      : observer_(std::move(observer)),
        running_(std::move(running)),
        askAgain_(std::move(askAgain)) {}
  void didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    observer_->didUpdateItems(std::move(updatedItems));
  }
  void didDeleteItemsWithIdentifiers(
      std::vector<platform::NSFileProviderItemIdentifier> deletedItemIdentifiers) override {
    observer_->didDeleteItemsWithIdentifiers(std::move(deletedItemIdentifiers));
  }
  void finishEnumeratingChangesUpToSyncAnchor(NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    observer_->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), moreComing);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override {
    if (!platform::isInterruption(*error) || !askAgain_())
      observer_->finishEnumeratingWithError(std::move(error));
  }

 private:
  const std::shared_ptr<platform::NSFileProviderChangeObserver> observer_;
  const RunningExtensionPtr running_;
  const std::function<bool()> askAgain_;
};

}  // namespace

std::shared_ptr<NSFileProviderEnumerator> LaunchedEnumerator::enumeratorOf(
    const RunningExtension& running) {
  {
    MutexLock lock(mutex_);
    if (enumerator_ && extension_.lock() == running.extension()) return enumerator_;
  }
  auto made = running.extension()->enumerator(container_, request_);
  MutexLock lock(mutex_);
  extension_ = running.extension();
  enumerator_ = made;
  return made;
}

void LaunchedEnumerator::put(std::shared_ptr<Question> question) {
  source_->get([self = shared_from_this(), question](Answer<RunningExtensionPtr> answer) {
    if (!answer.ok()) return question->fail(answer.error());
    std::shared_ptr<NSFileProviderEnumerator> enumerator;
    NSErrorPtr error;
    try {
      enumerator = self->enumeratorOf(*answer.value());
    } catch (const platform::NSError& thrown) {
      error = thrown.share();
    }
    if (error) return question->fail(std::move(error));
    question->ask(answer.value(), enumerator, [self, question] {
      if (++question->interruptions >= RepeatedCall::kMostInterruptions) return false;
      self->put(question);
      return true;
    });
  });
}

void LaunchedEnumerator::invalidate() {
  std::shared_ptr<NSFileProviderEnumerator> enumerator;
  {
    MutexLock lock(mutex_);
    enumerator = std::exchange(enumerator_, nullptr);
  }
  if (enumerator) enumerator->invalidate();
}

void LaunchedEnumerator::enumerateItems(
    std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
    platform::NSFileProviderPage page) {
  put(std::make_shared<Question>(Question{
      [observer, page = std::move(page)](const auto& running, const auto& enumerator,
                                         std::function<bool()> askAgain) {
        enumerator->enumerateItems(
            std::make_shared<ItemObserver>(observer, running, std::move(askAgain)), page);
      },
      [observer](NSErrorPtr error) { observer->finishEnumeratingWithError(std::move(error)); }}));
}

void LaunchedEnumerator::enumerateChanges(
    std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
    NSFileProviderSyncAnchor anchor) {
  put(std::make_shared<Question>(Question{
      [observer, anchor = std::move(anchor)](const auto& running, const auto& enumerator,
                                             std::function<bool()> askAgain) {
        enumerator->enumerateChanges(
            std::make_shared<ChangeObserver>(observer, running, std::move(askAgain)), anchor);
      },
      [observer](NSErrorPtr error) { observer->finishEnumeratingWithError(std::move(error)); }}));
}

void LaunchedEnumerator::currentSyncAnchor(
    std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) {
  put(std::make_shared<Question>(Question{
      [completionHandler](const auto& running, const auto& enumerator,
                          std::function<bool()> askAgain) {
        enumerator->currentSyncAnchor([completionHandler, running, askAgain = std::move(askAgain)](
                                          std::optional<NSFileProviderSyncAnchor> anchor) {
          // "None" is also what there is to say where nobody is left to ask.
          if (!anchor && running->isGone() && askAgain()) return;
          completionHandler(std::move(anchor));
        });
      },
      [completionHandler](const NSErrorPtr&) { completionHandler(std::nullopt); }}));
}

}  // namespace kestrune::host
