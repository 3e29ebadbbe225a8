// Points in time and their ISO 8601 texts.
//
// A Date counts microseconds since 1970-01-01 00:00:00 UTC in 64 bits: that covers the years 0 to
// 9999, which are all that the texts can name, and keeps exact comparison and exact arithmetic.
// Finer fractions are cut.
//
// Threads: all functions may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

using Date = std::chrono::sys_time<std::chrono::microseconds>;

/// The earliest Date; it stands for "never".
inline constexpr Date kDistantPast = Date::min();

/// The present time of the system's clock.
Date dateNow();

/// Where time comes from. Code that measures ages takes a Clock, so that tests can move it.
class Clock {
 public:
  virtual ~Clock() = default;
  /// May be called from any thread.
  virtual Date now() const = 0;
};

/// The system's clock.
class SystemClock : public Clock {
 public:
  Date now() const override { return dateNow(); }
};

/// Whole seconds since 1970, truncated toward zero (so 0.9 s before 1970 gives 0).
std::int64_t wholeSeconds(Date date);

/// Parses an internet date-time with a fraction ("2024-05-01T12:30:45.123Z", "…45.5+02:00"): any
/// number of fractional digits, but at least one; "T" and "Z" in upper case; zones as "Z" or
/// "+hh:mm"/"-hh:mm". Nothing if `text` is anything else, has a day or time that does not exist, or
/// has characters left over.
std::optional<Date> parseISO8601WithFraction(std::string_view text);

/// The same form without a fraction ("2024-05-01T12:30:45+02:00").
std::optional<Date> parseISO8601(std::string_view text);

/// "2024-06-10T08:15:00Z": in UTC, the fraction cut (not rounded). Years outside 0 to 9999 are
/// clamped to the first or last moment of that span, so that the text always parses again.
std::string formatISO8601(Date date);

/// "2024-06-10T08:15:00.123Z": the same with milliseconds, finer parts cut.
std::string formatISO8601Milliseconds(Date date);

}  // namespace kestrune::platform
