#include "boundary/StreamWriter.h"

#include <algorithm>
#include <utility>

namespace kestrune::boundary {

using platform::MutexLock;

namespace {

// What is told at once: the host writes it in one piece.
constexpr std::size_t kMostAtOnce = 1U << 20U;

}  // namespace

// A piece that the host was told of. Whatever becomes of the answer, nobody waits for it for ever.
class StreamWriter::Sent {
 public:
  Sent(std::shared_ptr<StreamWriter> writer, std::size_t length)
      : writer_(std::move(writer)), length_(length) {}
  ~Sent() {
    if (writer_) writer_->taken(length_, false);
  }
  Sent(Sent&&) noexcept = default;
  Sent(const Sent&) = delete;
  Sent& operator=(const Sent&) = delete;
  Sent& operator=(Sent&&) = delete;

  void answered(bool wanted) { std::exchange(writer_, nullptr)->taken(length_, wanted); }

 private:
  std::shared_ptr<StreamWriter> writer_;
  std::size_t length_;
};

bool StreamWriter::write(std::int64_t offset, std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t room = awaitRoom();
    if (room == 0) return false;
    const std::size_t length = std::min({room, bytes.size(), kMostAtOnce});
    std::uint64_t position = 0;
    {
      MutexLock lock(mutex_);
      position = written_;
      written_ += length;
    }
    bytes.copy(memory_->bytes().data() + position % memory_->bytes().size(), length);
    send(offset, position, length);
    bytes.remove_prefix(length);
    offset += static_cast<std::int64_t>(length);
  }
  MutexLock lock(mutex_);
  return isWanted_;
}

std::size_t StreamWriter::awaitRoom() {
  const std::size_t size = memory_->bytes().size();
  MutexLock lock(mutex_);
  while (isWanted_ && written_ - taken_ == size) lock.wait(changed_);
  if (!isWanted_) return 0;
  return std::min<std::size_t>(size - (written_ - taken_), size - written_ % size);
}

void StreamWriter::send(std::int64_t offset, std::uint64_t position, std::size_t length) {
  loop_->post([taker = taker_, offset, position, length,
               sent = Sent(shared_from_this(), length)]() mutable {
    auto request = taker->takeRequest();
    request.setOffset(offset);
    request.setPosition(position);
    request.setLength(static_cast<std::uint32_t>(length));
    request.send()
        .then(
            [sent = std::move(sent)](auto&& answer) mutable { sent.answered(answer.getWanted()); })
        .detach([](kj::Exception&&) { /* the piece says so itself when it is let go */ });
  });
}

void StreamWriter::taken(std::size_t length, bool wanted) {
  MutexLock lock(mutex_);
  taken_ += length;
  isWanted_ = isWanted_ && wanted;
  changed_.notify_all();
}

}  // namespace kestrune::boundary
