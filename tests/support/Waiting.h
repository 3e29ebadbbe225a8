// Waiting for an event instead of for a time: asks again and again, and gives up at a deadline.
#pragma once

#include <chrono>
#include <functional>

namespace kestrune::support {

/// True as soon as `condition` holds; false when `deadline` has passed and it still does not.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds deadline = std::chrono::seconds(10));

/// Whether `condition` stays true for the whole of `duration`. For "nothing happens": it can miss a
/// late event, it never fails for a slow machine.
[[nodiscard]] bool staysTrue(const std::function<bool()>& condition,
                             std::chrono::milliseconds duration);

}  // namespace kestrune::support
