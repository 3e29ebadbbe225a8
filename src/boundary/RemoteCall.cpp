#include "boundary/RemoteCall.h"

#include <boost/asio/post.hpp>
#include <utility>

namespace kestrune::boundary {

class RemoteCall::Watcher final : public wire::Watcher::Server {
 public:
  explicit Watcher(std::shared_ptr<RemoteCall> call) : call_(std::move(call)) {}

 protected:
  kj::Promise<void> changed(ChangedContext context) override {
    call_->changed(context.getParams().getTotal(), context.getParams().getCompleted());
    return kj::READY_NOW;
  }

 private:
  const std::shared_ptr<const RemoteCall> call_;
};

std::shared_ptr<platform::NSProgress> RemoteCall::makeProgress(std::function<void()> cancel) {
  auto progress = std::make_shared<platform::NSProgress>(0);
  progress_ = progress;
  progress->setCancellationHandler(std::move(cancel));
  return progress;
}

wire::Watcher::Client RemoteCall::watcher() { return kj::heap<Watcher>(shared_from_this()); }

void RemoteCall::changed(std::int64_t total, std::int64_t completed) const {
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
  // What the handler holds is let go there too.
  boost::asio::post(inOrder_, [handler = std::exchange(handler_, nullptr),
                               completed = std::move(completed)]() mutable {
    if (!completed.isDropped) handler(std::move(completed));
    handler = nullptr;
  });
}

}  // namespace kestrune::boundary
