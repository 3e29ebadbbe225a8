// One connected client of the control socket: lines in and lines out without ever waiting for it. Lines are bounded, and no
// more is read than the one line that is being answered, so a client that sends much and reads little keeps it in its own
// memory.
//
// Threads: belongs to one thread.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/basics/LocalFile.h"

namespace kestrune::host {

class ControlPeer {
 public:
  static constexpr std::size_t kLongestLine = std::size_t{1} << 20U;

  explicit ControlPeer(std::unique_ptr<Descriptor> connection)
      : connection_(std::move(connection)) {}

  int descriptor() const { return connection_->number(); }

  /// Takes what has arrived. False if the connection has failed. REQUIRES: not ended, and no line too long.
  bool receive();
  /// The next whole line without its end, or what was left without one when the client ended its sending.
  std::optional<std::string> takeLine();
  /// More has arrived than one line may have, and no end.
  bool isLineTooLong() const { return line_.size() > kLongestLine; }
  /// The client sends no more. It may still wait for an answer.
  bool hasEnded() const { return ended_; }

  void put(const std::string& bytes) { out_ += bytes; }
  bool hasOutput() const { return sent_ < out_.size(); }
  /// Sends what goes at once. False if the connection has failed; `moved` tells whether anything went.
  bool send(bool& moved);

 private:
  std::unique_ptr<Descriptor> connection_;
  std::string line_;
  std::size_t searched_ = 0;  // so far no line ends in `line_`
  bool ended_ = false;
  std::string out_;
  std::size_t sent_ = 0;
};

}  // namespace kestrune::host
