#include "tests/support/FixtureConnection.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <charconv>
#include <thread>

#include "tests/support/Digest.h"

namespace kestrune::support {

using std::chrono::milliseconds;

namespace {

constexpr std::size_t kHeadLimit = 1U << 20U;
constexpr std::size_t kPieceBytes = 64U << 10U;
// How soon a connection that waits for a gate notices that its client has gone.
constexpr milliseconds kLookEvery{5};

// A request line and headers without the empty line; none if it is no request.
std::optional<ReceivedRequest> parseHead(std::string_view text) {
  const auto line = [&text]() {
    const std::size_t end = std::min(text.find("\r\n"), text.size());
    const std::string_view first = text.substr(0, end);
    text.remove_prefix(std::min(text.size(), end + 2));
    return first;
  };
  const std::string_view requestLine = line();
  const std::size_t firstSpace = requestLine.find(' ');
  const std::size_t lastSpace = requestLine.rfind(' ');
  if (firstSpace == std::string_view::npos || lastSpace == firstSpace) return std::nullopt;
  ReceivedRequest request;
  request.method = requestLine.substr(0, firstSpace);
  request.target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
  request.version = requestLine.substr(lastSpace + 1);
  while (!text.empty()) {
    const std::string_view header = line();
    const std::size_t colon = header.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    request.headers.emplace_back(
        header.substr(0, colon),
        boost::algorithm::trim_copy(std::string(header.substr(colon + 1))));
  }
  return request;
}

std::uint64_t parseNumber(std::string_view text, int base) {
  std::uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

}  // namespace

// The body of one request, announced by a length or in chunks: counts, hashes and keeps its
// beginning.
class FixtureConnection::BodyReader {
 public:
  BodyReader(FixtureConnection& connection, const ReceivedRequest& head)
      : connection_(connection),
        chunked_(
            boost::algorithm::icontains(head.header("Transfer-Encoding").value_or(""), "chunked")),
        left_(chunked_ ? 0 : parseNumber(head.header("Content-Length").value_or("0"), 10)) {
    isComplete_ = !chunked_ && left_ == 0;
  }

  // Reads until the body's first `until` bytes are there, or its end. False if the connection ended
  // first.
  bool readUntil(std::uint64_t until, const std::optional<AnswerPlan::Pace>& pace) {
    std::uint64_t nextPause = pace ? total_ + pace->pieceBytes : 0;
    while (!isComplete_ && total_ < until) {
      if (left_ == 0 && !beginChunk()) return false;
      if (isComplete_) break;
      if (connection_.received_.empty() && !connection_.fill()) return false;
      std::uint64_t most = std::min(left_, until - total_);
      if (pace) most = std::min(most, nextPause - total_);
      take(static_cast<std::size_t>(std::min<std::uint64_t>(most, connection_.received_.size())));
      if (pace && total_ == nextPause) {
        nextPause += pace->pieceBytes;
        if (!connection_.pauseFor(pace->pause)) return false;
      }
    }
    return true;
  }

  bool isComplete() const { return isComplete_; }

  void store(ReceivedRequest& request) {
    request.body = kept_;
    request.bodyBytes = total_;
    request.bodyIsComplete = isComplete_;
    if (isComplete_ && request.bodySha256.empty()) request.bodySha256 = digest_.finish();
  }

 private:
  void take(std::size_t count) {
    const std::string_view bytes = std::string_view(connection_.received_).substr(0, count);
    digest_.add(bytes);
    kept_.append(bytes.substr(0, std::min(count, connection_.keptBodyBytes_ - kept_.size())));
    total_ += count;
    left_ -= count;
    connection_.received_.erase(0, count);
    if (left_ == 0 && !chunked_) isComplete_ = true;
  }

  // Reads the line with the next chunk's size; before every chunk but the first stands the end of
  // the one before.
  bool beginChunk() {
    for (;;) {
      const std::size_t from = anyChunk_ ? 2 : 0;
      const std::size_t end = connection_.received_.find("\r\n", from);
      if (end == std::string::npos) {
        if (!connection_.fill()) return false;
        continue;
      }
      left_ = parseNumber(std::string_view(connection_.received_).substr(from, end - from), 16);
      connection_.received_.erase(0, end + 2);
      anyChunk_ = true;
      isComplete_ = left_ == 0;
      return true;
    }
  }

  FixtureConnection& connection_;
  const bool chunked_;
  bool anyChunk_ = false;
  bool isComplete_ = false;
  std::uint64_t left_;
  std::uint64_t total_ = 0;
  std::string kept_;
  Digest digest_;
};

bool FixtureConnection::fill(const std::atomic<bool>* interrupted) {
  const std::size_t before = received_.size();
  received_.resize(before + kPieceBytes);
  const std::size_t count = socket_.read(received_.data() + before, kPieceBytes, interrupted);
  received_.resize(before + count);
  return count > 0;
}

bool FixtureConnection::awaitRequest() {
  if (!received_.empty()) return true;
  const auto idleFlag = state_.idleFlag();
  ++state_.idleConnections;
  const bool arrived = fill(idleFlag.get());
  --state_.idleConnections;
  return arrived;
}

std::optional<ReceivedRequest> FixtureConnection::readHead() {
  if (!awaitRequest()) return std::nullopt;
  std::size_t end = 0;
  while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
    if (received_.size() > kHeadLimit || !fill()) return std::nullopt;
  }
  auto request = parseHead(std::string_view(received_).substr(0, end));
  received_.erase(0, end + 4);
  if (request) request->connection = number_;
  return request;
}

void FixtureConnection::serve() {
  for (;;) {
    const std::optional<ReceivedRequest> head = readHead();
    if (!head) return;
    const FixtureState::Decision decision = state_.decide(*head);
    const std::size_t sequence = state_.begin(*head);
    BodyReader body(*this, *head);
    const std::optional<Answer> answer = answerFor(sequence, decision, body);
    const Step ended = answer ? play(answer->plan(), sequence) : Step::abandoned;
    state_.end(sequence, ended == Step::done      ? AnswerOutcome::finished
                         : ended == Step::faulted ? AnswerOutcome::faulted
                                                  : AnswerOutcome::abandoned);
    if (ended != Step::done) break;
    const AnswerPlan& plan = answer->plan();
    const bool isShort = plan.announcedBytes.value_or(0) > plan.bodyBytes();
    if (plan.saysClose || plan.hangsUp || isShort ||
        plan.framing == AnswerPlan::Framing::untilClose)
      break;
    // The connection goes on, so what is left of the request must not be taken for the next one.
    const bool readWhole = body.readUntil(UINT64_MAX, std::nullopt);
    state_.change(sequence, [&body](ReceivedRequest& request) { body.store(request); });
    if (!readWhole) return;
  }
  if (!wasReset_) socket_.finish();
}

std::optional<Answer> FixtureConnection::answerFor(std::size_t sequence,
                                                   const FixtureState::Decision& decision,
                                                   BodyReader& body) {
  const Answer* decided = std::get_if<Answer>(&decision);
  const std::uint64_t until =
      decided == nullptr ? UINT64_MAX : decided->plan().requestBytesBefore.value_or(UINT64_MAX);
  const bool arrived =
      body.readUntil(until, decided == nullptr ? std::nullopt : decided->plan().requestPace);
  ReceivedRequest request;
  state_.change(sequence, [&](ReceivedRequest& recorded) {
    body.store(recorded);
    request = recorded;
  });
  if (!arrived) return std::nullopt;
  if (decided != nullptr) return *decided;
  if (const auto* handler = std::get_if<HttpFixture::Handler>(&decision))
    return (*handler)(request);
  return heldAnswer(sequence);
}

std::optional<Answer> FixtureConnection::heldAnswer(std::size_t sequence) {
  ReceivedRequest request;
  state_.change(sequence, [&request](const ReceivedRequest& recorded) { request = recorded; });
  const auto held = std::make_shared<HeldRequest::State>(std::move(request));
  state_.addHeld(held);
  std::optional<Answer> answer;
  pauseUntil([&](milliseconds patience) {
    answer = held->take(patience);
    return answer.has_value();
  });
  return answer;
}

bool FixtureConnection::pauseUntil(const std::function<bool(milliseconds)>& ready) {
  for (;;) {
    if (state_.stopping || socket_.peerHasGone()) return false;
    if (ready(kLookEvery)) return true;
  }
}

bool FixtureConnection::pauseFor(milliseconds duration) {
  const auto end = std::chrono::steady_clock::now() + duration;
  return pauseUntil([end](milliseconds patience) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= end) return true;
    std::this_thread::sleep_until(std::min(end, now + patience));
    return std::chrono::steady_clock::now() >= end;
  });
}

bool FixtureConnection::passGate(const std::optional<Gate>& gate) {
  if (!gate) return true;
  return pauseUntil([&gate](milliseconds patience) { return gate->take(1, patience) == 1; });
}

bool FixtureConnection::send(std::string_view bytes, const std::function<void(std::size_t)>& sent) {
  while (!bytes.empty()) {
    const std::size_t count = socket_.writeSome(bytes.substr(0, kPieceBytes));
    if (count == 0) return false;
    if (sent) sent(count);
    bytes.remove_prefix(count);
  }
  return true;
}

FixtureConnection::Step FixtureConnection::play(const AnswerPlan& plan, std::size_t sequence) {
  if (!passGate(plan.headGate) || !pauseFor(plan.headDelay)) return Step::abandoned;
  if (const Step head = playHead(plan); head != Step::done) return head;
  if (!passGate(plan.bodyGate) || !pauseFor(plan.bodyDelay)) return Step::abandoned;
  return playBody(plan, sequence);
}

FixtureConnection::Step FixtureConnection::playHead(const AnswerPlan& plan) {
  for (std::size_t i = 0; i < plan.informationalCount; ++i) {
    if (!send("HTTP/1.1 103 Early Hints\r\nLink: </style.css>\r\n\r\n")) return Step::abandoned;
  }
  const std::string text = plan.head();
  std::string_view head = text;
  if (plan.headFault) head = head.substr(0, static_cast<std::size_t>(plan.headFault->atByte));
  const std::size_t pieceBytes = plan.headPace ? plan.headPace->pieceBytes : head.size();
  for (std::size_t sent = 0; sent < head.size();) {
    if (sent > 0 && !pauseFor(plan.headPace->pause)) return Step::abandoned;
    const std::string_view piece = head.substr(sent, pieceBytes);
    if (!send(piece)) return Step::abandoned;
    sent += piece.size();
  }
  return plan.headFault ? playFault(plan.headFault->kind) : Step::done;
}

FixtureConnection::Step FixtureConnection::playBody(const AnswerPlan& plan, std::size_t sequence) {
  const std::uint64_t size =
      plan.bodyFault ? std::min(plan.bodyFault->atByte, plan.bodyBytes()) : plan.bodyBytes();
  const std::uint64_t pieceBytes = plan.bodyPace ? plan.bodyPace->pieceBytes : kPieceBytes;
  for (std::uint64_t offset = 0; offset < size;) {
    std::uint64_t count = std::min(pieceBytes, size - offset);
    if (plan.byteGate) {
      std::uint64_t allowed = 0;
      const bool passed = pauseUntil([&](milliseconds patience) {
        allowed = plan.byteGate->take(count, patience);
        return allowed > 0;
      });
      if (!passed) return Step::abandoned;
      count = allowed;
    }
    if (!sendPiece(plan, offset, static_cast<std::size_t>(count), sequence)) return Step::abandoned;
    offset += count;
    if (plan.bodyPace && offset < size && !pauseFor(plan.bodyPace->pause)) return Step::abandoned;
  }
  if (plan.bodyFault) return playFault(plan.bodyFault->kind);
  if (plan.framing == AnswerPlan::Framing::chunked && !send("0\r\n\r\n")) return Step::abandoned;
  return Step::done;
}

bool FixtureConnection::sendPiece(const AnswerPlan& plan, std::uint64_t offset, std::size_t size,
                                  std::size_t sequence) {
  const bool chunked = plan.framing == AnswerPlan::Framing::chunked;
  if (chunked) {
    std::array<char, 16> digits;
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), size, 16).ptr;
    if (!send(std::string(digits.data(), end) + "\r\n")) return false;
  }
  const bool sent = send(plan.bodyPiece(offset, size), [&](std::size_t count) {
    state_.change(sequence,
                  [count](ReceivedRequest& request) { request.answerBytesSent += count; });
  });
  return sent && (!chunked || send("\r\n"));
}

FixtureConnection::Step FixtureConnection::playFault(AnswerPlan::Fault::Kind kind) {
  switch (kind) {
    case AnswerPlan::Fault::Kind::close:
      return Step::faulted;
    case AnswerPlan::Fault::Kind::reset:
      socket_.reset();
      wasReset_ = true;
      return Step::faulted;
    case AnswerPlan::Fault::Kind::stall:
      pauseUntil([](milliseconds patience) {
        std::this_thread::sleep_for(patience);
        return false;
      });
      return Step::abandoned;
  }
  return Step::abandoned;
}

}  // namespace kestrune::support
