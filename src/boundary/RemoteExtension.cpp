#include "boundary/RemoteExtension.h"

#include <atomic>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <cstdint>
#include <map>
#include <utility>

#include "boundary/BoundaryError.h"
#include "boundary/HostServer.h"
#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "boundary/RemoteCall.h"
#include "boundary/RemoteEnumerator.h"
#include "boundary/SocketStream.h"
#include "boundary/StreamReader.h"
#include "boundary/Wire.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderItemVersion;
using platform::NSFileProviderRequest;
using platform::NSProgressPtr;

// What a stream may be ahead of the host's disk: what the network fills, what is handed on, and as much on its way.
constexpr std::size_t kStreamBytes = 6 * platform::ContentStreaming::kLentBytes;
// What the program may have asked without an answer, 128 MiB: a hundred thousand downloads that wait, and no memory without end.
constexpr std::size_t kMostUnansweredWords = (128U << 20U) / sizeof(capnp::word);

// One side of a two-party connection.
struct Wire {
  // The program has no descriptors to give, and the host's are counted.
  Wire(std::shared_ptr<Loop> loop, kj::AutoCloseFd socket)
      : stream(std::move(loop), kj::mv(socket), SocketStream::OtherSide::untrusted),
        network(stream, 1, capnp::rpc::twoparty::Side::CLIENT),  // 1: lest none is sent either
        system(capnp::makeRpcClient(network)),
        extension(bootstrap(system)) {
    system.setFlowLimit(kMostUnansweredWords);
  }

  static wire::Extension::Client bootstrap(capnp::RpcSystem<capnp::rpc::twoparty::VatId>& system) {
    capnp::MallocMessageBuilder message;
    auto server = message.initRoot<capnp::rpc::twoparty::VatId>();
    server.setSide(capnp::rpc::twoparty::Side::SERVER);
    return system.bootstrap(server).castAs<wire::Extension>();
  }

  SocketStream stream;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> system;
  wire::Extension::Client extension;
};

}  // namespace

namespace {

// One thing after the other, on the shared executor.
boost::asio::any_io_executor strand() {
  return boost::asio::make_strand(platform::sharedExecutor());
}

}  // namespace

struct RemoteExtension::Link : std::enable_shared_from_this<Link> {
  std::shared_ptr<Loop> loop;
  HostServices services;
  std::unique_ptr<Wire> wire;  // the loop's; none after the end
  const std::shared_ptr<std::atomic<bool>> isGone = std::make_shared<std::atomic<bool>>(false);

  std::atomic<std::uint64_t> operations = 0;
  std::map<std::uint64_t, std::shared_ptr<RemoteCall>> open;  // the loop's: asked, and not answered

  template <class Request>
  using Method = Request (wire::Extension::Client::*)(kj::Maybe<capnp::MessageSize>);

  // Sends a request with the fields that `fill` sets, and gives its answer to the handler.
  template <class Request, class Fill>
  NSProgressPtr begin(Method<Request> method, Fill fill, RemoteCall::Handler handler,
                      boost::asio::any_io_executor inOrder = {}) {
    auto noting = [isGone = isGone, handler = std::move(handler)](Completed completed) {
      if (completed.error && platform::isInterruption(*completed.error)) *isGone = true;
      handler(std::move(completed));
    };
    const std::uint64_t number = ++operations;
    auto call = std::make_shared<RemoteCall>(std::move(noting));
    if (inOrder) call->follow(std::move(inOrder));
    auto progress = call->makeProgress([weak = weak_from_this(), number] {
      if (const auto link = weak.lock()) link->cancel(number);
    });
    loop->post([link = shared_from_this(), call = std::move(call), method, number,
                fill = std::move(fill)]() mutable {
      if (!link->wire) return call->complete({.error = interrupted()});
      auto request = (link->wire->extension.*method)(kUsualSize);
      request.setOperation(number);
      fill(request);
      link->open[number] = kj::mv(call);
      request.send()
          .then([link, number](auto&& response) {
            link->completed(number, read(response.getAnswer()));
          })
          .detach([link, number](kj::Exception&& exception) {
            link->completed(number, {.error = errorFrom(exception)});
          });
    });
    return progress;
  }

  void completed(std::uint64_t number, Completed with) {
    const auto found = open.extract(number);
    if (!found.empty()) found.mapped()->complete(std::move(with));
  }

  void progressed(std::uint64_t number, std::int64_t total, std::int64_t done) {
    const auto found = open.find(number);
    if (found != open.end()) found->second->progressed(total, done);
  }

  void cancel(std::uint64_t number) {
    loop->post([link = shared_from_this(), number] {
      if (!link->wire) return;
      auto request = link->wire->extension.cancelRequest();
      request.setOperation(number);
      request.send().detach([](kj::Exception&&) {
        // The answer says what became of the operation.
      });
    });
  }
};

std::shared_ptr<RemoteExtension> RemoteExtension::connect(int socket, HostServices services) {
  kj::AutoCloseFd owned(socket);
  auto link = std::make_shared<Link>();
  link->loop = Loop::make("kes-boundary");
  link->services = std::move(services);
  link->loop->run([&] {
    link->wire = std::make_unique<Wire>(link->loop, kj::mv(owned));
    // Each a function of its own: a promise refers to a named one instead of keeping it.
    link->wire->network.onDisconnect()
        .then([isGone = link->isGone] { *isGone = true; })
        .detach([isGone = link->isGone](kj::Exception&&) { *isGone = true; });
  });
  return std::shared_ptr<RemoteExtension>(new RemoteExtension(std::move(link)));
}

RemoteExtension::~RemoteExtension() { disconnect(); }

void RemoteExtension::disconnect() {
  *link_->isGone = true;
  link_->loop->run([this] { link_->wire = nullptr; });
}

bool RemoteExtension::isGone() const { return *link_->isGone; }

void RemoteExtension::greet(const platform::NSFileProviderDomain& domain, Greeted greeted) {
  // Handed over with the answer: what it holds is not to be destroyed in the loop.
  const auto answer = [once = std::make_shared<Greeted>(std::move(greeted))](Greeting greeting,
                                                                             NSErrorPtr error) {
    boost::asio::post(platform::sharedExecutor(),
                      [greeted = std::exchange(*once, nullptr), greeting = std::move(greeting),
                       error = std::move(error)] { greeted(greeting, error); });
  };
  link_->loop->post([link = link_, domain, answer] {
    if (!link->wire) return answer({}, interrupted());
    auto request = link->wire->extension.greetRequest();
    request.setVersion(kProtocolVersion);
    request.setDomainIdentifier(bytesOf(domain.identifier()));
    request.setDomainName(bytesOf(domain.displayName()));
    request.setHost(
        serveHost(link->loop, link->services,
                  [weak = link->weak_from_this()](auto operation, auto total, auto done) {
                    if (const auto link = weak.lock()) link->progressed(operation, total, done);
                  }));
    request.send()
        .then([answer](auto&& response) {
          if (response.getVersion() != kProtocolVersion)
            return answer({}, versionMismatch(kProtocolVersion, response.getVersion()));
          answer({{response.getPartialContents(), response.getStreams(), response.getActions()},
                  read(response.getNotEnforced())},
                 nullptr);
        })
        .detach([answer](kj::Exception&& exception) { answer({}, errorFrom(exception)); });
  });
}

void RemoteExtension::invalidate() {
  link_->loop->post([link = link_] {
    if (!link->wire) return;
    link->wire->extension.invalidateRequest().send().detach([](kj::Exception&&) {
      // Whoever is gone holds nothing any more.
    });
  });
}

NSProgressPtr RemoteExtension::item(NSFileProviderItemIdentifier identifier,
                                    NSFileProviderRequest request, ItemHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::itemRequest,
      [=](auto& message) {
        message.setIdentifier(bytesOf(identifier));
        write(message.initRequest(), request);
      },
      [handler = std::move(completionHandler)](const Completed& completed) {
        handler(completed.item, completed.error);
      });
}

NSProgressPtr RemoteExtension::fetchContents(
    NSFileProviderItemIdentifier itemIdentifier,
    std::optional<NSFileProviderItemVersion> requestedVersion, NSFileProviderRequest request,
    ContentsHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::fetchContentsRequest,
      [=](auto& message) {
        message.setIdentifier(bytesOf(itemIdentifier));
        if (requestedVersion) write(message.initVersion(), *requestedVersion);
        write(message.initRequest(), request);
      },
      [handler = std::move(completionHandler)](const Completed& completed) {
        handler(completed.url, completed.item, completed.error);
      });
}

NSProgressPtr RemoteExtension::fetchPartialContents(
    NSFileProviderItemIdentifier itemIdentifier, NSFileProviderItemVersion requestedVersion,
    NSFileProviderRequest request, platform::NSRange minimalRange, std::int64_t alignment,
    platform::NSFileProviderFetchContentsOptions options,
    PartialContentsHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::fetchPartialContentsRequest,
      [=](auto& message) {
        message.setIdentifier(bytesOf(itemIdentifier));
        write(message.initVersion(), requestedVersion);
        write(message.initRequest(), request);
        write(message.initRange(), minimalRange);
        message.setAlignment(alignment);
        message.setOptions(static_cast<std::uint32_t>(options));
      },
      [handler = std::move(completionHandler)](const Completed& completed) {
        handler(completed.url, completed.item, completed.range, completed.flags, completed.error);
      });
}

NSProgressPtr RemoteExtension::streamContents(NSFileProviderItemIdentifier itemIdentifier,
                                              NSFileProviderItemVersion requestedVersion,
                                              NSFileProviderRequest request,
                                              platform::NSRange range, BytesHandler bytes,
                                              EndHandler completionHandler) {
  // Bytes and their end come one after the other.
  const boost::asio::any_io_executor inOrder = strand();
  std::shared_ptr<SharedMemory> memory;
  try {
    memory = SharedMemory::make(kStreamBytes);
  } catch (const platform::NSError& error) {
    boost::asio::post(inOrder, [handler = std::move(completionHandler), error = error.share()] {
      handler(nullptr, error);
    });
    return std::make_shared<platform::NSProgress>(0);
  }
  // The end's alone: whatever the program says after it, nobody hears any more of its bytes.
  auto taking = std::make_shared<const BytesHandler>(std::move(bytes));
  const std::weak_ptr<const BytesHandler> taken = taking;
  return link_->begin(
      &wire::Extension::Client::streamContentsRequest,
      [=, loop = link_->loop](auto& message) {
        message.setIdentifier(bytesOf(itemIdentifier));
        write(message.initVersion(), requestedVersion);
        write(message.initRequest(), request);
        write(message.initRange(), range);
        message.setMemory(kj::heap<MemoryServer>(memory));
        message.setTaker(kj::heap<StreamReader>(loop, inOrder, memory, taken));
      },
      [handler = std::move(completionHandler),
       taking = std::move(taking)](const Completed& completed) mutable {
        taking = nullptr;
        handler(completed.item, completed.error);
      },
      inOrder);
}

namespace {

RemoteCall::Handler changeHandler(
    platform::NSFileProviderReplicatedExtension::ChangeHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) {
    handler(completed.item, completed.pendingFields, completed.shouldFetchContent, completed.error);
  };
}

RemoteCall::Handler doneHandler(platform::NSFileProviderReplicatedExtension::DoneHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) { handler(completed.error); };
}

}  // namespace

NSProgressPtr RemoteExtension::createItem(NSFileProviderItemPtr itemTemplate,
                                          platform::NSFileProviderItemFields fields,
                                          std::optional<std::filesystem::path> url,
                                          platform::NSFileProviderCreateItemOptions options,
                                          NSFileProviderRequest request,
                                          ChangeHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::createItemRequest,
      [=](auto& message) {
        write(message.initItem(), *itemTemplate);
        message.setFields(static_cast<std::uint32_t>(fields));
        if (url) message.setUrl(bytesOf(url->native()));
        message.setOptions(static_cast<std::uint32_t>(options));
        write(message.initRequest(), request);
      },
      changeHandler(std::move(completionHandler)));
}

NSProgressPtr RemoteExtension::modifyItem(NSFileProviderItemPtr item,
                                          NSFileProviderItemVersion baseVersion,
                                          platform::NSFileProviderItemFields changedFields,
                                          std::optional<std::filesystem::path> newContents,
                                          platform::NSFileProviderModifyItemOptions options,
                                          NSFileProviderRequest request,
                                          ChangeHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::modifyItemRequest,
      [=](auto& message) {
        write(message.initItem(), *item);
        write(message.initVersion(), baseVersion);
        message.setFields(static_cast<std::uint32_t>(changedFields));
        if (newContents) message.setUrl(bytesOf(newContents->native()));
        message.setOptions(static_cast<std::uint32_t>(options));
        write(message.initRequest(), request);
      },
      changeHandler(std::move(completionHandler)));
}

NSProgressPtr RemoteExtension::deleteItem(NSFileProviderItemIdentifier identifier,
                                          NSFileProviderItemVersion baseVersion,
                                          platform::NSFileProviderDeleteItemOptions options,
                                          NSFileProviderRequest request,
                                          DoneHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::deleteItemRequest,
      [=](auto& message) {
        message.setIdentifier(bytesOf(identifier));
        write(message.initVersion(), baseVersion);
        message.setOptions(static_cast<std::uint32_t>(options));
        write(message.initRequest(), request);
      },
      doneHandler(std::move(completionHandler)));
}

NSProgressPtr RemoteExtension::performAction(
    std::string actionIdentifier, std::vector<NSFileProviderItemIdentifier> itemIdentifiers,
    DoneHandler completionHandler) {
  return link_->begin(
      &wire::Extension::Client::performActionRequest,
      [=](auto& message) {
        message.setAction(bytesOf(actionIdentifier));
        auto identifiers = message.initIdentifiers(static_cast<unsigned>(itemIdentifiers.size()));
        for (unsigned i = 0; i < itemIdentifiers.size(); ++i)
          identifiers.set(i, bytesOf(itemIdentifiers[i]));
      },
      doneHandler(std::move(completionHandler)));
}

std::shared_ptr<platform::NSFileProviderEnumerator> RemoteExtension::enumerator(
    NSFileProviderItemIdentifier containerItemIdentifier, NSFileProviderRequest request) {
  auto coming = link_->loop->held(RemoteEnumerator::Coming());
  link_->loop->post(
      [link = link_, coming, container = std::move(containerItemIdentifier), request] {
        if (!link->wire) return coming->failed(interrupted());
        auto message = link->wire->extension.enumeratorRequest();
        message.setContainer(bytesOf(container));
        write(message.initRequest(), request);
        message.send()
            .then([coming](auto&& response) {
              if (response.hasError()) {
                coming->failed(read(response.getError()));
              } else {
                coming->came(response.getEnumerator());
              }
            })
            .detach([link, coming](kj::Exception&& exception) {
              const auto error = errorFrom(exception);
              if (platform::isInterruption(*error)) *link->isGone = true;
              coming->failed(error);
            });
      });
  return std::make_shared<RemoteEnumerator>(link_->loop, std::move(coming), link_->isGone);
}

}  // namespace kestrune::boundary
