// Something that a test holds back until it says so. Copies are the same gate.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

namespace kestrune::support {

class Gate {
 public:
  /// Closed.
  Gate();

  /// Lets everything pass, now and later.
  void open() const;
  /// Lets `permits` more pass: bytes of a body, or one head.
  void release(std::uint64_t permits = 1) const;

  /// Takes up to `most` permits; waits up to `patience` for the first. Returns 0 if none came.
  std::uint64_t take(std::uint64_t most, std::chrono::milliseconds patience) const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace kestrune::support
