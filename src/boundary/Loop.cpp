#include "boundary/Loop.h"

#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <deque>
#include <future>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "boundary/Watch.h"
#include "platform/tasks/Task.h"
#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSPOSIXError;

namespace {

// So often a thread goes on with what others have posted meanwhile; then an attendant takes over.
constexpr int kMostRounds = 8;
constexpr kj::uint kMostTurns = 64;  // a round
constexpr int kAttendants = 2;

using Queue = std::deque<kj::Function<void()>>;
using Calls = std::vector<std::function<void()>>;

}  // namespace

struct Loop::State : std::enable_shared_from_this<State> {
  State() = default;
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void post(kj::Function<void()> work);
  void want(short events);
  void wantSoon();
  void stop();
  // An attendant's work, until the end.
  void attend();

  kj::EventLoop events;         // of whoever is in the loop
  std::function<void()> ready;  // likewise
  Watch watch;

  platform::Mutex mutex;
  Queue queue GUARDED_BY(mutex);
  bool isEntered GUARDED_BY(mutex) = false;
  bool isLeftToOthers GUARDED_BY(mutex) = false;  // it is entered then, by nobody else
  bool isStopping GUARDED_BY(mutex) = false;
  short wanted GUARDED_BY(mutex) = 0;
  short armed GUARDED_BY(mutex) = 0;  // what the watch tells of
  bool isSoonArmed GUARDED_BY(mutex) = false;

 private:
  // What whoever is in the loop does next; none: it is out of it.
  std::optional<Queue> next(bool isLastRound);
  void leaveToOthers() REQUIRES_LOCK(mutex);
  void serve() noexcept;
  void callOut(Calls calls) const;

  std::atomic<int> waiting_ = 0;  // attendants
};

namespace {

// The loop that this thread is in: one at a time.
thread_local const void* inside = nullptr;
// What an attendant has been asked to call when it is out; null on other threads.
thread_local Calls* calledOut = nullptr;

void onExecutor(std::function<void()> work) {
  boost::asio::post(platform::sharedExecutor(), std::move(work));
}

}  // namespace

Loop::State::~State() {
  const auto clear = [this] {
    kj::WaitScope scope(events);
    scope.cancelAllDetached();  // nobody waits for it any more
    ready = nullptr;
    MutexLock lock(mutex);
    queue.clear();
  };
  if (inside == nullptr) {
    clear();
  } else {
    std::thread(clear).join();
  }
}

void Loop::State::post(kj::Function<void()> work) {
  {
    MutexLock lock(mutex);
    queue.push_back(kj::mv(work));
    if (std::exchange(isEntered, true)) return;
    if (inside != nullptr) return leaveToOthers();
  }
  serve();
}

void Loop::State::leaveToOthers() {
  if (isStopping) return onExecutor([self = shared_from_this()] { self->serve(); });
  isLeftToOthers = true;
  watch.ring();
}

std::optional<Queue> Loop::State::next(bool isLastRound) {
  MutexLock lock(mutex);
  if (queue.empty() && !events.isRunnable()) {
    if (wanted != 0 && wanted != armed) watch.arm(armed = wanted);
    isEntered = false;
    return std::nullopt;
  }
  if (isLastRound) {
    leaveToOthers();
    return std::nullopt;
  }
  return std::exchange(queue, {});
}

void Loop::State::serve() noexcept {
  inside = this;
  for (int round = 0;; ++round) {
    auto taken = next(round >= kMostRounds);
    if (!taken) break;
    kj::WaitScope scope(events);
    for (; !taken->empty(); taken->pop_front()) taken->front()();
    events.run(kMostTurns);
  }
  inside = nullptr;
}

void Loop::State::want(short which) {
  MutexLock lock(mutex);
  wanted = which;
}

void Loop::State::wantSoon() {
  MutexLock lock(mutex);
  if (!std::exchange(isSoonArmed, true)) watch.armTimer(kSoon);
}

void Loop::State::stop() {
  MutexLock lock(mutex);
  isStopping = true;
  watch.ring();
}

void Loop::State::attend() {
  Calls calls;
  calledOut = &calls;
  for (;;) {
    ++waiting_;
    const Watch::Event event = watch.wait();
    --waiting_;
    bool isTurn = false;
    bool isEnd = false;
    {
      MutexLock lock(mutex);
      if (event == Watch::Event::descriptor) armed = wanted = 0;  // until it is wanted again
      if (event == Watch::Event::timer) isSoonArmed = false;
      isTurn = std::exchange(isLeftToOthers, false);
      isEnd = isStopping;
    }
    if (isTurn) serve();
    if (event != Watch::Event::bell) {
      post([this] {
        if (ready) ready();
      });
    }
    if (!calls.empty()) callOut(std::exchange(calls, {}));
    if (!isEnd) continue;
    calledOut = nullptr;
    return watch.ring();  // for the other one
  }
}

void Loop::State::callOut(Calls calls) const {
  std::function<void()> here;
  if (waiting_ > 0) {
    here = std::move(calls.back());
    calls.pop_back();
  }
  for (auto& call : calls) onExecutor(std::move(call));
  if (!here) return;
  auto* const ours = std::exchange(calledOut, nullptr);  // it is not out of what it calls
  {
    const platform::ExecutorScope scope;
    here();
    here = nullptr;
  }
  calledOut = ours;
}

std::shared_ptr<Loop> Loop::make(const std::string& name) {
  const auto state = std::make_shared<State>();
  std::shared_ptr<Loop> loop(new Loop(state));
  try {
    for (int i = 0; i < kAttendants; ++i) {
      std::thread([state, name = name.substr(0, 15)] {
        ::pthread_setname_np(::pthread_self(), name.c_str());
        state->attend();
      }).detach();
    }
  } catch (const std::system_error& error) {
    throw NSPOSIXError(error.code().value(), "start a connection's thread");
  }
  return loop;
}

Loop::~Loop() { state_->stop(); }

void Loop::post(kj::Function<void()> work) const {
  // Kept: what runs may let go of the loop.
  const auto state = state_;
  state->post(kj::mv(work));
}

void Loop::run(kj::Function<void()> work) const {
  if (inside == state_.get()) return work();
  std::promise<void> done;
  post([&] {
    try {
      work();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  done.get_future().get();
}

bool Loop::isInside() { return inside != nullptr; }

void Loop::callOut(std::function<void()> work) {
  if (calledOut != nullptr && inside != nullptr) {
    calledOut->push_back(std::move(work));
  } else {
    onExecutor(std::move(work));
  }
}

void Loop::watch(int descriptor, std::function<void()> ready) const {
  state_->ready = std::move(ready);
  state_->watch.add(descriptor);
}

void Loop::want(short events) const { state_->want(events); }

void Loop::wantSoon() const { state_->wantSoon(); }

void Loop::unwatch() const {
  state_->ready = nullptr;
  state_->watch.remove();
  state_->want(0);
  state_->stop();
}

}  // namespace kestrune::boundary
