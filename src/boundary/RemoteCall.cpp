#include "boundary/RemoteCall.h"

#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <utility>

#include "boundary/Loop.h"
#include "platform/tasks/Task.h"

namespace kestrune::boundary {

namespace {

void set(const std::weak_ptr<platform::NSProgress>& seen, std::int64_t total,
         std::int64_t completed) {
  const auto progress = seen.lock();
  if (!progress) return;
  progress->setTotalUnitCount(total);
  progress->setCompletedUnitCount(completed);
}

}  // namespace

std::shared_ptr<platform::NSProgress> RemoteCall::makeProgress(std::function<void()> cancel) {
  auto progress = std::make_shared<platform::NSProgress>(1);
  progress_ = progress;
  progress->setCancellationHandler(std::move(cancel));
  return progress;
}

void RemoteCall::progressed(std::int64_t total, std::int64_t completed) {
  if (!handler_) return;
  if (!inOrder_) inOrder_ = boost::asio::make_strand(platform::sharedExecutor());
  tell([seen = progress_, total, completed] { set(seen, total, completed); });
}

void RemoteCall::complete(Completed completed) {
  if (!handler_) return;
  // What the handler holds is let go there too.
  tell([handler = std::exchange(handler_, nullptr), seen = progress_,
        completed = std::move(completed)]() mutable {
    if (completed.progress != Completed::Progress{})
      set(seen, completed.progress.total, completed.progress.completed);
    if (!completed.isDropped) handler(std::move(completed));
    handler = nullptr;
  });
}

void RemoteCall::tell(std::function<void()> work) {
  if (inOrder_) {
    boost::asio::post(inOrder_, std::move(work));
  } else {
    Loop::callOut(std::move(work));
  }
}

}  // namespace kestrune::boundary
