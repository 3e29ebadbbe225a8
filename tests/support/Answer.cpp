#include "tests/support/Answer.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <cstring>
#include <utility>
#include <vector>

#include "tests/support/Digest.h"

namespace kestrune::support {

using Framing = AnswerPlan::Framing;
using Fault = AnswerPlan::Fault;

namespace {

constexpr std::uint64_t kEndless = std::numeric_limits<std::uint64_t>::max();

// A 204 and a 304 have no body, and a length in them would be wrong.
bool hasBody(int status) { return status != 204 && status != 304; }

bool names(const RawHeaders& headers, std::string_view name) {
  return std::any_of(headers.begin(), headers.end(), [name](const auto& header) {
    return boost::algorithm::iequals(header.first, name);
  });
}

}  // namespace

std::string AnswerPlan::head() const {
  if (rawHead) return *rawHead;
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  for (const auto& [name, value] : headers)
    text.append(name).append(": ").append(value).append("\r\n");
  if (framing == Framing::chunked) {
    text += "Transfer-Encoding: chunked\r\n";
  } else if (framing == Framing::contentLength && hasBody(status) &&
             !names(headers, "Content-Length")) {
    text += "Content-Length: " + std::to_string(announcedBytes.value_or(bodyBytes())) + "\r\n";
  }
  if (saysClose) text += "Connection: close\r\n";
  return text + "\r\n";
}

std::string AnswerPlan::bodyPiece(std::uint64_t offset, std::size_t count) const {
  return patternBytes ? support::patternBytes(offset, count)
                      : body.substr(static_cast<std::size_t>(offset), count);
}

Answer::Answer(int status, std::string body) {
  plan_.status = status;
  plan_.body = std::move(body);
}

template <class Change>
Answer Answer::changed(const Change& change) const {
  Answer copy = *this;
  change(copy.plan_);
  return copy;
}

Answer Answer::pattern(std::uint64_t bytes) {
  return Answer(200).changed([&](AnswerPlan& plan) { plan.patternBytes = bytes; });
}

Answer Answer::endless() { return pattern(kEndless).withoutLength(); }

Answer Answer::redirect(int status, std::string location) {
  return Answer(status).with("Location", std::move(location));
}

Answer Answer::never() { return Answer(200).held(Gate()); }

Answer Answer::raw(std::string head, std::string body) {
  return Answer(200, std::move(body)).changed([&](AnswerPlan& plan) {
    plan.rawHead = std::move(head);
  });
}

Answer Answer::with(std::string name, std::string value) const {
  return changed(
      [&](AnswerPlan& plan) { plan.headers.emplace_back(std::move(name), std::move(value)); });
}

Answer Answer::withManyHeaders(std::size_t count) const {
  return changed([&](AnswerPlan& plan) {
    for (std::size_t i = 0; i < count; ++i)
      plan.headers.emplace_back("X-Filler-" + std::to_string(i), "x");
  });
}

Answer Answer::withLargeHeader(std::size_t bytes) const {
  return with("X-Large", std::string(bytes, 'x'));
}

Answer Answer::afterInformational(std::size_t count) const {
  return changed([&](AnswerPlan& plan) { plan.informationalCount = count; });
}

Answer Answer::chunked() const {
  return changed([](AnswerPlan& plan) { plan.framing = Framing::chunked; });
}

Answer Answer::withoutLength() const {
  return changed([](AnswerPlan& plan) { plan.framing = Framing::untilClose; });
}

Answer Answer::announcing(std::uint64_t bytes) const {
  return changed([&](AnswerPlan& plan) { plan.announcedBytes = bytes; });
}

Answer Answer::closingConnection() const {
  return changed([](AnswerPlan& plan) { plan.saysClose = true; });
}

Answer Answer::hangingUp() const {
  return changed([](AnswerPlan& plan) { plan.hangsUp = true; });
}

Answer Answer::afterRequestBytes(std::uint64_t bytes) const {
  return changed([&](AnswerPlan& plan) { plan.requestBytesBefore = bytes; });
}

Answer Answer::readingRequestBy(std::size_t pieceBytes, std::chrono::milliseconds pause) const {
  return changed([&](AnswerPlan& plan) { plan.requestPace = {pieceBytes, pause}; });
}

Answer Answer::held(Gate gate) const {
  return changed([&](AnswerPlan& plan) { plan.headGate = std::move(gate); });
}

Answer Answer::headAfter(std::chrono::milliseconds delay) const {
  return changed([&](AnswerPlan& plan) { plan.headDelay = delay; });
}

Answer Answer::headPieces(std::size_t pieceBytes, std::chrono::milliseconds pause) const {
  return changed([&](AnswerPlan& plan) { plan.headPace = {pieceBytes, pause}; });
}

Answer Answer::bodyHeld(Gate gate) const {
  return changed([&](AnswerPlan& plan) { plan.bodyGate = std::move(gate); });
}

Answer Answer::bodyAfter(std::chrono::milliseconds delay) const {
  return changed([&](AnswerPlan& plan) { plan.bodyDelay = delay; });
}

Answer Answer::steppedBy(Gate gate) const {
  return changed([&](AnswerPlan& plan) { plan.byteGate = std::move(gate); });
}

Answer Answer::pieces(std::size_t pieceBytes, std::chrono::milliseconds pause) const {
  return changed([&](AnswerPlan& plan) { plan.bodyPace = {pieceBytes, pause}; });
}

Answer Answer::closingInHead(std::uint64_t atByte) const {
  return changed([&](AnswerPlan& plan) { plan.headFault = {Fault::Kind::close, atByte}; });
}

Answer Answer::resettingInHead(std::uint64_t atByte) const {
  return changed([&](AnswerPlan& plan) { plan.headFault = {Fault::Kind::reset, atByte}; });
}

Answer Answer::stallingInHead(std::uint64_t atByte) const {
  return changed([&](AnswerPlan& plan) { plan.headFault = {Fault::Kind::stall, atByte}; });
}

Answer Answer::closingAt(std::uint64_t bodyByte) const {
  return changed([&](AnswerPlan& plan) { plan.bodyFault = {Fault::Kind::close, bodyByte}; });
}

Answer Answer::resettingAt(std::uint64_t bodyByte) const {
  return changed([&](AnswerPlan& plan) { plan.bodyFault = {Fault::Kind::reset, bodyByte}; });
}

Answer Answer::stallingAt(std::uint64_t bodyByte) const {
  return changed([&](AnswerPlan& plan) { plan.bodyFault = {Fault::Kind::stall, bodyByte}; });
}

std::string patternBytes(std::uint64_t offset, std::size_t count) {
  // A sequence of 32-bit words, each its own index scrambled by an odd factor: a bijection, so no
  // word comes twice.
  const std::size_t skipped = offset % 4;
  std::vector<std::uint32_t> words((skipped + count + 3) / 4);
  auto index = static_cast<std::uint32_t>(offset / 4);
  for (std::uint32_t& word : words) word = index++ * 2654435761U;
  std::string bytes(count, '\0');
  if (count > 0)
    std::memcpy(bytes.data(), reinterpret_cast<const char*>(words.data()) + skipped, count);
  return bytes;
}

std::string patternSha256(std::uint64_t count) {
  constexpr std::uint64_t kPiece = 1U << 20U;
  Digest digest;
  for (std::uint64_t offset = 0; offset < count; offset += kPiece) {
    digest.add(patternBytes(offset, static_cast<std::size_t>(std::min(kPiece, count - offset))));
  }
  return digest.finish();
}

}  // namespace kestrune::support
