#include "service/Upload.h"

#include <exception>
#include <utility>
#include <vector>

#include "service/Limits.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

namespace asio = boost::asio;

constexpr std::size_t kPieceBytes = 1U << 20U;

class Receiver {
 public:
  Receiver(std::shared_ptr<Exchange> exchange, FileThreads* fileThreads, UploadSteps steps)
      : exchange_(std::move(exchange)),
        fileThreads_(fileThreads),
        steps_(std::move(steps)),
        announced_(exchange_->bodyLength()) {}

  asio::awaitable<void> receive() {
    const std::uint64_t announced = announced_.value_or(0);
    if (announced > kMaxUploadBytes) throw ServiceError(413, "the file is too large");
    if (announced_ && announced <= kPieceBytes) {
      co_await receiveSmall(static_cast<std::size_t>(announced));
      co_return;
    }
    co_await fileThreads_->run([this] { prepare(); });
    if (announced_) {
      co_await exchange_->pourBody(
          [this](const char* data, std::size_t length) { store(data, length); }, fileThreads_);
    } else {
      co_await receiveUnannounced();
    }
    co_await fileThreads_->run([this] { steps_.end(received_); });
  }

  asio::awaitable<void> release() {
    co_await fileThreads_->run([this] { received_.target.draft.reset(); });
  }

 private:
  void prepare() {
    received_.target = steps_.begin();
    if (announced_) received_.target.draft->reserve(received_.target.offset, *announced_);
  }

  void store(const char* data, std::size_t length) {
    const auto& [draft, offset] = received_.target;
    if (received_.length + length > kMaxUploadBytes)
      throw ServiceError(413, "the file is too large");
    draft->write(offset + received_.length, data, length);
    received_.length += length;
  }

  /// A small body is here before the disk is asked: writing it is as good as reserving.
  asio::awaitable<void> receiveSmall(std::size_t length) {
    piece_.resize(length);
    co_await fillPiece();
    co_await fileThreads_->run([this] {
      received_.target = steps_.begin();
      store(piece_.data(), filled_);
      steps_.end(received_);
    });
  }

  asio::awaitable<void> receiveUnannounced() {
    piece_.resize(kPieceBytes);
    for (;;) {
      co_await fillPiece();
      if (filled_ == 0) break;
      co_await fileThreads_->run([this] { store(piece_.data(), filled_); });
    }
  }

  asio::awaitable<void> fillPiece() {
    filled_ = 0;
    while (filled_ < piece_.size()) {
      const std::size_t count = co_await exchange_->readBody(asio::buffer(piece_) + filled_);
      if (count == 0) break;
      filled_ += count;
    }
  }

  std::shared_ptr<Exchange> exchange_;
  FileThreads* fileThreads_;
  UploadSteps steps_;
  std::optional<std::uint64_t> announced_;
  std::vector<char> piece_;
  std::size_t filled_ = 0;
  Received received_;
};

}  // namespace

asio::awaitable<void> receiveUpload(std::shared_ptr<Exchange> exchange, FileThreads* fileThreads,
                                    UploadSteps steps) {
  Receiver receiver(std::move(exchange), fileThreads, std::move(steps));
  std::exception_ptr failure;
  try {
    co_await receiver.receive();
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    co_await receiver.release();
    std::rethrow_exception(failure);
  }
}

}  // namespace kestrune::service
