// One operation that was asked of the extension's program: its progress and its completion, as the host knows them.
//
// Threads: made on any thread; all else, its end too, on the loop's thread. What is told of the progress, and the
// completion handler, which is called or let go once, run on `inOrder`, which does one thing at a time.
#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <functional>
#include <memory>

#include "boundary/Loop.h"
#include "boundary/Messages.h"
#include "boundary/Wire.h"
#include "platform/progress/NSProgress.h"

namespace kestrune::boundary {

class RemoteCall : public std::enable_shared_from_this<RemoteCall> {
 public:
  using Handler = std::function<void(Completed)>;

  RemoteCall(std::shared_ptr<Loop> loop, boost::asio::any_io_executor inOrder, Handler handler);

  /// What the host watches and may cancel.
  std::shared_ptr<platform::NSProgress> makeProgress();

  /// The capability by which the program tells of progress and completion. Let go without a completion it means that the
  /// program is gone.
  wire::Caller::Client caller();
  /// When this ends, so does the call. The capability alone does not tell of the program's death: a program may hand it back to
  /// the host as something else, which the host then holds itself.
  void endWith(kj::Promise<void> connection);
  /// The program has begun.
  void began(wire::Operation::Client operation);
  /// There will be no completion from the program.
  void failed(const kj::Exception& exception);

 private:
  class Server;
  void changed(std::int64_t total, std::int64_t completed);
  void complete(Completed completed);
  void drop();
  void cancel();

  const std::shared_ptr<Loop> loop_;
  const boost::asio::any_io_executor inOrder_;
  std::weak_ptr<platform::NSProgress> progress_;
  Handler handler_;  // none after the end
  std::shared_ptr<wire::Operation::Client> operation_;
  bool isCancelled_ = false;
  kj::Promise<void> connection_ = nullptr;
};

}  // namespace kestrune::boundary
