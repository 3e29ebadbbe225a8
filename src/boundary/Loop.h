// Where everything of one connection happens, one thing at a time: Cap'n Proto's event loop.
//
// Whoever has something to be done there does it on its own thread, unless another one is in the loop, which then does it too:
// between two processes each change of threads costs more than most messages. Two attendants, threads of the loop's own, wait for
// what comes from outside. One that has come out of the loop also calls the foreign code that was asked for there, as long as the
// other one waits meanwhile; what finds nobody to spare is left to the shared executor. So a call needs no third thread, and whoever
// is slow in it holds up nobody.
//
// What belongs to a connection (capabilities, promises) may be used and let go in the loop alone; `held` makes a value of it
// that other threads may keep.
//
// Threads: `post`, `run`, `held` and `isInside` on any thread; the others in the loop. Whoever posts may hold locks: what runs in
// the loop calls no foreign code. Fails: `make` throws NSPOSIXError.
#pragma once

#include <kj/async.h>
#include <kj/function.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace kestrune::boundary {

class Loop : public std::enable_shared_from_this<Loop> {
 public:
  static constexpr std::chrono::milliseconds kSoon{10};

  /// `name` of its attendants, its first 15 bytes. Throws where there are no descriptors or threads left.
  static std::shared_ptr<Loop> make(const std::string& name);
  /// May happen in the loop itself; what was posted still runs.
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  /// Runs `work` in the loop, in the order of the calls: now, or soon where somebody is in it. It must not throw.
  void post(kj::Function<void()> work) const;
  /// The same, and returns when it has run; at once where the caller is in the loop. What it throws, this throws.
  void run(kj::Function<void()> work) const;

  /// Whether the caller is in some loop: then it must not call foreign code.
  static bool isInside();
  /// Runs `work`, which may be foreign code, and lets it go: soon, outside of the loop that the caller is in, beside whatever else
  /// was asked for, on a thread that counts as one of the shared executor's (platform::ExecutorScope). It must not throw.
  static void callOut(std::function<void()> work);

  /// Calls `ready` whenever `descriptor`, of which there is one in a loop's life, has one of the events that were wanted last.
  void watch(int descriptor, std::function<void()> ready) const;
  /// The next call of `ready` is for one of `events` (as poll(2) names them); 0: none. May be called once more than that.
  void want(short events) const;
  /// `ready` is called within kSoon, whatever happens.
  void wantSoon() const;
  /// No more calls; the descriptor may be closed. The attendants leave.
  void unwatch() const;

  /// `value`, which is destroyed in the loop whoever lets it go.
  template <class T>
  std::shared_ptr<T> held(T value) {
    return {new T(kj::mv(value)), [loop = shared_from_this()](T* owned) {
              loop->post([owning = std::unique_ptr<T>(owned)]() mutable { owning.reset(); });
            }};
  }

 private:
  struct State;
  explicit Loop(std::shared_ptr<State> state) : state_(std::move(state)) {}

  const std::shared_ptr<State> state_;  // its attendants' too
};

}  // namespace kestrune::boundary
