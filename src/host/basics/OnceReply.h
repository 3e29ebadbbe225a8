// A reply that is given once, whatever the other side does: a second answer is ignored, and when the last copy is
// dropped without any, the answer is an error that says so.
//
// Threads: every operation may be called from any thread; copies share one reply.
#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "host/basics/Answer.h"

namespace kestrune::host {

template <class T>
class OnceReply {
 public:
  explicit OnceReply(Reply<T> reply) : state_(std::make_shared<State>(std::move(reply))) {}

  /// False if there was an answer before.
  bool answer(Answer<T> answer) const { return state_->answer(std::move(answer)); }

  /// The right to answer, for somebody else to hold; it keeps this reply alive.
  Reply<T> take() const {
    return [state = state_](Answer<T> answer) { state->answer(std::move(answer)); };
  }

 private:
  struct State {
    explicit State(Reply<T> reply) : reply_(std::move(reply)) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State() {
      answer(platform::NSErrorPtr(std::make_shared<platform::NSCocoaError>(
          platform::NSCocoaError::fileReadUnknown,
          "the extension dropped an operation without an answer")));
    }
    bool answer(Answer<T> answer) {
      if (answered_.exchange(true)) return false;
      const Reply<T> reply = std::move(reply_);
      reply(std::move(answer));
      return true;
    }
    std::atomic<bool> answered_ = false;
    Reply<T> reply_;
  };
  std::shared_ptr<State> state_;
};

}  // namespace kestrune::host
