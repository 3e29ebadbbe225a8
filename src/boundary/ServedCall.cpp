#include "boundary/ServedCall.h"

#include <boost/asio/post.hpp>
#include <utility>

#include "platform/tasks/Task.h"

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSProgress;

class ServedCall::Cancelling {
 public:
  void started(const std::shared_ptr<NSProgress>& progress) {
    bool cancels = false;
    {
      MutexLock lock(mutex_);
      progress_ = progress;
      cancels = isCancelled_;
    }
    if (cancels) progress->cancel();
  }
  void cancel() {
    std::shared_ptr<NSProgress> progress;
    {
      MutexLock lock(mutex_);
      isCancelled_ = true;
      progress = progress_;
    }
    if (progress) progress->cancel();
  }

 private:
  platform::Mutex mutex_;
  std::shared_ptr<NSProgress> progress_ GUARDED_BY(mutex_);
  bool isCancelled_ GUARDED_BY(mutex_) = false;
};

ServedCall::ServedCall(std::shared_ptr<Loop> loop, wire::Caller::Client caller)
    : loop_(std::move(loop)),
      caller_(loop_->held(kj::mv(caller))),
      cancelling_(std::make_shared<Cancelling>()) {}

namespace {

// The host hears of it or is gone: then there is nobody to be told.
void tell(kj::Promise<void> sent) {
  sent.detach([](kj::Exception&&) {});
}

}  // namespace

ServedCall::~ServedCall() {
  MutexLock lock(mutex_);
  if (isCompleted_) return;
  loop_->post([caller = caller_] { tell(caller->droppedRequest().send().ignoreResult()); });
}

void ServedCall::complete(const Completed& completed) {
  {
    MutexLock lock(mutex_);
    if (std::exchange(isCompleted_, true)) return;
  }
  // Written here: reading an item's properties may do file input, for which the loop has no time.
  auto message = std::make_shared<capnp::MallocMessageBuilder>();
  write(message->initRoot<wire::Answer>(), completed);
  loop_->post([caller = caller_, message] {
    auto request = caller->completeRequest();
    request.setAnswer(message->getRoot<wire::Answer>().asReader());
    tell(request.send().ignoreResult());
  });
}

wire::Operation::Client ServedCall::operation() const {
  class Server final : public wire::Operation::Server {
   public:
    explicit Server(std::shared_ptr<Cancelling> cancelling) : cancelling_(std::move(cancelling)) {}

   protected:
    kj::Promise<void> cancel(CancelContext) override {
      boost::asio::post(platform::sharedExecutor(),
                        [cancelling = cancelling_] { cancelling->cancel(); });
      return kj::READY_NOW;
    }

   private:
    const std::shared_ptr<Cancelling> cancelling_;
  };
  return kj::heap<Server>(cancelling_);
}

void ServedCall::started(const std::shared_ptr<NSProgress>& progress) const {
  if (!progress) return;
  progress->mirror([loop = loop_, caller = caller_](const NSProgress::Snapshot& counts) {
    loop->post([caller, counts] {
      auto request = caller->changedRequest();
      request.setTotal(counts.totalUnitCount);
      request.setCompleted(counts.completedUnitCount);
      tell(request.send().ignoreResult());
    });
  });
  cancelling_->started(progress);
}

}  // namespace kestrune::boundary
