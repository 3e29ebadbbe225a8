#include "boundary/ExtensionServer.h"

#include <boost/asio/post.hpp>
#include <cstdint>
#include <map>
#include <utility>

#include "boundary/Messages.h"
#include "boundary/Protocol.h"
#include "boundary/RemoteHost.h"
#include "boundary/ServedCall.h"
#include "boundary/ServedEnumerator.h"
#include "boundary/SocketStream.h"
#include "boundary/StreamWriter.h"
#include "boundary/Wire.h"
#include "platform/file_provider/ContentStreaming.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemPtr;
using ExtensionPtr = std::shared_ptr<platform::NSFileProviderReplicatedExtension>;
using CallPtr = std::shared_ptr<ServedCall>;

platform::NSFileProviderReplicatedExtension::ChangeHandler changeHandler(const CallPtr& call) {
  return [call](NSFileProviderItemPtr item, NSFileProviderItemFields pending, bool fetch,
                NSErrorPtr error) {
    call->complete({.error = std::move(error),
                    .item = std::move(item),
                    .pendingFields = pending,
                    .shouldFetchContent = fetch});
  };
}

platform::NSFileProviderReplicatedExtension::DoneHandler doneHandler(const CallPtr& call) {
  return [call](NSErrorPtr error) { call->complete({.error = std::move(error)}); };
}

NSErrorPtr notOffered(const char* what) {
  return platform::NSCocoaError(platform::NSCocoaError::featureUnsupported,
                                std::string("the extension offers no ") + what)
      .share();
}

template <class Message>
std::optional<std::filesystem::path> urlOf(Message message) {
  if (!message.hasUrl()) return std::nullopt;
  return std::filesystem::path(text(message.getUrl()));
}

// Each operation is read here, in the loop, and made outside.
class Served final : public wire::Extension::Server {
 public:
  Served(std::shared_ptr<Loop> loop, ExtensionMaker makeExtension,
         std::vector<std::string> notEnforced)
      : loop_(std::move(loop)),
        makeExtension_(std::move(makeExtension)),
        notEnforced_(std::move(notEnforced)) {}

 protected:
  kj::Promise<void> greet(GreetContext context) override {
    const auto told = context.getParams();
    context.getResults().setVersion(kProtocolVersion);
    KJ_REQUIRE(!extension_ && makeExtension_, "greeted twice");
    if (told.getVersion() != kProtocolVersion) return kj::READY_NOW;  // the host says why
    auto domain = std::make_shared<const platform::NSFileProviderDomain>(
        text(told.getDomainIdentifier()), text(told.getDomainName()));
    host_ = loop_->held(told.getHost());
    auto made = kj::newPromiseAndFulfiller<ExtensionPtr>();
    Loop::callOut([loop = loop_, make = std::exchange(makeExtension_, nullptr),
                   domain = std::move(domain), host = makeRemoteHost(loop_, told.getHost()),
                   answer = loop_->held(kj::mv(made.fulfiller))] {
      loop->post([answer, extension = make(domain, host)]() mutable {
        (*answer)->fulfill(kj::mv(extension));
      });
    });
    return made.promise.then([this, context](ExtensionPtr extension) mutable {
      extension_ = std::move(extension);
      auto results = context.getResults();
      results.setPartialContents(as<platform::NSFileProviderPartialContentFetching>() != nullptr);
      results.setStreams(as<platform::ContentStreaming>() != nullptr);
      results.setActions(as<platform::NSFileProviderCustomAction>() != nullptr);
      auto told = results.initNotEnforced(static_cast<unsigned>(notEnforced_.size()));
      for (unsigned i = 0; i < notEnforced_.size(); ++i) told.set(i, bytesOf(notEnforced_[i]));
    });
  }

  kj::Promise<void> item(ItemContext context) override {
    const auto told = context.getParams();
    return serve(context,
                 [identifier = text(told.getIdentifier()), request = read(told.getRequest())](
                     auto& extension, const CallPtr& call) {
                   return extension.item(
                       identifier, request, [call](NSFileProviderItemPtr item, NSErrorPtr error) {
                         call->complete({.error = std::move(error), .item = std::move(item)});
                       });
                 });
  }

  kj::Promise<void> fetchContents(FetchContentsContext context) override {
    const auto told = context.getParams();
    std::optional<platform::NSFileProviderItemVersion> version;
    if (told.hasVersion()) version = read(told.getVersion());
    return serve(
        context, [identifier = text(told.getIdentifier()), version,
                  request = read(told.getRequest())](auto& extension, const CallPtr& call) {
          return extension.fetchContents(
              identifier, version, request,
              [call](std::optional<std::filesystem::path> url, NSFileProviderItemPtr item,
                     NSErrorPtr error) {
                call->complete(
                    {.error = std::move(error), .item = std::move(item), .url = std::move(url)});
              });
        });
  }

  kj::Promise<void> fetchPartialContents(FetchPartialContentsContext context) override {
    const auto told = context.getParams();
    return serve(
        context,
        [identifier = text(told.getIdentifier()), version = read(told.getVersion()),
         request = read(told.getRequest()), range = read(told.getRange()),
         alignment = told.getAlignment(),
         options = static_cast<platform::NSFileProviderFetchContentsOptions>(told.getOptions())](
            auto& extension, const CallPtr& call) -> platform::NSProgressPtr {
          auto* partial = dynamic_cast<platform::NSFileProviderPartialContentFetching*>(&extension);
          if (partial == nullptr) {
            call->complete({.error = notOffered("parts of contents")});
            return nullptr;
          }
          return partial->fetchPartialContents(
              identifier, version, request, range, alignment, options,
              [call](std::optional<std::filesystem::path> url, NSFileProviderItemPtr item,
                     platform::NSRange present, platform::NSFileProviderMaterializationFlags flags,
                     NSErrorPtr error) {
                call->complete({.error = std::move(error),
                                .item = std::move(item),
                                .url = std::move(url),
                                .range = present,
                                .flags = flags});
              });
        });
  }

  kj::Promise<void> streamContents(StreamContentsContext context) override {
    Begun begun = begin(context);
    auto memory = context.getParams().getMemory();
    return memory.getFd()
        .then([this, context, call = kj::mv(begun.call)](kj::Maybe<int> descriptor) mutable {
          const auto told = context.getParams();
          auto writer =
              std::make_shared<StreamWriter>(loop_, loop_->held(told.getTaker()),
                                             SharedMemory::map(kj::mv(descriptor).orDefault(-1)));
          carryOut(kj::mv(call),
                   [identifier = text(told.getIdentifier()), version = read(told.getVersion()),
                    request = read(told.getRequest()), range = read(told.getRange()),
                    writer = std::move(writer)](auto& extension,
                                                const CallPtr& call) -> platform::NSProgressPtr {
                     auto* streaming = dynamic_cast<platform::ContentStreaming*>(&extension);
                     if (streaming == nullptr) {
                       call->complete({.error = notOffered("streams")});
                       return nullptr;
                     }
                     return streaming->streamContents(
                         identifier, version, request, range,
                         {[writer](std::int64_t offset, std::string_view bytes) {
                            return writer->write(offset, bytes);
                          },
                          [writer] { return writer->lend(); }},
                         [call](NSFileProviderItemPtr item, NSErrorPtr error) {
                           call->complete({.error = std::move(error), .item = std::move(item)});
                         });
                   });
        })
        .then([answered = kj::mv(begun.answered)]() mutable { return kj::mv(answered); });
  }

  kj::Promise<void> createItem(CreateItemContext context) override {
    const auto told = context.getParams();
    return serve(
        context,
        [item = read(told.getItem()),
         fields = static_cast<NSFileProviderItemFields>(told.getFields()), url = urlOf(told),
         options = static_cast<platform::NSFileProviderCreateItemOptions>(told.getOptions()),
         request = read(told.getRequest())](auto& extension, const CallPtr& call) {
          return extension.createItem(item, fields, url, options, request, changeHandler(call));
        });
  }

  kj::Promise<void> modifyItem(ModifyItemContext context) override {
    const auto told = context.getParams();
    return serve(
        context,
        [item = read(told.getItem()), version = read(told.getVersion()),
         fields = static_cast<NSFileProviderItemFields>(told.getFields()), url = urlOf(told),
         options = static_cast<platform::NSFileProviderModifyItemOptions>(told.getOptions()),
         request = read(told.getRequest())](auto& extension, const CallPtr& call) {
          return extension.modifyItem(item, version, fields, url, options, request,
                                      changeHandler(call));
        });
  }

  kj::Promise<void> deleteItem(DeleteItemContext context) override {
    const auto told = context.getParams();
    return serve(
        context,
        [identifier = text(told.getIdentifier()), version = read(told.getVersion()),
         options = static_cast<platform::NSFileProviderDeleteItemOptions>(told.getOptions()),
         request = read(told.getRequest())](auto& extension, const CallPtr& call) {
          return extension.deleteItem(identifier, version, options, request, doneHandler(call));
        });
  }

  kj::Promise<void> performAction(PerformActionContext context) override {
    const auto told = context.getParams();
    return serve(context,
                 [action = text(told.getAction()), identifiers = read(told.getIdentifiers())](
                     auto& extension, const CallPtr& call) -> platform::NSProgressPtr {
                   auto* actions = dynamic_cast<platform::NSFileProviderCustomAction*>(&extension);
                   if (actions == nullptr) {
                     call->complete({.error = notOffered("actions")});
                     return nullptr;
                   }
                   return actions->performAction(action, identifiers, doneHandler(call));
                 });
  }

  kj::Promise<void> enumerator(EnumeratorContext context) override {
    struct Made {
      std::shared_ptr<platform::NSFileProviderEnumerator> enumerator;
      NSErrorPtr error;
    };
    const auto told = context.getParams();
    auto made = kj::newPromiseAndFulfiller<Made>();
    Loop::callOut([loop = loop_, extension = greeted(), container = text(told.getContainer()),
                   request = read(told.getRequest()),
                   answer = loop_->held(kj::mv(made.fulfiller))] {
      Made found;
      try {
        found.enumerator = extension->enumerator(container, request);
      } catch (const platform::NSError& error) {
        found.error = error.share();
      }
      loop->post(
          [answer, found = std::move(found)]() mutable { (*answer)->fulfill(kj::mv(found)); });
    });
    return made.promise.then([this, context](Made found) mutable {
      if (found.error) {
        write(context.getResults().initError(), *found.error);
      } else {
        context.getResults().setEnumerator(serveEnumerator(loop_, std::move(found.enumerator)));
      }
    });
  }

  kj::Promise<void> cancel(CancelContext context) override {
    const auto found = operations_.find(context.getParams().getOperation());
    if (found != operations_.end())
      Loop::callOut([cancelling = found->second] { cancelling->cancel(); });
    return kj::READY_NOW;
  }

  kj::Promise<void> invalidate(InvalidateContext) override {
    Loop::callOut([extension = greeted()] { extension->invalidate(); });
    return kj::READY_NOW;
  }

 private:
  ExtensionPtr greeted() const {
    KJ_REQUIRE(extension_ != nullptr, "called before it was greeted");
    return extension_;
  }

  template <class Protocol>
  Protocol* as() const {
    return dynamic_cast<Protocol*>(extension_.get());
  }

  struct Begun {
    CallPtr call;
    kj::Promise<void> answered;
  };
  // From here on it can be cancelled, until it is answered.
  template <class Context>
  Begun begin(Context& context) {
    context
        .allowCancellation();  // of the answer alone: nobody waits for it after the connection's end
    const auto told = context.getParams();
    const std::uint64_t number = told.getOperation();
    auto coming = kj::newPromiseAndFulfiller<ServedCall::Message>();
    KJ_REQUIRE(host_ != nullptr, "called before it was greeted");
    auto call = std::make_shared<ServedCall>(loop_, host_, number, kj::mv(coming.fulfiller));
    operations_[number] = call->cancelling();
    auto answered =
        coming.promise
            .then([context](ServedCall::Message message) mutable {
              context.getResults(kUsualSize).setAnswer(message->getRoot<wire::Answer>());
            })
            .attach(kj::defer([this, number] { operations_.erase(number); }));
    return {std::move(call), kj::mv(answered)};
  }

  template <class Make>
  void carryOut(CallPtr call, Make make) {
    Loop::callOut([extension = greeted(), call = std::move(call), make = std::move(make)] {
      call->started(make(*extension, call));
    });
  }

  template <class Context, class Make>
  kj::Promise<void> serve(Context& context, Make make) {
    Begun begun = begin(context);
    carryOut(std::move(begun.call), std::move(make));
    return kj::mv(begun.answered);
  }

  const std::shared_ptr<Loop> loop_;
  ExtensionMaker makeExtension_;
  const std::vector<std::string> notEnforced_;
  ExtensionPtr extension_;
  std::shared_ptr<wire::Host::Client> host_;                         // with the extension
  std::map<std::uint64_t, std::shared_ptr<Cancelling>> operations_;  // those under way
};

struct Wire {
  Wire(std::shared_ptr<Loop> loop, kj::AutoCloseFd socket, wire::Extension::Client extension)
      : stream(std::move(loop), kj::mv(socket), SocketStream::OtherSide::trusted),
        network(stream, 1, capnp::rpc::twoparty::Side::SERVER),
        system(capnp::makeRpcServer(network, kj::mv(extension))) {}

  SocketStream stream;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> system;
};

}  // namespace

struct ExtensionServer::Serving {
  std::shared_ptr<Loop> loop;
  std::unique_ptr<Wire> wire;  // the loop's
  platform::Mutex mutex;
  std::function<void()> ended GUARDED_BY(mutex);

  // Held while it is called: the destructor waits for it.
  void end() {
    platform::MutexLock lock(mutex);
    if (const auto call = std::exchange(ended, nullptr)) call();
  }
};

ExtensionServer::ExtensionServer(int socket, ExtensionMaker makeExtension,
                                 std::function<void()> ended, std::vector<std::string> notEnforced)
    : serving_(std::make_shared<Serving>()) {
  kj::AutoCloseFd owned(socket);
  serving_->loop = Loop::make("kes-boundary");
  {
    platform::MutexLock lock(serving_->mutex);
    serving_->ended = std::move(ended);
  }
  serving_->loop->run([&] {
    serving_->wire = std::make_unique<Wire>(
        serving_->loop, kj::mv(owned),
        kj::heap<Served>(serving_->loop, std::move(makeExtension), std::move(notEnforced)));
    serving_->wire->network.onDisconnect()
        .then([serving = serving_] { serving->end(); })
        .detach([serving = serving_](kj::Exception&&) { serving->end(); });
  });
}

ExtensionServer::~ExtensionServer() {
  {
    platform::MutexLock lock(serving_->mutex);
    serving_->ended = nullptr;
  }
  serving_->loop->run([this] { serving_->wire = nullptr; });
}

}  // namespace kestrune::boundary
