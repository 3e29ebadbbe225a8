// A sanitizer that is not really on finds nothing: each of them must first find what is put before
// it.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <thread>

namespace kestrune {
namespace {

// Read at run time, so that no compiler knows the outcome.
volatile std::int64_t hidden = 1;

#if __has_feature(address_sanitizer)
TEST(SanitizerDeathTest, TheAddressSanitizerFindsAUseOfFreedMemory) {
  auto use = [] {
    auto owner = std::make_unique<std::int64_t>(hidden);
    volatile std::int64_t* left = owner.get();
    owner.reset();
    hidden = *left;
  };
  EXPECT_DEATH(use(), "heap-use-after-free");
}

TEST(SanitizerDeathTest, TheAddressSanitizerFindsALeak) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto leak = [] {
    volatile auto* lost = new std::int64_t(hidden);
    hidden = *lost;
    lost = nullptr;
    std::exit(0);
  };
  EXPECT_DEATH(leak(), "detected memory leaks");
}

TEST(SanitizerDeathTest, TheUndefinedBehaviourSanitizerFindsAnOverflow) {
  auto overflow = [] { hidden = std::numeric_limits<std::int64_t>::max() + hidden; };
  EXPECT_DEATH(overflow(), "signed integer overflow");
}
#endif

#if __has_feature(thread_sanitizer)
TEST(SanitizerDeathTest, TheThreadSanitizerFindsARace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto race = [] {
    std::int64_t shared = 0;
    auto count = [&shared] {
      for (int i = 0; i < 100'000; ++i) ++shared;
    };
    std::thread other(count);
    count();
    other.join();
    hidden = shared;
  };
  EXPECT_DEATH(race(), "data race");
}
#endif

}  // namespace
}  // namespace kestrune
