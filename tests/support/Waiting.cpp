#include "tests/support/Waiting.h"

#include <thread>

namespace kestrune::support {

namespace {
constexpr std::chrono::milliseconds kBetweenLooks{2};
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return condition();
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return true;
}

bool staysTrue(const std::function<bool()>& condition, std::chrono::milliseconds duration) {
  return !waitUntil([&condition] { return !condition(); }, duration);
}

}  // namespace kestrune::support
