// One operation that was asked of the extension's program: its progress and its completion, as the host knows them.
//
// Threads: made on any thread; all else in the loop. What is told of the progress, and the completion handler, which is called or let
// go once, run on `inOrder`, which does one thing at a time.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <cstdint>
#include <functional>
#include <memory>

#include "boundary/Messages.h"
#include "platform/progress/NSProgress.h"

namespace kestrune::boundary {

class RemoteCall {
 public:
  using Handler = std::function<void(Completed)>;

  RemoteCall(boost::asio::any_io_executor inOrder, Handler handler)
      : inOrder_(std::move(inOrder)), handler_(std::move(handler)) {}

  /// What the host watches and may cancel: `cancel` is called on whichever thread does.
  std::shared_ptr<platform::NSProgress> makeProgress(std::function<void()> cancel);
  /// The program has told of the progress.
  void progressed(std::int64_t total, std::int64_t completed) const;
  /// The answer has come, or what was found in its place.
  void complete(Completed completed);

 private:
  const boost::asio::any_io_executor inOrder_;
  std::weak_ptr<platform::NSProgress> progress_;
  Handler handler_;  // none after the end
};

}  // namespace kestrune::boundary
