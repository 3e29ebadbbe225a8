// One request of a client from its line to its last answer: puts it to the host, and for a waiting "sync" decides what the
// replies mean and when to look again.
//
//     begun ── reply ──► ended                                            every operation but "sync"
//     begun ── reply ──► looking ── reply ──► pausing ── time ──► looking … ended      "sync"
//
// Threads: belongs to the thread of ControlServer; the host's replies go to the mailbox, which that thread empties.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/control/ControlLetter.h"
#include "host/control/ControlRequest.h"
#include "host/control/HostControl.h"

namespace kestrune::host {

class ControlCall {
 public:
  using Clock = std::chrono::steady_clock;
  struct Surroundings {
    HostControl& control;
    std::shared_ptr<ControlMailbox> mailbox;
    /// What "about" answers; part of what "status" answers.
    platform::Json about;
  };

  /// `surroundings` outlives the call.
  ControlCall(const Surroundings& surroundings, ControlClientId client, ControlRequest request,
              Clock::time_point now);

  /// Bytes for the client, perhaps none.
  struct Output {
    std::string bytes;
    bool isLast = false;
  };
  Output received(ControlLetter letter, Clock::time_point now);
  /// REQUIRES: `wakeUp` has come.
  void resume(Clock::time_point now);
  /// When the call has something to do without a letter.
  std::optional<Clock::time_point> wakeUp() const;

 private:
  enum class State { begun, looking, pausing };

  void begin();
  void beginForPaths();
  void look();

  template <class T>
  Reply<T> toMailbox();
  template <class T>
  Reply<Each<T>> eachToMailbox();

  const Surroundings& surroundings_;
  const ControlClientId client_;
  const ControlRequest request_;
  const Clock::time_point deadline_;
  State state_ = State::begun;
  Clock::time_point nextLook_{};
  Clock::time_point nextProgress_;
  Clock::duration pause_;
};

}  // namespace kestrune::host
