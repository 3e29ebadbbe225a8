// The system's clock in whole seconds.
#pragma once

#include <chrono>
#include <cstdint>

namespace kestrune::service {

/// Seconds since 1970, rounded down.
inline std::int64_t secondsNow() {
  using namespace std::chrono;
  return floor<seconds>(system_clock::now()).time_since_epoch().count();
}

}  // namespace kestrune::service
