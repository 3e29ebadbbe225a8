#include "platform/values/Checked.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace kestrune::platform {
namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr const char* kLastLine = "kestrune: fatal: the sum does not fit 64 bits\n";

TEST(CheckedTest, ResultsThatFitAreExact) {
  EXPECT_EQ(addOrDie(kMost - 1, 1, "x"), kMost);
  EXPECT_EQ(addOrDie(kLeast + 1, -1, "x"), kLeast);
  EXPECT_EQ(addOrDie(kMost, kLeast, "x"), -1);
  EXPECT_EQ(subtractOrDie(kLeast + 1, 1, "x"), kLeast);
  EXPECT_EQ(subtractOrDie(-1, kLeast, "x"), kMost);
  EXPECT_EQ(multiplyOrDie(std::int64_t{1} << 31, -(std::int64_t{1} << 32), "x"), kLeast);
  EXPECT_EQ(multiplyOrDie(kMost, -1, "x"), kLeast + 1);
  EXPECT_EQ(absoluteOrDie(kLeast + 1, "x"), kMost);
  EXPECT_EQ(absoluteOrDie(7, "x"), 7);
  EXPECT_EQ(absoluteOrDie(0, "x"), 0);
}

TEST(CheckedTest, AFractionIsCutOffTowardsZero) {
  const struct {
    double value;
    std::int64_t expected;
  } cases[] = {
      {0.0, 0},
      {-0.0, 0},
      {0.999'999, 0},
      {-0.999'999, 0},
      {1.5, 1},
      {-1.5, -1},
      {1e15 + 0.5, 1'000'000'000'000'000},
      {std::numeric_limits<double>::denorm_min(), 0},
      // The doubles next to the limits; the lower limit is itself one.
      {std::nextafter(0x1p63, 0), kMost - 1023},
      {-0x1p63, kLeast},
  };
  for (const auto& [value, expected] : cases)
    EXPECT_EQ(truncateOrDie(value, "x"), expected) << value;
}

TEST(CheckedDeathTest, AResultThatDoesNotFitEndsTheProcessWithOneLine) {
  EXPECT_DEATH(addOrDie(kMost, 1, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(addOrDie(kLeast, -1, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(subtractOrDie(kLeast, 1, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(subtractOrDie(0, kLeast, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(multiplyOrDie(kMost, 2, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(multiplyOrDie(kLeast, -1, "the sum"), testing::StrEq(kLastLine));
  EXPECT_DEATH(absoluteOrDie(kLeast, "the sum"), testing::StrEq(kLastLine));
}

TEST(CheckedDeathTest, AFractionWithoutA64BitPartEndsTheProcess) {
  for (const double value :
       {0x1p63, std::nextafter(-0x1p63, -HUGE_VAL), 1e300, HUGE_VAL, -HUGE_VAL, std::nan("")})
    EXPECT_DEATH(truncateOrDie(value, "the sum"), testing::StrEq(kLastLine)) << value;
}

}  // namespace
}  // namespace kestrune::platform
