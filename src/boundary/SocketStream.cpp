#include "boundary/SocketStream.h"

#include <capnp/rpc.capnp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <span>
#include <utility>
#include <vector>

namespace kestrune::boundary {

using capnp::word;

namespace {

constexpr std::size_t kUsualBytes = 64U << 10U;
constexpr std::size_t kWorthTheBuffer = 16U << 10U;  // a message that is not copied out of it
constexpr std::size_t kMostDescriptors = 4;          // of one message
constexpr std::uint32_t kMostSegments = 512;         // as Cap'n Proto's own streams have it
constexpr std::size_t kMostUnhurriedBytes = 4U << 10U;
using Control = std::array<char, CMSG_SPACE(sizeof(int) * kMostDescriptors)>;

kj::Exception failure(const char* what) {
  const int error = errno;
  const bool isGone = error == EPIPE || error == ECONNRESET;
  return {isGone ? kj::Exception::Type::DISCONNECTED : kj::Exception::Type::FAILED, __FILE__,
          __LINE__, kj::str(what, ": ", std::strerror(error))};
}

}  // namespace

// Bytes that lie in several places: each message's table of its segments, and the segments where they are.
class SocketStream::Pieces {
 public:
  void add(kj::ArrayPtr<const kj::ArrayPtr<const word>> segments) {
    // https://capnproto.org/encoding.html#serialization-over-a-stream: one less than there are, the lengths in words, whole words.
    std::vector<std::uint32_t>& table =
        tables_.emplace_back((segments.size() + 2) & ~std::size_t{1});
    table[0] = static_cast<std::uint32_t>(segments.size() - 1);
    add(table.data(), table.size() * sizeof table[0]);
    for (std::size_t i = 0; i < segments.size(); ++i) {
      table[i + 1] = static_cast<std::uint32_t>(segments[i].size());
      add(segments[i].begin(), segments[i].asBytes().size());
    }
  }
  /// Before all else.
  void addBefore(std::vector<char> bytes) {
    own_ = std::move(bytes);
    all_.insert(all_.begin(), {own_.data(), own_.size()});
  }
  /// What was not dropped yet. Valid until something is added or dropped.
  std::span<iovec> left() { return std::span(all_).subspan(dropped_); }
  void drop(std::size_t bytes) {
    for (; dropped_ < all_.size() && bytes >= all_[dropped_].iov_len; ++dropped_)
      bytes -= all_[dropped_].iov_len;
    if (bytes == 0) return;
    all_[dropped_].iov_base = static_cast<char*>(all_[dropped_].iov_base) + bytes;
    all_[dropped_].iov_len -= bytes;
  }
  /// What is left, which then depends on nobody else.
  Pieces copyOfRest() {
    std::vector<char> bytes;
    appendTo(bytes);
    Pieces copy;
    copy.addBefore(std::move(bytes));
    return copy;
  }
  void appendTo(std::vector<char>& bytes) {
    for (const iovec& piece : left()) {
      const auto* const begin = static_cast<const char*>(piece.iov_base);
      bytes.insert(bytes.end(), begin, begin + piece.iov_len);
    }
  }

 private:
  void add(const void* begin, std::size_t bytes) {
    all_.push_back({const_cast<void*>(begin), bytes});  // as iovec has it; nobody writes there
  }

  std::deque<std::vector<std::uint32_t>> tables_;
  std::vector<char> own_;
  std::vector<iovec> all_;
  std::size_t dropped_ = 0;
};

struct SocketStream::Outgoing {
  Pieces rest;
  kj::ArrayPtr<const int> descriptors;  // none once the first byte went
  kj::Own<kj::PromiseFulfiller<void>> fulfiller;
};

SocketStream::SocketStream(std::shared_ptr<Loop> loop, kj::AutoCloseFd socket, OtherSide otherSide)
    : loop_(std::move(loop)),
      socket_(kj::mv(socket)),
      otherSide_(otherSide),
      buffer_(kj::heapArray<word>(kUsualBytes / sizeof(word))) {
  loop_->watch(socket_.get(), [this] {
    isDry_ = false;
    writeOn();
    if (!unhurried_.empty()) sendUnhurried();
    readOn();
    wantMore();
  });
}

SocketStream::~SocketStream() noexcept { loop_->unwatch(); }

void SocketStream::wantMore() const {
  loop_->want(static_cast<short>((reading_ && !isHeldBack() ? POLLIN : 0) |
                                 (outgoing_.empty() ? 0 : POLLOUT)));
}

kj::Promise<SocketStream::Read> SocketStream::tryReadMessage(
    kj::ArrayPtr<kj::AutoCloseFd> descriptors, capnp::ReaderOptions options, kj::ArrayPtr<word>) {
  KJ_REQUIRE(!reading_, "read twice at a time");
  auto coming = kj::newPromiseAndFulfiller<Read>();
  reading_ = Reading{descriptors, options, kj::mv(coming.fulfiller)};
  readOn();
  wantMore();
  return kj::mv(coming.promise);
}

void SocketStream::readOn() {
  if (!reading_ || isHeldBack()) return;
  Reading reading = kj::mv(*reading_);
  reading_.reset();
  if (!reading.fulfiller->isWaiting()) return;
  try {
    do {
      if (auto read = next(reading)) return reading.fulfiller->fulfill(kj::mv(*read));
      if (isAtEnd_ && buffered() > 0)
        kj::throwFatalException(KJ_EXCEPTION(DISCONNECTED, "ended within a message"));
      if (isAtEnd_) return reading.fulfiller->fulfill(nullptr);
    } while (!isDry_ && receive());
  } catch (kj::Exception& exception) {
    return reading.fulfiller->reject(kj::mv(exception));
  }
  reading_ = kj::mv(reading);
}

std::optional<SocketStream::Read> SocketStream::next(Reading& reading) {
  const auto prefix = buffer_.slice(begin_ / sizeof(word), end_ / sizeof(word));
  if (prefix.size() == 0) return std::nullopt;
  std::uint32_t lastSegment = 0;
  std::memcpy(&lastSegment, prefix.begin(), sizeof lastSegment);
  KJ_REQUIRE(lastSegment < kMostSegments, "a message that is too long: in too many pieces");
  const std::size_t words = capnp::expectedSizeInWordsFromPrefix(prefix);
  KJ_REQUIRE(words <= reading.options.traversalLimitInWords, "a message that is too long");
  if (words > prefix.size()) {
    makeRoom(words * sizeof(word) - buffered());
    return std::nullopt;
  }
  const std::size_t first = begin_ / sizeof(word);
  begin_ += words * sizeof(word);
  const std::uint64_t messageEnd = received_ - buffered();
  std::size_t count = 0;
  for (; !passed_.empty() && passed_.front().position <= messageEnd; passed_.pop_front()) {
    if (count < reading.descriptors.size())
      reading.descriptors[count++] = kj::mv(passed_.front().descriptor);
  }
  return Read(capnp::MessageReaderAndFds{takeOut(first, words, reading.options),
                                         reading.descriptors.slice(0, count)});
}

kj::Own<capnp::MessageReader> SocketStream::takeOut(std::size_t first, std::size_t words,
                                                    capnp::ReaderOptions options) {
  kj::Array<word> message;
  kj::ArrayPtr<word> place;
  if (begin_ == end_ && words * sizeof(word) >= kWorthTheBuffer) {
    message = std::exchange(buffer_, kj::heapArray<word>(kUsualBytes / sizeof(word)));
    place = message.slice(first, first + words);
    begin_ = end_ = 0;
  } else {
    message = kj::heapArray<word>(words);
    place = message;
    std::memcpy(place.begin(), buffer_.begin() + first, place.asBytes().size());
  }
  return kj::heap<capnp::FlatArrayMessageReader>(place, options).attach(kj::mv(message));
}

void SocketStream::makeRoom(std::size_t bytes) {
  const std::size_t size = buffer_.asBytes().size();
  if (begin_ == end_ && size > kUsualBytes && bytes <= kUsualBytes) {
    buffer_ =
        kj::heapArray<word>(kUsualBytes / sizeof(word));  // what was long once may not be again
  } else if (buffered() + bytes > size) {
    const std::size_t words = (buffered() + bytes + sizeof(word) - 1) / sizeof(word);
    auto longer = kj::heapArray<word>(words);
    std::memcpy(longer.begin(), buffer_.asBytes().begin() + begin_, buffered());
    buffer_ = kj::mv(longer);
  } else if (end_ + bytes > size) {
    std::memmove(buffer_.begin(), buffer_.asBytes().begin() + begin_, buffered());
  } else {
    return;
  }
  end_ = buffered();
  begin_ = 0;
}

bool SocketStream::receive() {
  if (begin_ == end_ || end_ == buffer_.asBytes().size())
    makeRoom(kUsualBytes - std::min(kUsualBytes - sizeof(word), buffered()));
  iovec room{buffer_.asBytes().begin() + end_, buffer_.asBytes().size() - end_};
  alignas(cmsghdr) Control control;
  msghdr header{};
  header.msg_iov = &room;
  header.msg_iovlen = 1;
  if (otherSide_ == OtherSide::trusted) {
    header.msg_control = control.data();
    header.msg_controllen = control.size();
  }
  ssize_t count = 0;
  do {
    count = ::recvmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  } while (count < 0 && errno == EINTR);
  if (count < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK) return false;
    kj::throwFatalException(failure("read from the other side"));
  }
  end_ += static_cast<std::size_t>(count);
  received_ += static_cast<std::uint64_t>(count);
  isAtEnd_ = count == 0;
  isDry_ = !isAtEnd_ && static_cast<std::size_t>(count) < room.iov_len;
  take(header);
  return true;
}

void SocketStream::take(const msghdr& header) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr;
       part = CMSG_NXTHDR(const_cast<msghdr*>(&header), part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(part) + i * sizeof(int), sizeof descriptor);
      passed_.push_back({received_, kj::AutoCloseFd(descriptor)});
    }
  }
}

kj::Promise<void> SocketStream::writeMessage(
    kj::ArrayPtr<const int> descriptors, kj::ArrayPtr<const kj::ArrayPtr<const word>> segments) {
  if (descriptors.size() == 0 && keepForLater(segments)) return kj::READY_NOW;
  Pieces pieces;
  pieces.add(segments);
  return write(pieces, descriptors);
}

kj::Promise<void> SocketStream::writeMessages(
    kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const word>>> messages) {
  Pieces pieces;
  for (const auto& segments : messages) pieces.add(segments);
  return write(pieces, nullptr);
}

bool SocketStream::keepForLater(kj::ArrayPtr<const kj::ArrayPtr<const word>> segments) {
  if (segments.size() != 1 ||
      unhurried_.size() + segments[0].asBytes().size() > kMostUnhurriedBytes || !outgoing_.empty())
    return false;
  capnp::SegmentArrayMessageReader message(segments);
  if (!message.getRoot<capnp::rpc::Message>().isFinish()) return false;
  loop_->wantSoon();
  Pieces pieces;
  pieces.add(segments);
  pieces.appendTo(unhurried_);
  return true;
}

kj::Promise<void> SocketStream::write(Pieces& pieces, kj::ArrayPtr<const int> descriptors) {
  if (!unhurried_.empty()) {
    // Descriptors go with the first byte of a write: with that of their own message.
    if (descriptors.size() > 0)
      sendUnhurried();
    else
      pieces.addBefore(std::exchange(unhurried_, {}));
  }
  if (outgoing_.empty()) {
    try {
      send(pieces, descriptors);
    } catch (kj::Exception& exception) {
      return kj::mv(exception);
    }
    if (pieces.left().empty()) return kj::READY_NOW;
  }
  auto later = kj::newPromiseAndFulfiller<void>();
  outgoing_.push_back({pieces.copyOfRest(), descriptors, kj::mv(later.fulfiller)});
  wantMore();
  return kj::mv(later.promise);
}

void SocketStream::sendUnhurried() {
  Pieces none;
  write(none, nullptr).detach([](kj::Exception&&) {
    // Whoever is gone: the next read says so.
  });
}

void SocketStream::writeOn() {
  while (!outgoing_.empty()) {
    Outgoing& first = outgoing_.front();
    // Whoever does not wait any more has taken the descriptors along.
    if (!first.fulfiller->isWaiting()) first.descriptors = nullptr;
    try {
      send(first.rest, first.descriptors);
      if (!first.rest.left().empty()) return;
      first.fulfiller->fulfill();
    } catch (kj::Exception& exception) {
      first.fulfiller->reject(kj::mv(exception));
    }
    outgoing_.pop_front();
  }
}

// As much as the other side takes now; the descriptors go with the first byte.
void SocketStream::send(Pieces& pieces, kj::ArrayPtr<const int>& descriptors) const {
  while (!pieces.left().empty()) {
    const auto left = pieces.left();
    alignas(cmsghdr) Control control{};
    msghdr header{};
    header.msg_iov = left.data();
    header.msg_iovlen = std::min<std::size_t>(left.size(), IOV_MAX);
    if (descriptors.size() > 0) {
      if (descriptors.size() > kMostDescriptors)
        kj::throwFatalException(KJ_EXCEPTION(FAILED, "too many descriptors for one message"));
      const std::size_t length = descriptors.size() * sizeof(int);
      header.msg_control = control.data();
      header.msg_controllen = CMSG_SPACE(length);
      cmsghdr* const part = CMSG_FIRSTHDR(&header);
      part->cmsg_level = SOL_SOCKET;
      part->cmsg_type = SCM_RIGHTS;
      part->cmsg_len = CMSG_LEN(length);
      std::memcpy(CMSG_DATA(part), descriptors.begin(), length);
    }
    const ssize_t count = ::sendmsg(socket_.get(), &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      pieces.drop(static_cast<std::size_t>(count));
      descriptors = nullptr;
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else if (errno != EINTR) {
      kj::throwFatalException(failure("write to the other side"));
    }
  }
}

kj::Maybe<int> SocketStream::getSendBufferSize() {
  int bytes = 0;
  socklen_t length = sizeof bytes;
  if (::getsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &bytes, &length) != 0) return nullptr;
  return bytes;
}

kj::Promise<void> SocketStream::end() {
  if (!unhurried_.empty()) sendUnhurried();
  ::shutdown(socket_.get(), SHUT_WR);
  return kj::READY_NOW;
}

}  // namespace kestrune::boundary
