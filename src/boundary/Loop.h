// A thread with Cap'n Proto's event loop: everything of one connection lives on it. Other threads hand it work.
//
// What belongs to a connection (capabilities, promises) may be used and let go on this thread alone; `held` makes a value of it
// that other threads may keep.
//
// Threads: `post` and `held` on any thread; `io` on the loop's own. Fails: `make` throws NSPOSIXError.
#pragma once

#include <kj/async-io.h>
#include <kj/async-unix.h>
#include <kj/function.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace kestrune::boundary {

class Loop : public std::enable_shared_from_this<Loop> {
 public:
  /// `name` of the thread, its first 15 bytes. Throws where there are no descriptors or threads left.
  static std::shared_ptr<Loop> make(std::string name);
  /// Ends the thread after what was posted. May happen on the thread itself.
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  /// Runs `work` on the thread, in the order of the calls. It must not throw.
  void post(kj::Function<void()> work) const;
  /// The same, and returns when it has run; at once where this is the loop's thread.
  void run(kj::Function<void()> work) const;

  /// REQUIRES: on the loop's thread.
  kj::AsyncIoContext& io() const;

  /// `value`, which is destroyed on the loop's thread whoever lets it go.
  template <class T>
  std::shared_ptr<T> held(T value) {
    return {new T(kj::mv(value)), [loop = shared_from_this()](T* owned) {
              loop->post([owning = std::unique_ptr<T>(owned)]() mutable { owning.reset(); });
            }};
  }

 private:
  struct State;
  explicit Loop(std::shared_ptr<State> state) : state_(std::move(state)) {}
  static void serve(State& state, kj::AsyncIoContext& io);

  const std::shared_ptr<State> state_;  // the thread's too
  std::thread thread_;
};

}  // namespace kestrune::boundary
