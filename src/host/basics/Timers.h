// Work at a later time, behind an interface so that tests move the time themselves.
//
// Threads: every operation may be called from any thread. Work runs on a thread of the timers' own choice, never inside
// `after`, and must not throw.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace kestrune::host {

class Timers {
 public:
  using Token = std::uint64_t;

  virtual ~Timers() = default;
  /// Runs `work` once when `delay` has passed. Tokens are not 0 and never used again.
  virtual Token after(std::chrono::nanoseconds delay, std::function<void()> work) = 0;
  /// Drops the work. It may run all the same if its time has just come. Unknown and past tokens are ignored.
  virtual void cancel(Token token) = 0;
  /// The time by which delays are measured, since some moment in the past.
  virtual std::chrono::nanoseconds now() const = 0;
};

/// Timers on the shared executor and the system's steady clock.
std::shared_ptr<Timers> systemTimers();

}  // namespace kestrune::host
