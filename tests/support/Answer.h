// What the fixture answers to one request, faults included. A value: built once, played any number
// of times.
//
//     Answer(200, "hello").with("ETag", "\"v1\"")
//     Answer(200, body).announcing(body.size() * 2)     // ends early
//     Answer(200, body).resettingAt(1000)               // reset after 1000 bytes of the body
//     Answer::pattern(1 << 30).pieces(16 * 1024, 5ms)   // a slow gigabyte that is nowhere in memory
//     Answer::never()                                   // nothing comes back
//
// An answer is played in this order: wait for the request (whole, unless told otherwise); wait for
// the gate of the head; the head's delay; informational answers; the head; wait for the gate of the
// body; the body's delay; the body piece by piece; the end. Bytes are counted from the first one of
// the head for faults "in the head", from the first one of the body for the others. Nothing is sent
// that was not asked for: the only header added is Content-Length (or Transfer-Encoding), and
// Connection where the answer says that it closes.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "tests/support/Gate.h"
#include "tests/support/ReceivedRequest.h"

namespace kestrune::support {

/// What an answer consists of. Tests build it with Answer; the fixture plays it.
struct AnswerPlan {
  enum class Framing { contentLength, chunked, untilClose };
  struct Fault {
    enum class Kind { close, reset, stall };
    Kind kind;
    std::uint64_t atByte;
  };
  struct Pace {
    std::size_t pieceBytes;
    std::chrono::milliseconds pause;
  };

  int status = 200;
  RawHeaders headers;
  /// In the place of status line and headers; it ends with an empty line of its own.
  std::optional<std::string> rawHead;
  std::size_t informationalCount = 0;

  std::string body;
  /// In the place of `body`: so many bytes of the pattern.
  std::optional<std::uint64_t> patternBytes;
  Framing framing = Framing::contentLength;
  std::optional<std::uint64_t> announcedBytes;
  bool saysClose = false;
  bool hangsUp = false;

  /// How many bytes of the request's body are read before the answer begins; none means all.
  std::optional<std::uint64_t> requestBytesBefore;
  std::optional<Pace> requestPace;

  std::optional<Gate> headGate;
  std::chrono::milliseconds headDelay{0};
  std::optional<Pace> headPace;
  std::optional<Gate> bodyGate;
  std::chrono::milliseconds bodyDelay{0};
  std::optional<Gate> byteGate;
  std::optional<Pace> bodyPace;
  std::optional<Fault> headFault;
  std::optional<Fault> bodyFault;

  std::uint64_t bodyBytes() const { return patternBytes.value_or(body.size()); }
  /// The head as it goes out.
  std::string head() const;
  /// The body's bytes [offset, offset + count).
  std::string bodyPiece(std::uint64_t offset, std::size_t count) const;
};

class Answer {
 public:
  explicit Answer(int status, std::string body = {});

  /// 200 with `bytes` bytes of the pattern (patternBytes below).
  static Answer pattern(std::uint64_t bytes);
  /// 200 with a body without length that goes on until somebody ends it.
  static Answer endless();
  /// `status` with a Location.
  static Answer redirect(int status, std::string location);
  /// No byte, until the client goes away or the fixture ends.
  static Answer never();
  /// `head` as it is; it must hold its own empty line at the end. The body follows without framing.
  static Answer raw(std::string head, std::string body = {});

  // Head
  Answer with(std::string name, std::string value) const;
  Answer withManyHeaders(std::size_t count) const;
  Answer withLargeHeader(std::size_t bytes) const;
  /// So many "103 Early Hints" before the answer itself.
  Answer afterInformational(std::size_t count) const;

  // Framing
  Answer chunked() const;
  /// The end of the connection is the end of the body.
  Answer withoutLength() const;
  /// Content-Length says `bytes`, whatever is sent. After a shorter body the connection is closed.
  Answer announcing(std::uint64_t bytes) const;
  /// "Connection: close", and then it is closed.
  Answer closingConnection() const;
  /// Closes after the answer without having said so.
  Answer hangingUp() const;

  // The request
  /// Answers as soon as the request's head is there; what follows of it is read and dropped
  /// afterwards.
  Answer early() const { return afterRequestBytes(0); }
  /// The same after so many bytes of the request's body.
  Answer afterRequestBytes(std::uint64_t bytes) const;
  /// Reads the request's body in pieces with pauses between them.
  Answer readingRequestBy(std::size_t pieceBytes, std::chrono::milliseconds pause) const;

  // Time
  /// Holds everything until the gate lets one head pass.
  Answer held(Gate gate) const;
  Answer headAfter(std::chrono::milliseconds delay) const;
  /// The head in pieces with pauses between them.
  Answer headPieces(std::size_t pieceBytes, std::chrono::milliseconds pause) const;
  /// Holds the body, the head being sent, until the gate lets one pass.
  Answer bodyHeld(Gate gate) const;
  Answer bodyAfter(std::chrono::milliseconds delay) const;
  /// Each byte of the body needs a permit of the gate.
  Answer steppedBy(Gate gate) const;
  /// The body in pieces with pauses between them.
  Answer pieces(std::size_t pieceBytes, std::chrono::milliseconds pause) const;

  // Faults
  Answer closingInHead(std::uint64_t atByte) const;
  Answer resettingInHead(std::uint64_t atByte) const;
  Answer stallingInHead(std::uint64_t atByte) const;
  Answer closingAt(std::uint64_t bodyByte) const;
  Answer resettingAt(std::uint64_t bodyByte) const;
  Answer stallingAt(std::uint64_t bodyByte) const;

  const AnswerPlan& plan() const { return plan_; }

 private:
  template <class Change>
  Answer changed(const Change& change) const;
  AnswerPlan plan_;
};

/// The pattern's bytes [offset, offset + count): no two places within 2 GiB look the same, so that
/// a piece that is lost, repeated or exchanged shows.
std::string patternBytes(std::uint64_t offset, std::size_t count);
/// SHA-256 of the pattern's first `count` bytes.
std::string patternSha256(std::uint64_t count);

}  // namespace kestrune::support
