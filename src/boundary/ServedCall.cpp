#include "boundary/ServedCall.h"

#include <utility>

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSProgress;

void Cancelling::started(const std::shared_ptr<NSProgress>& progress) {
  bool cancels = false;
  {
    MutexLock lock(mutex_);
    progress_ = progress;
    cancels = isCancelled_;
  }
  if (cancels) progress->cancel();
}

void Cancelling::cancel() {
  std::shared_ptr<NSProgress> progress;
  {
    MutexLock lock(mutex_);
    isCancelled_ = true;
    progress = progress_;
  }
  if (progress) progress->cancel();
}

ServedCall::ServedCall(std::shared_ptr<Loop> loop, wire::Watcher::Client watcher,
                       kj::Own<kj::PromiseFulfiller<Message>> answer)
    : loop_(std::move(loop)),
      watcher_(loop_->held(kj::mv(watcher))),
      answer_(loop_->held(kj::mv(answer))) {}

ServedCall::~ServedCall() { complete({.isDropped = true}); }

void ServedCall::complete(const Completed& completed) {
  {
    MutexLock lock(mutex_);
    if (std::exchange(isCompleted_, true)) return;
  }
  // Written here: reading an item's properties may do file input, for which the loop has no time.
  auto message = kj::heap<capnp::MallocMessageBuilder>();
  write(message->initRoot<wire::Answer>(), completed);
  loop_->post([answer = answer_, message = kj::mv(message)]() mutable {
    (*answer)->fulfill(kj::mv(message));
  });
}

void ServedCall::started(const std::shared_ptr<NSProgress>& progress) const {
  if (!progress) return;
  progress->mirror([loop = loop_, watcher = watcher_](const NSProgress::Snapshot& counts) {
    loop->post([watcher, counts] {
      auto request = watcher->changedRequest();
      request.setTotal(counts.totalUnitCount);
      request.setCompleted(counts.completedUnitCount);
      request.send().ignoreResult().detach([](kj::Exception&&) {
        // The host hears of it or is gone: then there is nobody to be told.
      });
    });
  });
  cancelling_->started(progress);
}

}  // namespace kestrune::boundary
