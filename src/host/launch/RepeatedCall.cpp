#include "host/launch/RepeatedCall.h"

#include <utility>

namespace kestrune::host {

using platform::MutexLock;
using platform::NSProgressPtr;

NSProgressPtr RepeatedCall::make(std::shared_ptr<ExtensionSource> source, Kind kind, Start start,
                                 Done handler) {
  auto call =
      std::make_shared<RepeatedCall>(std::move(source), kind, std::move(start), std::move(handler));
  auto progress = std::make_shared<platform::NSProgress>(0);
  call->outer_ = progress;
  progress->setCancellationHandler([weak = std::weak_ptr(call)] {
    if (const auto live = weak.lock()) live->cancel();
  });
  call->begin();
  return progress;
}

void RepeatedCall::begin() {
  source_->get([self = shared_from_this()](Answer<RunningExtensionPtr> answer) {
    if (answer.ok()) {
      self->startWith(answer.value());
    } else {
      self->handler_({.error = answer.error()});
    }
  });
}

void RepeatedCall::startWith(const RunningExtensionPtr& running) {
  // The extension is needed until it has answered.
  auto done = [self = shared_from_this(), running](const boundary::Completed& completed) {
    self->completed(completed);
  };
  follow(start_(*running->extension(), std::move(done)));
}

void RepeatedCall::follow(const NSProgressPtr& inner) {
  if (!inner) return;
  inner->mirror([outer = outer_](const platform::NSProgress::Snapshot& counts) {
    const auto shown = outer.lock();
    if (!shown || counts.totalUnitCount == 0) return;  // not known yet
    shown->setTotalUnitCount(counts.totalUnitCount);
    shown->raiseCompletedUnitCount(counts.completedUnitCount);
  });
  bool cancels = false;
  {
    MutexLock lock(mutex_);
    inner_ = inner;
    cancels = isCancelled_;
  }
  if (cancels) inner->cancel();
}

void RepeatedCall::completed(const boundary::Completed& completed) {
  const bool isInterrupted = completed.error && platform::isInterruption(*completed.error);
  bool repeats = false;
  if (isInterrupted && kind_ == Kind::question) {
    MutexLock lock(mutex_);
    repeats = !isCancelled_ && ++interruptions_ < kMostInterruptions;
  }
  if (repeats) {
    begin();
  } else {
    handler_(completed);
  }
}

void RepeatedCall::cancel() {
  NSProgressPtr inner;
  {
    MutexLock lock(mutex_);
    isCancelled_ = true;
    inner = inner_;
  }
  if (inner) inner->cancel();
}

}  // namespace kestrune::host
