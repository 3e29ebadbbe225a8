// What a loop's attendants wait for: one descriptor, a timer, and a bell. However many wait, each event wakes one of them.
//
// Threads: any; `add` and `remove` not beside `arm`. Fails: the constructor and `add` throw NSPOSIXError.
#pragma once

#include <kj/io.h>

#include <chrono>

namespace kestrune::boundary {

class Watch {
 public:
  enum class Event { bell, descriptor, timer };

  Watch();

  /// The descriptor, which is not this object's; nothing is told of it before `arm`.
  void add(int descriptor);
  /// It may be closed; an event that was told before may still be on its way.
  void remove();
  /// Tells once of one of `events` (as poll(2) names them), or of an error or a hang-up.
  void arm(short events) const;
  /// Tells once, so long from now.
  void armTimer(std::chrono::milliseconds delay) const;
  /// Wakes one who waits, or the next who will. Rung again before that, it may be heard once only.
  void ring() const;

  Event wait() const;

 private:
  void addForGood(int descriptor, Event event) const;

  const kj::AutoCloseFd bell_;
  const kj::AutoCloseFd timer_;
  const kj::AutoCloseFd epoll_;
  int descriptor_ = -1;
};

}  // namespace kestrune::boundary
