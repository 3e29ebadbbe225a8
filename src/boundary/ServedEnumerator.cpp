#include "boundary/ServedEnumerator.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <span>
#include <utility>
#include <vector>

#include "boundary/Messages.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;

constexpr std::size_t kItemsAMessage = 256;

using Message = std::shared_ptr<capnp::MallocMessageBuilder>;

template <class List>
Message listMessage(std::size_t count, List fill) {
  auto message = std::make_shared<capnp::MallocMessageBuilder>();
  fill(*message, static_cast<unsigned>(count));
  return message;
}

std::vector<Message> messagesOf(const std::vector<NSFileProviderItemPtr>& items) {
  std::vector<Message> messages;
  for (std::size_t from = 0; from < items.size(); from += kItemsAMessage) {
    const auto part = std::span(items).subspan(from, std::min(kItemsAMessage, items.size() - from));
    messages.push_back(listMessage(part.size(), [&](auto& message, unsigned count) {
      // The items list of the observers' call: one of both has the same form.
      auto list = message.template initRoot<wire::ItemObserver::ItemsParams>().initItems(count);
      for (unsigned i = 0; i < count; ++i) write(list[i], *part[i]);
    }));
  }
  return messages;
}

std::vector<Message> messagesOf(const std::vector<std::string>& identifiers) {
  std::vector<Message> messages;
  for (std::size_t from = 0; from < identifiers.size(); from += kItemsAMessage) {
    const auto part =
        std::span(identifiers).subspan(from, std::min(kItemsAMessage, identifiers.size() - from));
    messages.push_back(listMessage(part.size(), [&](auto& message, unsigned count) {
      auto list =
          message.template initRoot<wire::ChangeObserver::DeletedParams>().initIdentifiers(count);
      for (unsigned i = 0; i < count; ++i) list.set(i, bytesOf(part[i]));
    }));
  }
  return messages;
}

// Calls of one observer, in their order, each when the one before has been taken. What fails is not told: the host that does not
// take a call is gone.
template <class Client>
class Ordered : public std::enable_shared_from_this<Ordered<Client>> {
 public:
  using Send = std::function<kj::Promise<void>(Client&)>;

  /// REQUIRES: on the loop's thread.
  Ordered(std::shared_ptr<Loop> loop, Client client)
      : loop_(std::move(loop)), told_(loop_->held(Told{kj::mv(client), kj::READY_NOW})) {}

  void then(Send send) {
    loop_->post([told = told_, send = std::move(send)]() mutable {
      told->last = told->last.then([told, send = std::move(send)] { return send(told->client); });
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
      : reporter_(loop, kj::mv(client)) {}

  void didEnumerateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    for (const Message& message : messagesOf(updatedItems)) {
      reporter_.report([message](wire::ItemObserver::Client& client) {
        auto request = client.itemsRequest();
        request.setItems(message->getRoot<wire::ItemObserver::ItemsParams>().asReader().getItems());
        return request.send();
      });
    }
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
  Reporter<wire::ItemObserver::Client> reporter_;
};

class ChangeReporter final : public platform::NSFileProviderChangeObserver {
 public:
  ChangeReporter(const std::shared_ptr<Loop>& loop, wire::ChangeObserver::Client client)
      : reporter_(loop, kj::mv(client)) {}

  void didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) override {
    for (const Message& message : messagesOf(updatedItems)) {
      reporter_.report([message](wire::ChangeObserver::Client& client) {
        auto request = client.updatedRequest();
        request.setItems(message->getRoot<wire::ItemObserver::ItemsParams>().asReader().getItems());
        return request.send();
      });
    }
  }
  void didDeleteItemsWithIdentifiers(std::vector<std::string> deletedItemIdentifiers) override {
    for (const Message& message : messagesOf(deletedItemIdentifiers)) {
      reporter_.report([message](wire::ChangeObserver::Client& client) {
        auto request = client.deletedRequest();
        request.setIdentifiers(
            message->getRoot<wire::ChangeObserver::DeletedParams>().asReader().getIdentifiers());
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
