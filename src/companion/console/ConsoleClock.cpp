#include "companion/console/ConsoleClock.h"

#include <cmath>
#include <cstdlib>

namespace kestrune {

namespace {

constexpr double kMicrosecondsPerSecond = 1e6;
constexpr std::int64_t kFarthestMicroseconds =
    std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::years(300)).count();

}  // namespace

bool ConsoleClock::advance(double seconds) {
  const double step = seconds * kMicrosecondsPerSecond;
  if (!(std::fabs(step) <= static_cast<double>(2 * kFarthestMicroseconds))) return false;
  std::int64_t offset = offsetMicroseconds_.load();
  std::int64_t moved = 0;
  do {
    moved = offset + std::llround(step);
    if (std::llabs(moved) > kFarthestMicroseconds) return false;
  } while (!offsetMicroseconds_.compare_exchange_weak(offset, moved));
  return true;
}

}  // namespace kestrune
