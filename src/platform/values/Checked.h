// Arithmetic on byte offsets and counts that must not wrap around. An overflow means that somebody
// asked for a range that no file can have; going on with a wrong number could lose data, so the
// process ends with one line on standard error. Callable from any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace kestrune::platform {

/// Ends the process. `what` names the quantity ("the end of the range").
[[noreturn]] inline void dieOfOverflow(const char* what) {
  std::fprintf(stderr, "kestrune: fatal: %s does not fit 64 bits\n", what);
  std::abort();
}

inline std::int64_t addOrDie(std::int64_t a, std::int64_t b, const char* what) {
  std::int64_t result = 0;
  if (__builtin_add_overflow(a, b, &result)) dieOfOverflow(what);
  return result;
}

inline std::int64_t subtractOrDie(std::int64_t a, std::int64_t b, const char* what) {
  std::int64_t result = 0;
  if (__builtin_sub_overflow(a, b, &result)) dieOfOverflow(what);
  return result;
}

inline std::int64_t multiplyOrDie(std::int64_t a, std::int64_t b, const char* what) {
  std::int64_t result = 0;
  if (__builtin_mul_overflow(a, b, &result)) dieOfOverflow(what);
  return result;
}

inline std::int64_t absoluteOrDie(std::int64_t a, const char* what) {
  if (a == std::numeric_limits<std::int64_t>::min()) dieOfOverflow(what);
  return a < 0 ? -a : a;
}

/// The whole part of `value`.
inline std::int64_t truncateOrDie(double value, const char* what) {
  constexpr double kLimit = 0x1p63;
  if (!(value >= -kLimit && value < kLimit)) dieOfOverflow(what);  // NaN neither
  return static_cast<std::int64_t>(value);
}

}  // namespace kestrune::platform
