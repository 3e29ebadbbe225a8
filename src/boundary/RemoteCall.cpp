#include "boundary/RemoteCall.h"

#include <boost/asio/post.hpp>
#include <utility>

#include "boundary/BoundaryError.h"

namespace kestrune::boundary {

class RemoteCall::Server final : public wire::Caller::Server {
 public:
  explicit Server(std::shared_ptr<RemoteCall> call) : call_(std::move(call)) {}
  ~Server() { call_->complete({.error = interrupted()}); }
  KJ_DISALLOW_COPY(Server);

 protected:
  kj::Promise<void> changed(ChangedContext context) override {
    call_->changed(context.getParams().getTotal(), context.getParams().getCompleted());
    return kj::READY_NOW;
  }
  kj::Promise<void> complete(CompleteContext context) override {
    call_->complete(read(context.getParams().getAnswer()));
    return kj::READY_NOW;
  }
  kj::Promise<void> dropped(DroppedContext) override {
    call_->drop();
    return kj::READY_NOW;
  }

 private:
  const std::shared_ptr<RemoteCall> call_;
};

RemoteCall::RemoteCall(std::shared_ptr<Loop> loop, boost::asio::any_io_executor inOrder,
                       Handler handler)
    : loop_(std::move(loop)), inOrder_(std::move(inOrder)), handler_(std::move(handler)) {}

std::shared_ptr<platform::NSProgress> RemoteCall::makeProgress() {
  auto progress = std::make_shared<platform::NSProgress>(0);
  progress_ = progress;
  progress->setCancellationHandler([loop = loop_, self = weak_from_this()] {
    loop->post([self] {
      if (const auto call = self.lock()) call->cancel();
    });
  });
  return progress;
}

wire::Caller::Client RemoteCall::caller() { return kj::heap<Server>(shared_from_this()); }

void RemoteCall::endWith(kj::Promise<void> connection) {
  // Posted: a promise must not be destroyed by what it calls.
  const auto ended = [loop = loop_, self = weak_from_this()] {
    loop->post([self] {
      if (const auto call = self.lock()) call->complete({.error = interrupted()});
    });
  };
  connection_ = connection.then([ended] { ended(); }, [ended](kj::Exception&&) { ended(); })
                    .eagerlyEvaluate(nullptr);
}

void RemoteCall::began(wire::Operation::Client operation) {
  if (!handler_) return;
  operation_ = loop_->held(kj::mv(operation));
  if (isCancelled_) cancel();
}

void RemoteCall::failed(const kj::Exception& exception) {
  complete({.error = errorFrom(exception)});
}

void RemoteCall::changed(std::int64_t total, std::int64_t completed) {
  if (!handler_) return;
  boost::asio::post(inOrder_, [seen = progress_, total, completed] {
    const auto progress = seen.lock();
    if (!progress) return;
    progress->setTotalUnitCount(total);
    progress->setCompletedUnitCount(completed);
  });
}

void RemoteCall::complete(Completed completed) {
  if (!handler_) return;
  boost::asio::post(inOrder_, [handler = std::exchange(handler_, nullptr),
                               completed = std::move(completed)] { handler(completed); });
  operation_ = nullptr;
}

void RemoteCall::drop() {
  if (!handler_) return;
  boost::asio::post(inOrder_,
                    [handler = std::exchange(handler_, nullptr)]() mutable { handler = nullptr; });
  operation_ = nullptr;
}

void RemoteCall::cancel() {
  isCancelled_ = true;
  if (!operation_) return;
  operation_->cancelRequest().send().detach([](kj::Exception&&) {
    // The completion says what became of it.
  });
}

}  // namespace kestrune::boundary
