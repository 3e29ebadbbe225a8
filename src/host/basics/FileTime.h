// A moment as file systems keep it: seconds since 1970 and nanoseconds, over more years than 64 bits of
// nanoseconds could count.
//
// Threads: a value.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>

#include "platform/values/Date.h"

namespace kestrune::host {

struct FileTime {
  std::int64_t seconds = 0;
  /// 0 to 999,999,999, counted forwards also before 1970.
  std::int32_t nanoseconds = 0;

  auto operator<=>(const FileTime&) const = default;

  static FileTime of(platform::Date date) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(date);
    const auto rest = (date - whole).count();  // microseconds
    return {whole.time_since_epoch().count(), static_cast<std::int32_t>(rest * 1000)};
  }
  /// Cut to what a date can say.
  platform::Date date() const {
    return platform::Date(std::chrono::seconds(seconds)) +
           std::chrono::microseconds(nanoseconds / 1000);
  }
};

}  // namespace kestrune::host
