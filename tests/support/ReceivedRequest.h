// One request as the fixture has received it, byte for byte, and what became of its answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrune::support {

using RawHeaders = std::vector<std::pair<std::string, std::string>>;

enum class AnswerOutcome {
  /// Not yet begun, held, stalled, or on its way.
  underway,
  /// Sent to its last byte.
  finished,
  /// Ended by the fault that the answer asked for: a reset or an early close.
  faulted,
  /// The client went away, or the fixture ended, before the answer was sent whole.
  abandoned,
};

struct ReceivedRequest {
  /// In order of arrival of the heads, from 0.
  std::size_t sequence = 0;
  /// In order of acceptance, from 0.
  std::size_t connection = 0;
  std::string method;
  /// As written in the request line.
  std::string target;
  std::string version;
  /// Names and order as received; values without the space around them.
  RawHeaders headers;

  /// The body's first bytes, up to HttpFixtureOptions::keptBodyBytes, with the length and digest of
  /// the whole.
  std::string body;
  std::uint64_t bodyBytes = 0;
  std::string bodySha256;
  /// Whether the whole body has arrived. The four fields above are final then.
  bool bodyIsComplete = false;

  AnswerOutcome outcome = AnswerOutcome::underway;
  /// Bytes of the answer's body that the socket has taken, without chunk framing. Counted just
  /// after they were taken, so a client may see a byte a moment before it is counted.
  std::uint64_t answerBytesSent = 0;

  /// The target up to its query.
  std::string path() const { return target.substr(0, target.find('?')); }
  /// The first value of the header, its name compared without case.
  std::optional<std::string> header(std::string_view name) const;
  /// How many headers have this name, compared without case.
  std::size_t headerCount(std::string_view name) const;
  /// All names in lower case, sorted.
  std::vector<std::string> headerNames() const;
};

}  // namespace kestrune::support
