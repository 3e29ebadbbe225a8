#include "host/front/AnswerPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace kestrune::host {

namespace {

// A pipe holds so many pieces, each within one page of this size or a larger one.
constexpr std::size_t kPage = 4096;

}  // namespace

bool AnswerPipe::makeRoom(std::size_t bytes) {
  if (!in_) {
    std::array<int, 2> ends = {};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) return false;
    out_ = std::make_unique<Descriptor>(ends[0]);
    in_ = std::make_unique<Descriptor>(ends[1]);
    room_ = 0;
  }
  if (bytes <= room_) return true;
  const int got = ::fcntl(in_->number(), F_SETPIPE_SZ, static_cast<int>(bytes));
  if (got < 0) return false;
  room_ = static_cast<std::size_t>(got);
  return bytes <= room_;
}

bool AnswerPipe::gather(const iovec& header, int file, off_t offset, std::size_t length) {
  if (::write(in_->number(), header.iov_base, header.iov_len) !=
      static_cast<ssize_t>(header.iov_len))
    return false;
  while (length > 0) {
    const ssize_t count =
        ::splice(file, &offset, in_->number(), nullptr, length, SPLICE_F_NONBLOCK);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<ssize_t> AnswerPipe::send(int device, const iovec& header, int file, off_t offset,
                                        std::size_t length) {
  // One page for the header, and one for bytes that begin in the middle of a page.
  if (isRefused_ || !makeRoom(length + 2 * kPage)) {
    isRefused_ = true;
    return std::nullopt;
  }
  std::optional<ssize_t> sent;
  if (gather(header, file, offset, length)) {
    const ssize_t count =
        ::splice(out_->number(), nullptr, device, nullptr, header.iov_len + length, 0);
    if (count > 0) return count;
    // The request was given up: nobody wants another answer.
    if (count < 0 && errno == ENOENT) sent = count;
  }
  const int error = errno;
  out_.reset();  // with whatever is left in it
  in_.reset();
  errno = error;
  return sent;
}

}  // namespace kestrune::host
