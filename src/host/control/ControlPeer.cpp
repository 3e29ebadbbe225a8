#include "host/control/ControlPeer.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace kestrune::host {

namespace {

constexpr std::size_t kPieceBytes = 64U << 10U;

bool isForLater(int errorNumber) {
  return errorNumber == EAGAIN || errorNumber == EWOULDBLOCK || errorNumber == EINTR;
}

}  // namespace

bool ControlPeer::receive() {
  std::array<char, kPieceBytes> piece{};
  const ssize_t got = ::recv(descriptor(), piece.data(), piece.size(), 0);
  if (got < 0) return isForLater(errno);
  if (got == 0) ended_ = true;
  line_.append(piece.data(), static_cast<std::size_t>(got));
  return true;
}

std::optional<std::string> ControlPeer::takeLine() {
  const std::size_t end = line_.find('\n', searched_);
  if (end == std::string::npos) {
    searched_ = line_.size();
    if (!ended_ || line_.empty() || isLineTooLong()) return std::nullopt;
    searched_ = 0;
    return std::exchange(line_, {});
  }
  if (end > kLongestLine) return std::nullopt;
  std::string line = line_.substr(0, end);
  line_.erase(0, end + 1);
  searched_ = 0;
  return line;
}

bool ControlPeer::send(bool& moved) {
  moved = false;
  while (hasOutput()) {
    const ssize_t went =
        ::send(descriptor(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (went < 0) return isForLater(errno);
    sent_ += static_cast<std::size_t>(went);
    moved = true;
  }
  out_.clear();
  sent_ = 0;
  return true;
}

}  // namespace kestrune::host
