#include "boundary/ServedEnumerator.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;

constexpr std::size_t kWordsAnItem = 64;  // a usual one has about 40

// Some of what is reported, and its items, whose policies may be asked for.
struct Part {
  std::vector<NSFileProviderItemPtr> items;
  kj::Array<capnp::word> message;

  capnp::Data::Reader bytes() const { return message.asBytes(); }
};
using PartPtr = std::shared_ptr<const Part>;

// The items in parts, each handed on as soon as it is made: while one is on its way the next is made.
template <class Report>
void inParts(const std::vector<NSFileProviderItemPtr>& items, Report report) {
  auto first = kj::heapArray<capnp::word>(
      std::min<std::size_t>(items.size() + 1, kMostItemsAMessage) * kWordsAnItem);
  std::memset(first.begin(), 0, first.asBytes().size());
  for (std::size_t from = 0; from < items.size(); from += kMostItemsAMessage) {
    const auto some = std::span(items).subspan(
        from, std::min<std::size_t>(kMostItemsAMessage, items.size() - from));
    auto part = std::make_shared<Part>();
    part->items.assign(some.begin(), some.end());
    capnp::MallocMessageBuilder message(first);  // which it leaves as it finds it
    auto list = message.initRoot<wire::ItemList>().initItems(static_cast<unsigned>(some.size()));
    for (unsigned i = 0; i < some.size(); ++i) writeWithoutPolicy(list[i], *some[i]);
    part->message = capnp::messageToFlatArray(message);
    report(PartPtr(std::move(part)));
  }
}

class PoliciesServer final : public wire::Policies::Server {
 public:
  PoliciesServer(std::shared_ptr<Loop> loop, PartPtr part)
      : loop_(std::move(loop)), part_(std::move(part)) {}

 protected:
  kj::Promise<void> read(ReadContext context) override {
    using Policies = std::vector<std::int64_t>;
    auto answered = kj::newPromiseAndFulfiller<Policies>();
    boost::asio::post(
        platform::sharedExecutor(),
        [loop = loop_, part = part_, answer = loop_->held(kj::mv(answered.fulfiller))] {
          Policies policies;
          for (const auto& item : part->items)
            policies.push_back(static_cast<std::int64_t>(item->contentPolicy()));
          loop->post([answer, policies = std::move(policies)]() mutable {
            (*answer)->fulfill(kj::mv(policies));
          });
        });
    return answered.promise.then([context](const Policies& policies) mutable {
      auto list = context.getResults().initPolicies(static_cast<unsigned>(policies.size()));
      for (unsigned i = 0; i < policies.size(); ++i) list.set(i, policies[i]);
    });
  }

 private:
  const std::shared_ptr<Loop> loop_;
  const PartPtr part_;
};

// Calls of one observer, in their order, each when the one before has been taken. What fails is not told: the host that does not
// take a call is gone.
template <class Client>
class Ordered : public std::enable_shared_from_this<Ordered<Client>> {
 public:
  using Send = std::function<kj::Promise<void>(Client&)>;

  /// REQUIRES: in the loop.
  Ordered(std::shared_ptr<Loop> loop, Client client)
      : loop_(std::move(loop)), told_(loop_->held(Told{kj::mv(client), kj::READY_NOW})) {}

  void then(Send send) {
    loop_->post([told = told_, send = std::move(send)]() mutable {
      // At once, not when somebody waits for the last one: a promise that nobody waits for does nothing.
      told->last = told->last.then([told, send = std::move(send)] { return send(told->client); })
                       .eagerlyEvaluate(nullptr);
    });
  }

  /// The last one: from here on it runs by itself.
  void last(Send send) {
    loop_->post([told = told_, send = std::move(send)]() mutable {
      told->last.then([told, send = std::move(send)] { return send(told->client); })
          .detach([](kj::Exception&&) {});
      told->last = kj::READY_NOW;
    });
  }

 private:
  struct Told {
    Client client;
    kj::Promise<void> last;
  };
  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<Told> told_;
};

// Whoever forgets the observer without a finish call lets the host know.
template <class Client>
class Reporter {
 public:
  Reporter(const std::shared_ptr<Loop>& loop, Client client)
      : calls_(std::make_shared<Ordered<Client>>(loop, kj::mv(client))) {}
  ~Reporter() {
    if (isFinished_) return;
    calls_->last([](Client& client) { return client.droppedRequest().send().ignoreResult(); });
  }
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  void report(typename Ordered<Client>::Send send) { calls_->then(std::move(send)); }
  void finish(typename Ordered<Client>::Send send) {
    if (!std::exchange(isFinished_, true)) calls_->last(std::move(send));
  }
  void fail(const NSErrorPtr& error) {
    finish([error](Client& client) {
      auto request = client.failRequest();
      write(request.initError(), *error);
      return request.send().ignoreResult();
    });
  }

 private:
  const std::shared_ptr<Ordered<Client>> calls_;
  bool isFinished_ = false;  // observers are called one at a time
};

class ItemReporter final : public platform::NSFileProviderEnumerationObserver {
 public:
  ItemReporter(const std::shared_ptr<Loop>& loop, wire::ItemObserver::Client client)
      : loop_(loop), reporter_(loop, kj::mv(client)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    inParts(updatedItems, [&](const PartPtr& part) {
      reporter_.report([loop = loop_, part](wire::ItemObserver::Client& client) {
        auto request = client.itemsRequest();
        request.setList(part->bytes());
        request.setPolicies(kj::heap<PoliciesServer>(loop, part));
        return request.send();
      });
    });
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage> nextPage) override {
    reporter_.finish([page = std::move(nextPage)](wire::ItemObserver::Client& client) {
      auto request = client.finishRequest();
      if (page) request.setNextPage(bytesOf(*page));
      return request.send().ignoreResult();
    });
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { reporter_.fail(error); }

 private:
  const std::shared_ptr<Loop> loop_;
  Reporter<wire::ItemObserver::Client> reporter_;
};

class ChangeReporter final : public platform::NSFileProviderChangeObserver {
 public:
  ChangeReporter(const std::shared_ptr<Loop>& loop, wire::ChangeObserver::Client client)
      : loop_(loop), reporter_(loop, kj::mv(client)) {}

  void didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    inParts(updatedItems, [&](const PartPtr& part) {
      reporter_.report([loop = loop_, part](wire::ChangeObserver::Client& client) {
        auto request = client.updatedRequest();
        request.setList(part->bytes());
        request.setPolicies(kj::heap<PoliciesServer>(loop, part));
        return request.send();
      });
    });
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string> deletedItemIdentifiers) override {
    const auto& all = deletedItemIdentifiers;
    for (std::size_t from = 0; from < all.size(); from += kMostItemsAMessage) {
      const auto some = std::span(all).subspan(
          from, std::min<std::size_t>(kMostItemsAMessage, all.size() - from));
      reporter_.report(
          [part = std::vector(some.begin(), some.end())](wire::ChangeObserver::Client& client) {
            auto request = client.deletedRequest();
            auto list = request.initIdentifiers(static_cast<unsigned>(part.size()));
            for (unsigned i = 0; i < part.size(); ++i) list.set(i, bytesOf(part[i]));
            return request.send();
          });
    }
  }
  void finishEnumeratingChangesUpToSyncAnchor(platform::NSFileProviderSyncAnchor anchor,
                                              bool moreComing) override {
    reporter_.finish(
        [anchor = std::move(anchor), moreComing](wire::ChangeObserver::Client& client) {
          auto request = client.finishRequest();
          request.setAnchor(bytesOf(anchor));
          request.setMoreComing(moreComing);
          return request.send().ignoreResult();
        });
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { reporter_.fail(error); }

 private:
  const std::shared_ptr<Loop> loop_;
  Reporter<wire::ChangeObserver::Client> reporter_;
};

class EnumeratorServer final : public wire::Enumerator::Server {
 public:
  EnumeratorServer(std::shared_ptr<Loop> loop,
                   std::shared_ptr<platform::NSFileProviderEnumerator> enumerator)
      : loop_(std::move(loop)), enumerator_(std::move(enumerator)) {}

 protected:
  kj::Promise<void> enumerateItems(EnumerateItemsContext context) override {
    const auto told = context.getParams();
    onExecutor([enumerator = enumerator_, page = text(told.getPage()),
                observer = std::make_shared<ItemReporter>(loop_, told.getObserver())] {
      enumerator->enumerateItems(observer, page);
    });
    return kj::READY_NOW;
  }

  kj::Promise<void> enumerateChanges(EnumerateChangesContext context) override {
    const auto told = context.getParams();
    onExecutor([enumerator = enumerator_, anchor = text(told.getAnchor()),
                observer = std::make_shared<ChangeReporter>(loop_, told.getObserver())] {
      enumerator->enumerateChanges(observer, anchor);
    });
    return kj::READY_NOW;
  }

  kj::Promise<void> currentSyncAnchor(CurrentSyncAnchorContext context) override {
    using Anchor = std::optional<platform::NSFileProviderSyncAnchor>;
    auto answered = kj::newPromiseAndFulfiller<Anchor>();
    onExecutor(
        [enumerator = enumerator_, loop = loop_, answer = loop_->held(kj::mv(answered.fulfiller))] {
          enumerator->currentSyncAnchor([loop, answer](Anchor anchor) {
            loop->post([answer, anchor = std::move(anchor)]() mutable {
              (*answer)->fulfill(kj::mv(anchor));
            });
          });
        });
    return answered.promise.then([context](const Anchor& anchor) mutable {
      if (anchor) context.getResults().setAnchor(bytesOf(*anchor));
    });
  }

  kj::Promise<void> invalidate(InvalidateContext) override {
    onExecutor([enumerator = enumerator_] { enumerator->invalidate(); });
    return kj::READY_NOW;
  }

 private:
  template <class Work>
  static void onExecutor(Work work) {
    boost::asio::post(platform::sharedExecutor(), std::move(work));
  }

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<platform::NSFileProviderEnumerator> enumerator_;
};

}  // namespace

wire::Enumerator::Client serveEnumerator(
    std::shared_ptr<Loop> loop, std::shared_ptr<platform::NSFileProviderEnumerator> enumerator) {
  return kj::heap<EnumeratorServer>(std::move(loop), std::move(enumerator));
}

}  // namespace kestrune::boundary
