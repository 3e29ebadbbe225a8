#include "host/launch/RepeatedCall.h"

#include <algorithm>
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
  int attempt = 0;
  {
    MutexLock lock(mutex_);
    attempt = interruptions_;
  }
  follow(start_(*running->extension(), std::move(done)), attempt);
}

void RepeatedCall::follow(const NSProgressPtr& inner, int attempt) {
  if (!inner) return;
  bool cancels = false;
  {
    MutexLock lock(mutex_);
    if (attempt != interruptions_) return;  // it died before it returned: the next one has begun
    inner_ = inner;
    cancels = isCancelled_;
  }
  inner->mirror([outer = outer_, isRepeated = attempt > 0](const Snapshot& counts) {
    if (counts.totalUnitCount == 0) return;  // not known yet
    if (const auto shown = outer.lock()) show(counts, isRepeated, *shown);
  });
  if (cancels) inner->cancel();
}

// One that is repeated may count what is left only: what was done stays done.
void RepeatedCall::show(const Snapshot& counts, bool isRepeated, platform::NSProgress& shown) {
  const bool isDone = counts.completedUnitCount >= counts.totalUnitCount;
  const std::int64_t total =
      isRepeated ? std::max(counts.totalUnitCount, shown.totalUnitCount()) : counts.totalUnitCount;
  shown.setTotalUnitCount(total);
  shown.raiseCompletedUnitCount(isRepeated && isDone ? total : counts.completedUnitCount);
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
