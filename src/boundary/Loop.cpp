#include "boundary/Loop.h"

#include <kj/io.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSPOSIXError;

namespace {

// So often a thread goes on with what others have posted meanwhile; then the loop's own takes over.
constexpr int kMostRounds = 8;
constexpr kj::uint kMostTurns = 64;  // a round

using Work = kj::Function<void()>;
using Queue = std::deque<Work>;

// An eventfd, which wakes whoever polls it.
class Bell {
 public:
  Bell() : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_.get() < 0) throw NSPOSIXError(errno, "make an event descriptor");
  }
  int descriptor() const { return descriptor_.get(); }
  void ring() const {
    const std::uint64_t one = 1;
    // Full only when it was rung often and nobody looked yet: then it wakes all the same.
    while (::write(descriptor_.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
  }
  void answer() const {
    std::uint64_t rung = 0;
    while (::read(descriptor_.get(), &rung, sizeof rung) < 0 && errno == EINTR) {
    }
  }

 private:
  const kj::AutoCloseFd descriptor_;
};

}  // namespace

struct Loop::State {
  State() = default;
  ~State();
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void post(Work work);
  void want(short events);
  // The own thread's work, until the end.
  void attend();

  kj::EventLoop events;         // of whoever is in the loop
  std::function<void()> ready;  // likewise
  const Bell bell;

  platform::Mutex mutex;
  Queue queue GUARDED_BY(mutex);
  bool isEntered GUARDED_BY(mutex) = false;
  bool isLeftToOwnThread GUARDED_BY(mutex) = false;  // it is entered then, by nobody else
  bool isPolling GUARDED_BY(mutex) = false;          // the own thread, for the two below
  int watched GUARDED_BY(mutex) = -1;
  short wanted GUARDED_BY(mutex) = 0;
  bool isStopping GUARDED_BY(mutex) = false;

 private:
  // What whoever is in the loop does next; none: it is out of it.
  std::optional<Queue> next(bool isLastRound);
  void serve();

  struct Awaited {
    bool isEnd = false;
    bool isTurn = false;   // the loop is left to this thread
    bool isReady = false;  // the descriptor has what was wanted
  };
  Awaited await();
};

namespace {

// The loop that this thread is in: one at a time.
thread_local const void* inside = nullptr;

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

void Loop::State::post(Work work) {
  const bool canEnter = inside == nullptr;
  {
    MutexLock lock(mutex);
    queue.push_back(kj::mv(work));
    if (std::exchange(isEntered, true)) return;
    isLeftToOwnThread = !canEnter;
  }
  if (canEnter) {
    serve();
  } else {
    bell.ring();
  }
}

std::optional<Queue> Loop::State::next(bool isLastRound) {
  MutexLock lock(mutex);
  if (queue.empty() && !events.isRunnable()) {
    isEntered = false;
    return std::nullopt;
  }
  if (isLastRound && !isStopping) {
    isLeftToOwnThread = true;
    bell.ring();
    return std::nullopt;
  }
  return std::exchange(queue, {});
}

void Loop::State::serve() {
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
  if (std::exchange(wanted, which) != which && isPolling) bell.ring();
}

Loop::State::Awaited Loop::State::await() {
  Awaited awaited;
  pollfd both[2] = {{bell.descriptor(), POLLIN, 0}, {-1, 0, 0}};
  {
    MutexLock lock(mutex);
    awaited.isTurn = std::exchange(isLeftToOwnThread, false);
    awaited.isEnd = isStopping && !awaited.isTurn;
    if (wanted != 0) both[1] = {watched, wanted, 0};
    isPolling = true;
  }
  const bool waits = !awaited.isTurn && !awaited.isEnd;
  const bool isAny = ::poll(both, 2, waits ? -1 : 0) > 0;
  if (isAny && both[0].revents != 0) bell.answer();
  MutexLock lock(mutex);
  isPolling = false;
  awaited.isReady = isAny && both[1].revents != 0 && watched == both[1].fd;
  if (awaited.isReady) wanted = 0;  // until it is wanted again: it stays ready until somebody reads
  return awaited;
}

void Loop::State::attend() {
  for (;;) {
    const Awaited awaited = await();
    if (awaited.isReady) {
      post([this] {
        if (ready) ready();
      });
    }
    if (awaited.isTurn) serve();
    if (awaited.isEnd) return;
  }
}

std::shared_ptr<Loop> Loop::make(std::string name) {
  const auto state = std::make_shared<State>();
  std::shared_ptr<Loop> loop(new Loop(state));
  try {
    std::thread([state, name = std::move(name)] {
      ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
      state->attend();
    }).detach();
  } catch (const std::system_error& error) {
    throw NSPOSIXError(error.code().value(), "start a connection's thread");
  }
  return loop;
}

Loop::~Loop() {
  {
    MutexLock lock(state_->mutex);
    state_->isStopping = true;
  }
  state_->bell.ring();
}

void Loop::post(kj::Function<void()> work) const {
  // Kept: what runs may let go of the loop.
  const auto state = state_;
  state->post(kj::mv(work));
}

void Loop::run(kj::Function<void()> work) const {
  if (inside == state_.get()) return work();
  std::promise<void> done;
  post([&] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

bool Loop::isInside() { return inside != nullptr; }

void Loop::watch(int descriptor, std::function<void()> ready) const {
  state_->ready = std::move(ready);
  MutexLock lock(state_->mutex);
  state_->watched = descriptor;
  state_->wanted = 0;
}

void Loop::want(short events) const { state_->want(events); }

void Loop::unwatch() const {
  state_->ready = nullptr;
  MutexLock lock(state_->mutex);
  state_->watched = -1;
  state_->wanted = 0;
  // Who polls a descriptor holds what is behind it, closed or not.
  if (state_->isPolling) state_->bell.ring();
}

}  // namespace kestrune::boundary
