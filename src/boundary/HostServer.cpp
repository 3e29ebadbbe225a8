#include "boundary/HostServer.h"

#include <boost/asio/post.hpp>
#include <utility>

#include "boundary/Messages.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

using platform::NSErrorPtr;
using platform::NSFileProviderManager;
using Handler = NSFileProviderManager::Handler;

class HostServer final : public wire::Host::Server {
 public:
  HostServer(std::shared_ptr<Loop> loop, HostServices services, Progressed progressed)
      : loop_(std::move(loop)),
        services_(std::make_shared<const HostServices>(std::move(services))),
        progressed_(std::move(progressed)) {}

 protected:
  kj::Promise<void> evictItem(EvictItemContext context) override {
    return askManager(context, [identifier = text(context.getParams().getIdentifier())](
                                   NSFileProviderManager& manager, Handler handler) {
      manager.evictItem(identifier, std::move(handler));
    });
  }

  kj::Promise<void> requestDownload(RequestDownloadContext context) override {
    const auto told = context.getParams();
    std::optional<platform::NSRange> range;
    if (told.hasRange()) range = read(told.getRange());
    return askManager(context, [identifier = text(told.getIdentifier()), range](
                                   NSFileProviderManager& manager, Handler handler) {
      manager.requestDownloadForItem(identifier, range, std::move(handler));
    });
  }

  kj::Promise<void> signalEnumerator(SignalEnumeratorContext context) override {
    return askManager(context, [container = text(context.getParams().getContainer())](
                                   NSFileProviderManager& manager, Handler handler) {
      manager.signalEnumerator(container, std::move(handler));
    });
  }

  kj::Promise<void> copyText(CopyTextContext context) override {
    return ask(context, [services = services_, text = text(context.getParams().getText())](
                            Handler handler) { services->copyText(text, std::move(handler)); });
  }

  kj::Promise<void> progressed(ProgressedContext context) override {
    const auto told = context.getParams();
    progressed_(told.getOperation(), told.getTotal(), told.getCompleted());
    return kj::READY_NOW;
  }

 private:
  template <class Context>
  kj::Promise<void> askManager(Context context,
                               std::function<void(NSFileProviderManager&, Handler)> use) {
    return ask(context, [services = services_, use = std::move(use)](const Handler& handler) {
      if (const auto manager = services->manager()) {
        use(*manager, handler);
      } else {
        handler(platform::NSFileProviderError(platform::NSFileProviderError::providerDomainNotFound)
                    .share());
      }
    });
  }

  template <class Context>
  kj::Promise<void> ask(Context context, std::function<void(Handler)> call) {
    auto answered = kj::newPromiseAndFulfiller<NSErrorPtr>();
    boost::asio::post(
        platform::sharedExecutor(),
        [loop = loop_, call = std::move(call), answer = loop_->held(kj::mv(answered.fulfiller))] {
          call([loop, answer](NSErrorPtr error) {
            loop->post([answer, error = std::move(error)]() mutable {
              (*answer)->fulfill(kj::mv(error));
            });
          });
        });
    return answered.promise.then([context](const NSErrorPtr& error) mutable {
      if (error) write(context.getResults().initError(), *error);
    });
  }

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<const HostServices> services_;
  const Progressed progressed_;
};

}  // namespace

wire::Host::Client serveHost(std::shared_ptr<Loop> loop, HostServices services,
                             Progressed progressed) {
  return kj::heap<HostServer>(std::move(loop), std::move(services), std::move(progressed));
}

}  // namespace kestrune::boundary
