// The two ends of a byte stream: the driver thread fills a bounded buffer, a task empties it. Used
// by URLSession alone.
#pragma once

#include <memory>
#include <optional>

#include "platform/net/CurlDriver.h"
#include "platform/net/Transfer.h"
#include "platform/tasks/Continuation.h"
#include "platform/values/ByteBuffer.h"
#include "platform/values/Mutex.h"

namespace kestrune::platform {

/// The shared middle. Threads: the driver's calls come from the driver thread, `take` and `cancel`
/// from the reader's.
class URLByteStream::Source : public std::enable_shared_from_this<Source> {
 public:
  using Piece = std::optional<ByteBuffer>;

  explicit Source(std::shared_ptr<CurlDriver> driver) : driver_(std::move(driver)) {}

  /// REQUIRES: called once, before the transfer is added to the driver.
  void attach(const std::shared_ptr<Transfer>& transfer) { transfer_ = transfer; }

  /// Resumes `continuation` with the response, or fails it with what the transfer failed with
  /// before one came.
  void awaitResponse(Continuation<HTTPURLResponse> continuation);
  /// Resumes `continuation` with the bytes at hand, as soon as there are any, or with the end.
  /// The memory of `used` is used again.
  void take(Continuation<Piece> continuation, ByteBuffer used);
  void cancel();

  // From the sink, on the driver thread.
  void responseArrived(const HTTPURLResponse& response);
  TransferSink::Take bytesArrived(std::string_view bytes);
  void flush();
  void ended(std::exception_ptr error);

 private:
  /// What the waiting reader gets now, if anything.
  bool readyLocked() const REQUIRES_LOCK(mutex_) { return !buffer_.empty() || ended_; }
  void deliver(Continuation<Piece> continuation);

  const std::shared_ptr<CurlDriver> driver_;
  std::weak_ptr<Transfer> transfer_;  // set once, before the transfer starts

  Mutex mutex_;
  ByteBuffer buffer_ GUARDED_BY(mutex_);
  ByteBuffer spare_ GUARDED_BY(mutex_);  // empty; takes the buffer's place when that is handed out
  bool paused_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::exception_ptr error_ GUARDED_BY(mutex_);
  std::optional<HTTPURLResponse> response_ GUARDED_BY(mutex_);
  std::optional<Continuation<HTTPURLResponse>> responseWaiter_ GUARDED_BY(mutex_);
  std::optional<Continuation<Piece>> waiter_ GUARDED_BY(mutex_);
};

class StreamSink final : public TransferSink {
 public:
  explicit StreamSink(std::shared_ptr<URLByteStream::Source> source) : source_(std::move(source)) {}

  /// What a paused reader leaves behind is copied, so not as much as for other contents.
  long receiveBufferBytes() const override { return 128L << 10U; }
  void didReceiveResponse(const HTTPURLResponse& response, std::int64_t) override {
    source_->responseArrived(response);
  }
  Take didReceiveData(std::string_view bytes) override { return source_->bytesArrived(bytes); }
  void turnEnded() override { source_->flush(); }
  void didEnd(std::exception_ptr error) override { source_->ended(std::move(error)); }

 private:
  std::shared_ptr<URLByteStream::Source> source_;
};

}  // namespace kestrune::platform
