#include "boundary/Loop.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <future>
#include <system_error>

#include "platform/values/Mutex.h"
#include "platform/values/NSError.h"

namespace kestrune::boundary {

using platform::MutexLock;
using platform::NSPOSIXError;

struct Loop::State {
  State() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake.get() < 0) throw NSPOSIXError(errno, "make an event descriptor");
  }
  const kj::AutoCloseFd wake;
  kj::AsyncIoContext* io = nullptr;  // the thread's own

  platform::Mutex mutex;
  std::deque<kj::Function<void()>> queue GUARDED_BY(mutex);
  bool isStopping GUARDED_BY(mutex) = false;

  void ring() const {
    const std::uint64_t one = 1;
    // Full only when it was rung often and nobody looked yet: then it wakes all the same.
    while (::write(wake.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
  }
  void answer() const {
    std::uint64_t rung = 0;
    while (::read(wake.get(), &rung, sizeof rung) < 0 && errno == EINTR) {
    }
  }
};

namespace {

std::unique_ptr<kj::AsyncIoContext> makeIo() {
  try {
    return std::make_unique<kj::AsyncIoContext>(kj::setupAsyncIo());
  } catch (const kj::Exception& exception) {
    // It has no error number; "overloaded" is what it calls a lack of descriptors.
    const bool isLack = exception.getType() == kj::Exception::Type::OVERLOADED;
    throw NSPOSIXError(isLack ? EMFILE : EIO,
                       std::string("make an event loop: ") + exception.getDescription().cStr());
  }
}

}  // namespace

std::shared_ptr<Loop> Loop::make(std::string name) {
  auto state = std::make_shared<State>();
  std::shared_ptr<Loop> loop(new Loop(state));
  std::promise<void> ready;
  try {
    loop->thread_ = std::thread([state, name = std::move(name), &ready] {
      ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
      std::unique_ptr<kj::AsyncIoContext> io;
      try {
        io = makeIo();
      } catch (const NSPOSIXError&) {
        return ready.set_exception(std::current_exception());
      }
      state->io = io.get();
      ready.set_value();
      serve(*state, *io);
    });
  } catch (const std::system_error& error) {
    throw NSPOSIXError(error.code().value(), "start a connection's thread");
  }
  ready.get_future().get();
  return loop;
}

Loop::~Loop() {
  if (!thread_.joinable()) return;  // it could not be started
  {
    MutexLock lock(state_->mutex);
    state_->isStopping = true;
  }
  state_->ring();
  if (std::this_thread::get_id() == thread_.get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void Loop::post(kj::Function<void()> work) const {
  bool wasEmpty = false;
  {
    MutexLock lock(state_->mutex);
    wasEmpty = state_->queue.empty();
    state_->queue.push_back(kj::mv(work));
  }
  if (wasEmpty) state_->ring();
}

void Loop::run(kj::Function<void()> work) const {
  if (std::this_thread::get_id() == thread_.get_id()) return work();
  std::promise<void> done;
  post([&] {
    work();
    done.set_value();
  });
  done.get_future().wait();
}

kj::AsyncIoContext& Loop::io() const { return *state_->io; }

void Loop::serve(State& state, kj::AsyncIoContext& io) {
  kj::UnixEventPort::FdObserver observer(io.unixEventPort, state.wake.get(),
                                         kj::UnixEventPort::FdObserver::OBSERVE_READ);
  // Always awaited: the port tells of a ring once, to whoever waits for it then.
  kj::Promise<void> rung = observer.whenBecomesReadable();
  const auto heard = [&] {
    rung.wait(io.waitScope);
    state.answer();
    rung = observer.whenBecomesReadable();
  };
  for (;;) {
    std::deque<kj::Function<void()>> taken;
    {
      MutexLock lock(state.mutex);
      if (state.queue.empty() && state.isStopping) return;
      taken.swap(state.queue);
    }
    if (taken.empty()) {
      heard();
      continue;
    }
    while (!taken.empty()) {
      taken.front()();
      taken.pop_front();
    }
    if (rung.poll(io.waitScope)) heard();
  }
}

}  // namespace kestrune::boundary
