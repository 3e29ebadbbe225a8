// One connection of the fixture: reads requests, plays answers, until one side ends it. Internal to
// the fixture.
//
// Threads: belongs to the thread that runs it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tests/support/FixtureSocket.h"
#include "tests/support/FixtureState.h"

namespace kestrune::support {

class FixtureConnection {
 public:
  FixtureConnection(FixtureSocket& socket, FixtureState& state, std::size_t number,
                    std::size_t keptBodyBytes)
      : socket_(socket), state_(state), number_(number), keptBodyBytes_(keptBodyBytes) {}

  /// Serves until the connection ends.
  void serve();

 private:
  // How a part of an answer ended.
  enum class Step { done, faulted, abandoned };
  class BodyReader;

  // Requests
  bool awaitRequest();
  std::optional<ReceivedRequest> readHead();
  std::optional<Answer> answerFor(std::size_t sequence, const FixtureState::Decision& decision,
                                  BodyReader& body);
  std::optional<Answer> heldAnswer(std::size_t sequence);
  bool fill(const std::atomic<bool>* interrupted = nullptr);

  // Answers
  Step play(const AnswerPlan& plan, std::size_t sequence);
  Step playHead(const AnswerPlan& plan);
  Step playBody(const AnswerPlan& plan, std::size_t sequence);
  Step playFault(AnswerPlan::Fault::Kind kind);
  bool sendPiece(const AnswerPlan& plan, std::uint64_t offset, std::size_t size,
                 std::size_t sequence);
  bool send(std::string_view bytes, const std::function<void(std::size_t)>& sent = nullptr);
  // Waits, as long as the client is there and the fixture runs, until `ready` (which may wait a
  // little) says true.
  bool pauseUntil(const std::function<bool(std::chrono::milliseconds)>& ready);
  bool pauseFor(std::chrono::milliseconds duration);
  bool passGate(const std::optional<Gate>& gate);

  FixtureSocket& socket_;
  FixtureState& state_;
  const std::size_t number_;
  const std::size_t keptBodyBytes_;
  std::string received_;  // read from the socket and not yet used
  bool wasReset_ = false;
};

}  // namespace kestrune::support
