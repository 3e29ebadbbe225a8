#include "platform/net/StreamSink.h"

#include <utility>

namespace kestrune::platform {

namespace {

// A reader that waits is woken at this many bytes, or when the driver has nothing more to move for
// now: waking it for each 16 KiB that libcurl hands over costs more than the copy.
constexpr std::size_t kWakeBytes = 512U << 10U;
// At this many unread bytes the network is stopped. What comes at once fits behind them.
constexpr std::size_t kPauseBytes = 1U << 20U;
static_assert(kPauseBytes + CURL_MAX_WRITE_SIZE <= URLByteStream::kRoomBytes);

}  // namespace

void URLByteStream::Source::awaitResponse(Continuation<HTTPURLResponse> continuation) {
  std::optional<HTTPURLResponse> response;
  std::exception_ptr error;
  {
    MutexLock lock(mutex_);
    if (!response_ && !ended_) {
      responseWaiter_ = std::move(continuation);
      return;
    }
    response = response_;
    error = error_;
  }
  if (response) {
    continuation.resume(std::move(*response));
  } else {
    continuation.fail(error);
  }
}

void URLByteStream::Source::take(Continuation<Piece> continuation, ByteBuffer used) {
  used.clear();
  {
    MutexLock lock(mutex_);
    if (used.capacity() > spare_.capacity()) std::swap(spare_, used);
    if (!readyLocked()) {
      waiter_ = std::move(continuation);
      return;
    }
  }
  deliver(std::move(continuation));
}

void URLByteStream::Source::deliver(Continuation<Piece> continuation) {
  ByteBuffer bytes;
  std::exception_ptr error;
  bool goOn = false;
  {
    MutexLock lock(mutex_);
    std::swap(bytes, buffer_);
    std::swap(buffer_, spare_);
    error = error_;
    goOn = std::exchange(paused_, false);
  }
  if (goOn) {
    if (auto transfer = transfer_.lock()) driver_->resumeReading(std::move(transfer));
  }
  if (!bytes.empty()) {
    continuation.resume(std::move(bytes));
  } else if (error) {
    continuation.fail(error);
  } else {
    continuation.resume(std::nullopt);
  }
}

void URLByteStream::Source::cancel() {
  if (auto transfer = transfer_.lock()) driver_->cancel(std::move(transfer));
}

void URLByteStream::Source::responseArrived(const HTTPURLResponse& response) {
  std::optional<Continuation<HTTPURLResponse>> waiter;
  {
    MutexLock lock(mutex_);
    response_ = response;
    waiter = std::exchange(responseWaiter_, std::nullopt);
  }
  if (waiter) waiter->resume(response);
}

TransferSink::Take URLByteStream::Source::bytesArrived(std::string_view bytes) {
  std::optional<Continuation<Piece>> waiter;
  {
    MutexLock lock(mutex_);
    if (buffer_.size() >= kPauseBytes) {
      paused_ = true;
      return TransferSink::Take::pause;
    }
    if (buffer_.capacity() == 0) std::swap(buffer_, spare_);
    if (buffer_.capacity() < kPauseBytes && bytes.size() > 4096) buffer_.reserve(kRoomBytes);
    buffer_.append(bytes);
    if (buffer_.size() >= kWakeBytes) waiter = std::exchange(waiter_, std::nullopt);
  }
  if (waiter) deliver(std::move(*waiter));
  return TransferSink::Take::taken;
}

void URLByteStream::Source::flush() {
  std::optional<Continuation<Piece>> waiter;
  {
    MutexLock lock(mutex_);
    if (waiter_ && readyLocked()) waiter = std::exchange(waiter_, std::nullopt);
  }
  if (waiter) deliver(std::move(*waiter));
}

void URLByteStream::Source::ended(std::exception_ptr error) {
  std::optional<Continuation<HTTPURLResponse>> responseWaiter;
  {
    MutexLock lock(mutex_);
    ended_ = true;
    error_ = error;
    responseWaiter = std::exchange(responseWaiter_, std::nullopt);
  }
  if (responseWaiter) responseWaiter->fail(std::move(error));
  flush();
}

}  // namespace kestrune::platform
