#include "boundary/ServedCall.h"

#include <utility>

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSProgress;

namespace {

// Not how most operations begin, nor the last counts, which come with the answer.
bool isWorthTelling(const NSProgress::Snapshot& counts) {
  const bool isBegin = counts == NSProgress::Snapshot{1, 0};
  const bool isEnd =
      counts.totalUnitCount > 0 && counts.completedUnitCount >= counts.totalUnitCount;
  return !isBegin && !isEnd;
}

}  // namespace

void Cancelling::started(const std::shared_ptr<NSProgress>& progress) {
  bool cancels = false;
  {
    MutexLock lock(mutex_);
    if (hasEnded_) return;
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

std::optional<NSProgress::Snapshot> Cancelling::end() {
  std::shared_ptr<NSProgress> progress;
  {
    MutexLock lock(mutex_);
    hasEnded_ = true;
    progress.swap(progress_);
  }
  if (!progress) return std::nullopt;
  return progress->snapshot();
}

ServedCall::ServedCall(std::shared_ptr<Loop> loop, std::shared_ptr<wire::Host::Client> host,
                       std::uint64_t operation, kj::Own<kj::PromiseFulfiller<Message>> answer)
    : loop_(std::move(loop)),
      host_(std::move(host)),
      operation_(operation),
      answer_(loop_->held(kj::mv(answer))) {}

ServedCall::~ServedCall() { complete({.isDropped = true}); }

void ServedCall::complete(Completed completed) {
  {
    MutexLock lock(mutex_);
    if (std::exchange(isCompleted_, true)) return;
  }
  if (const auto counts = cancelling_->end())
    completed.progress = {counts->totalUnitCount, counts->completedUnitCount};
  // Written here: reading an item's properties may do file input, for which the loop has no time.
  auto message = kj::heap<capnp::MallocMessageBuilder>(kUsualWords);
  write(message->initRoot<wire::Answer>(), completed);
  loop_->post([answer = answer_, message = kj::mv(message)]() mutable {
    (*answer)->fulfill(kj::mv(message));
  });
}

void ServedCall::started(const std::shared_ptr<NSProgress>& progress) const {
  if (!progress) return;
  cancelling_->started(progress);
  progress->mirror([loop = loop_, host = host_, operation = operation_,
                    weak = std::weak_ptr(cancelling_)](const NSProgress::Snapshot& counts) {
    const auto cancelling = weak.lock();
    if (!cancelling || cancelling->hasEnded() || !isWorthTelling(counts)) return;
    loop->post([host, operation, counts] {
      auto request = host->progressedRequest(kUsualSize);
      request.setOperation(operation);
      request.setTotal(counts.totalUnitCount);
      request.setCompleted(counts.completedUnitCount);
      request.send().ignoreResult().detach([](kj::Exception&&) {
        // The host hears of it or is gone: then there is nobody to be told.
      });
    });
  });
}

}  // namespace kestrune::boundary
