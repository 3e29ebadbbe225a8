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
  Receiver(std::shared_ptr<Exchange> exchange, FileThreads* fileThreads,
           std::function<UploadTarget()> makeTarget)
      : exchange_(std::move(exchange)),
        fileThreads_(fileThreads),
        makeTarget_(std::move(makeTarget)),
        announced_(exchange_->bodyLength()) {}

  asio::awaitable<Received> receive() {
    const std::uint64_t announced = announced_.value_or(0);
    if (announced > kMaxUploadBytes) throw ServiceError(413, "the file is too large");
    if (announced_ && announced <= kPieceBytes) {
      co_await receiveSmall(static_cast<std::size_t>(announced));
    } else {
      co_await fileThreads_->run([this] { prepare(); });
      if (announced_) {
        co_await exchange_->pourBody(
            [this](const char* data, std::size_t length) { store(data, length); }, fileThreads_);
      } else {
        co_await receiveUnannounced();
      }
    }
    co_return Received{std::move(target_), received_};
  }

  asio::awaitable<void> release() {
    co_await fileThreads_->run([this] { target_.draft.reset(); });
  }

 private:
  void prepare() {
    target_ = makeTarget_();
    if (announced_) target_.draft->reserve(target_.offset, *announced_);
  }

  void store(const char* data, std::size_t length) {
    if (received_ + length > kMaxUploadBytes) throw ServiceError(413, "the file is too large");
    target_.draft->write(target_.offset + received_, data, length);
    received_ += length;
  }

  /// A small body is here before the disk is asked, and both in one go then.
  asio::awaitable<void> receiveSmall(std::size_t length) {
    piece_.resize(length);
    co_await fillPiece();
    co_await fileThreads_->run([this] {
      prepare();
      store(piece_.data(), filled_);
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
  std::function<UploadTarget()> makeTarget_;
  std::optional<std::uint64_t> announced_;
  std::vector<char> piece_;
  std::size_t filled_ = 0;
  std::uint64_t received_ = 0;
  UploadTarget target_;
};

}  // namespace

asio::awaitable<Received> receiveUpload(std::shared_ptr<Exchange> exchange,
                                        FileThreads* fileThreads,
                                        std::function<UploadTarget()> makeTarget) {
  Receiver receiver(std::move(exchange), fileThreads, std::move(makeTarget));
  std::exception_ptr failure;
  Received received;
  try {
    received = co_await receiver.receive();
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    co_await receiver.release();
    std::rethrow_exception(failure);
  }
  co_return received;
}

}  // namespace kestrune::service
