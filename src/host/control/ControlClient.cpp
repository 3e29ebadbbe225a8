#include "host/control/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "host/control/ControlSocket.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

using platform::Json;
using platform::NSPOSIXError;

namespace {

constexpr std::size_t kPieceBytes = 64U << 10U;
/// Beyond any answer: a thousand changes with the longest of paths and reasons.
constexpr std::size_t kLongestAnswer = std::size_t{64} << 20U;

}  // namespace

ControlClient::ControlClient(const std::filesystem::path& socketFile)
    : what_("talk to the host at '" + socketFile.string() + "'"),
      connection_(ControlSocket::connect(socketFile)) {}

Json ControlClient::ask(const ControlRequest& request, const Progress& progress,
                        std::optional<std::chrono::milliseconds> patience) {
  send(request.encode() + "\n");
  for (;;) {
    const std::string line = readLine(patience);
    const Json answer = platform::decodeJson(line);
    if (!answer.is_object()) throw NSPOSIXError(EPROTO, what_);
    if (!answer.value("done", false)) {
      if (progress) progress(answer);
      continue;
    }
    if (answer.contains("error")) throw ControlRefusal(answer.value("error", ""));
    return answer.value("result", Json());
  }
}

void ControlClient::send(const std::string& bytes) const {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t went =
        ::send(connection_->number(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (went < 0 && errno == EINTR) continue;
    if (went < 0 && (errno == EPIPE || errno == ECONNRESET)) return;  // why was perhaps answered
    if (went < 0) throw NSPOSIXError(errno, what_);
    sent += static_cast<std::size_t>(went);
  }
}

std::string ControlClient::readLine(std::optional<std::chrono::milliseconds> patience) {
  std::array<char, kPieceBytes> piece{};
  for (std::size_t searched = 0;;) {
    const std::size_t end = unread_.find('\n', searched);
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    searched = unread_.size();
    if (searched > kLongestAnswer) throw NSPOSIXError(EMSGSIZE, what_);
    pollfd polled = {connection_->number(), POLLIN, 0};
    const int ready = ::poll(&polled, 1, patience ? static_cast<int>(patience->count()) : -1);
    if (ready < 0 && errno != EINTR) throw NSPOSIXError(errno, what_);
    if (ready == 0) throw NSPOSIXError(ETIMEDOUT, what_);
    if (ready < 0) continue;
    const ssize_t got = ::recv(connection_->number(), piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw NSPOSIXError(errno, what_);
    if (got == 0) throw NSPOSIXError(ECONNRESET, what_);
    unread_.append(piece.data(), static_cast<std::size_t>(got));
  }
}

}  // namespace kestrune::host
