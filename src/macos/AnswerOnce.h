// A completion handler that is called exactly once, whatever becomes of it.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "platform/values/NSError.h"

namespace kestrune::macos {

/// Hands the first answer to the handler; later ones are dropped. If the last copy goes without an
/// answer, it fails as cancelled. Copies share one answer.
/// Threads: any; the handler runs on the thread of the answer.
template <class... Answer>
class AnswerOnce {
 public:
  using Handler = std::function<void(Answer...)>;
  /// How the handler is told of a failure.
  using Failing = std::function<void(const Handler&, platform::NSErrorPtr)>;

  AnswerOnce(Handler handler, Failing failing)
      : state_(std::make_shared<State>(std::move(handler), std::move(failing))) {}

  void operator()(Answer... answer) const {
    if (!state_->answered.exchange(true)) state_->handler(std::move(answer)...);
  }
  void fail(platform::NSErrorPtr error) const { state_->fail(std::move(error)); }

 private:
  struct State {
    State(Handler ownHandler, Failing ownFailing)
        : handler(std::move(ownHandler)), failing(std::move(ownFailing)) {}
    ~State() { fail(platform::CancellationError().share()); }
    void fail(platform::NSErrorPtr error) {
      if (!answered.exchange(true)) failing(handler, std::move(error));
    }

    std::atomic<bool> answered = false;
    const Handler handler;
    const Failing failing;
  };

  std::shared_ptr<State> state_;
};

}  // namespace kestrune::macos
