#include "service/Upload.h"

#include <algorithm>
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
        announced_(exchange_->bodyLength()),
        piece_(static_cast<std::size_t>(
            std::min<std::uint64_t>(announced_.value_or(kPieceBytes), kPieceBytes))) {}

  asio::awaitable<Received> receive() {
    const ServiceError tooLarge(413, "the file is too large");
    if (announced_.value_or(0) > kMaxUploadBytes) throw tooLarge;
    // A small body is here before the disk is asked, and both in one go then.
    const bool small = announced_ && *announced_ <= kPieceBytes;
    if (!small) co_await fileThreads_->run([this] { prepare(); });
    for (;;) {
      co_await fillPiece();
      if (received_ + filled_ > kMaxUploadBytes) throw tooLarge;
      if (filled_ == 0 && prepared_) break;
      co_await fileThreads_->run([this] { writePiece(); });
      if (received_ == announced_) break;
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
    prepared_ = true;
  }

  void writePiece() {
    if (!prepared_) prepare();
    target_.draft->write(target_.offset + received_, piece_.data(), filled_);
    received_ += filled_;
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
  bool prepared_ = false;
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
