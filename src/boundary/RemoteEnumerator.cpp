#include "boundary/RemoteEnumerator.h"

#include <boost/asio/post.hpp>
#include <iterator>
#include <utility>
#include <variant>

#include "boundary/BoundaryError.h"
#include "boundary/ListedItems.h"
#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderSyncAnchor;
using Items = std::vector<NSFileProviderItemPtr>;
using Identifiers = std::vector<platform::NSFileProviderItemIdentifier>;
using Flag = std::shared_ptr<std::atomic<bool>>;

template <class Work>
void onExecutor(Work work) {
  boost::asio::post(platform::sharedExecutor(), std::move(work));
}

NSErrorPtr tooMany() {
  return wrongAnswer("more than " + std::to_string(kMostItemsAMessage) + " items in one message");
}

void append(Items& items, Items more) {
  items.insert(items.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

// Gathers one enumeration for an observer and ends it once. Let go without a last call it means that the program is gone.
template <class Observer>
class Gathering {
 public:
  Gathering(std::shared_ptr<Loop> loop, std::shared_ptr<Observer> observer, Flag isGone)
      : loop_(std::move(loop)), observer_(std::move(observer)), isGone_(std::move(isGone)) {}
  ~Gathering() { end(interrupted()); }
  KJ_DISALLOW_COPY(Gathering);

  void end(NSErrorPtr error) {
    if (!observer_) return;
    if (platform::isInterruption(*error)) *isGone_ = true;
    onExecutor([observer = std::exchange(observer_, nullptr), error = std::move(error)] {
      observer->finishEnumeratingWithError(error);
    });
  }

 protected:
  bool hasEnded() const { return observer_ == nullptr; }
  template <class Told>
  void gather(Items& items, const Told& told) {
    try {
      append(items, itemsOf(told.getList(), loop_->held(told.getPolicies()), loop_));
    } catch (const kj::Exception& exception) {
      end(errorFrom(exception));
    }
  }
  // The last calls of the observer, which is let go with them.
  template <class Tell>
  void finishWith(Tell tell) {
    onExecutor([observer = std::exchange(observer_, nullptr), tell = std::move(tell)]() mutable {
      tell(*observer);
    });
  }
  void letGo() {
    onExecutor([observer = std::exchange(observer_, nullptr)]() mutable { observer = nullptr; });
  }

 private:
  const std::shared_ptr<Loop> loop_;
  std::shared_ptr<Observer> observer_;  // none after the end
  const Flag isGone_;
};

class ItemObserverServer final : public wire::ItemObserver::Server,
                                 public Gathering<platform::NSFileProviderEnumerationObserver> {
 public:
  using Gathering::Gathering;

 protected:
  kj::Promise<void> items(ItemsContext context) override {
    if (!hasEnded()) gather(items_, context.getParams());
    return kj::READY_NOW;
  }
  kj::Promise<void> finish(FinishContext context) override {
    if (hasEnded()) return kj::READY_NOW;
    std::optional<platform::NSFileProviderPage> page;
    if (context.getParams().hasNextPage()) page = text(context.getParams().getNextPage());
    finishWith([items = std::move(items_), page = std::move(page)](auto& observer) mutable {
      if (!items.empty()) observer.didEnumerateItems(std::move(items));
      observer.finishEnumeratingUpToPage(std::move(page));
    });
    return kj::READY_NOW;
  }
  kj::Promise<void> fail(FailContext context) override {
    end(read(context.getParams().getError()));
    return kj::READY_NOW;
  }
  kj::Promise<void> dropped(DroppedContext) override {
    letGo();
    return kj::READY_NOW;
  }

 private:
  Items items_;
};

class ChangeObserverServer final : public wire::ChangeObserver::Server,
                                   public Gathering<platform::NSFileProviderChangeObserver> {
 public:
  using Gathering::Gathering;

 protected:
  kj::Promise<void> updated(UpdatedContext context) override {
    if (!hasEnded()) gather(last<Items>(), context.getParams());
    return kj::READY_NOW;
  }
  kj::Promise<void> deleted(DeletedContext context) override {
    const auto identifiers = context.getParams().getIdentifiers();
    if (identifiers.size() > kMostItemsAMessage) end(tooMany());
    if (hasEnded()) return kj::READY_NOW;
    auto& all = last<Identifiers>();
    auto more = read(identifiers);
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
    return kj::READY_NOW;
  }
  kj::Promise<void> finish(FinishContext context) override {
    if (hasEnded()) return kj::READY_NOW;
    finishWith([reports = std::move(reports_), anchor = text(context.getParams().getAnchor()),
                more = context.getParams().getMoreComing()](auto& observer) mutable {
      for (auto& report : reports) {
        if (auto* items = std::get_if<Items>(&report)) {
          observer.didUpdateItems(std::move(*items));
        } else {
          observer.didDeleteItemsWithIdentifiers(std::move(std::get<Identifiers>(report)));
        }
      }
      observer.finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), more);
    });
    return kj::READY_NOW;
  }
  kj::Promise<void> fail(FailContext context) override {
    end(read(context.getParams().getError()));
    return kj::READY_NOW;
  }
  kj::Promise<void> dropped(DroppedContext) override {
    letGo();
    return kj::READY_NOW;
  }

 private:
  // The last report where it is of this kind, else a new one: their order is part of what is said.
  template <class Kind>
  Kind& last() {
    if (reports_.empty() || !std::holds_alternative<Kind>(reports_.back()))
      reports_.push_back(Kind());
    return std::get<Kind>(reports_.back());
  }

  std::vector<std::variant<Items, Identifiers>> reports_;
};

// Asks an enumerator for something that `Server` hears of, or tells that there is no enumerator.
template <class Server, class Ask>
auto asking(kj::Own<Server> server, Ask ask) {
  return [server = kj::mv(server), ask = kj::mv(ask)](wire::Enumerator::Client* enumerator,
                                                      const NSErrorPtr& error) mutable {
    if (enumerator != nullptr) {
      Server& told = *server;
      auto client = typename Server::Serves::Client(kj::mv(server));
      ask(*enumerator, client).detach([client, &told](kj::Exception&& exception) mutable {
        told.end(errorFrom(exception));
      });
    } else {
      server->end(error);
    }
  };
}

}  // namespace

void RemoteEnumerator::Coming::with(Use use) {
  if (enumerator_ == nullptr && !error_) {
    waiting_.push_back(kj::mv(use));
  } else {
    answer(use);
  }
}

void RemoteEnumerator::Coming::came(wire::Enumerator::Client enumerator) {
  enumerator_ = kj::mv(enumerator);
  for (auto& use : std::exchange(waiting_, {})) answer(use);
}

void RemoteEnumerator::Coming::failed(NSErrorPtr error) {
  error_ = std::move(error);
  for (auto& use : std::exchange(waiting_, {})) answer(use);
}

void RemoteEnumerator::Coming::answer(Use& use) {
  KJ_IF_MAYBE (there, enumerator_) {
    use(there, nullptr);
  } else {
    use(nullptr, error_);
  }
}

void RemoteEnumerator::invalidate() {
  auto use = [](wire::Enumerator::Client* enumerator, const NSErrorPtr&) {
    if (enumerator == nullptr) return;
    enumerator->invalidateRequest().send().detach([](kj::Exception&&) {
      // Whoever is gone holds nothing any more.
    });
  };
  loop_->post([coming = coming_, use]() mutable { coming->with(kj::mv(use)); });
}

void RemoteEnumerator::enumerateItems(
    std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
    platform::NSFileProviderPage page) {
  loop_->post([loop = loop_, coming = coming_, isGone = isGone_, observer = std::move(observer),
               page = std::move(page)]() mutable {
    coming->with(asking(kj::heap<ItemObserverServer>(loop, std::move(observer), isGone),
                        [page = std::move(page)](wire::Enumerator::Client& enumerator,
                                                 wire::ItemObserver::Client& told) {
                          auto request = enumerator.enumerateItemsRequest();
                          request.setPage(bytesOf(page));
                          request.setObserver(told);
                          return request.send().ignoreResult();
                        }));
  });
}

void RemoteEnumerator::enumerateChanges(
    std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
    NSFileProviderSyncAnchor anchor) {
  loop_->post([loop = loop_, coming = coming_, isGone = isGone_, observer = std::move(observer),
               anchor = std::move(anchor)]() mutable {
    coming->with(asking(kj::heap<ChangeObserverServer>(loop, std::move(observer), isGone),
                        [anchor = std::move(anchor)](wire::Enumerator::Client& enumerator,
                                                     wire::ChangeObserver::Client& told) {
                          auto request = enumerator.enumerateChangesRequest();
                          request.setAnchor(bytesOf(anchor));
                          request.setObserver(told);
                          return request.send().ignoreResult();
                        }));
  });
}

void RemoteEnumerator::currentSyncAnchor(
    std::function<void(std::optional<NSFileProviderSyncAnchor>)> completionHandler) {
  // Handed over with the answer: what the handler holds is not to be destroyed in the loop.
  const auto answer = [handler = std::make_shared<decltype(completionHandler)>(std::move(
                           completionHandler))](std::optional<NSFileProviderSyncAnchor> anchor) {
    onExecutor([handler = std::exchange(*handler, nullptr), anchor = std::move(anchor)]() mutable {
      handler(std::move(anchor));
    });
  };
  auto use = [answer, isGone = isGone_](wire::Enumerator::Client* enumerator, const NSErrorPtr&) {
    if (enumerator == nullptr) return answer(std::nullopt);
    enumerator->currentSyncAnchorRequest()
        .send()
        .then([answer](auto&& told) {
          answer(told.hasAnchor() ? std::optional(text(told.getAnchor())) : std::nullopt);
        })
        .detach([answer, isGone](kj::Exception&& exception) {
          if (platform::isInterruption(*errorFrom(exception))) *isGone = true;
          answer(std::nullopt);
        });
  };
  loop_->post([coming = coming_, use]() mutable { coming->with(kj::mv(use)); });
}

}  // namespace kestrune::boundary
