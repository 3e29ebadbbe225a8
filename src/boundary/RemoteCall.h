// One operation that was asked of the extension's program: its progress and its completion, as the host knows them.
//
// Threads: made on any thread; all else in the loop. What is told of the progress, and the completion handler, which is called or let
// go once, run outside (Loop::callOut), one after the other.
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

  explicit RemoteCall(Handler handler) : handler_(std::move(handler)) {}

  /// All that is told from now on comes after what was posted there, which does one thing at a time.
  void follow(boost::asio::any_io_executor inOrder) { inOrder_ = std::move(inOrder); }

  /// What the host watches and may cancel: `cancel` is called on whichever thread does.
  std::shared_ptr<platform::NSProgress> makeProgress(std::function<void()> cancel);
  /// The program has told of the progress.
  void progressed(std::int64_t total, std::int64_t completed);
  /// The answer has come, or what was found in its place.
  void complete(Completed completed);

 private:
  void tell(std::function<void()> work);

  boost::asio::any_io_executor inOrder_;  // none as long as nothing was told
  std::weak_ptr<platform::NSProgress> progress_;
  Handler handler_;  // none after the end
};

}  // namespace kestrune::boundary
