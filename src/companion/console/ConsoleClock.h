// The system's clock, moved by as much as the writer of the calls has asked for. Threads: any.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/values/Date.h"

namespace kestrune {

class ConsoleClock : public platform::Clock {
 public:
  platform::Date now() const override {
    return platform::dateNow() + std::chrono::microseconds(offsetMicroseconds_.load());
  }

  /// Moves the clock, backwards too. False, and nothing moved, for what is no number or would take
  /// it more than 300 years away from the system's: its dates must stay ones that can be written.
  bool advance(double seconds);

 private:
  std::atomic<std::int64_t> offsetMicroseconds_ = 0;
};

}  // namespace kestrune
