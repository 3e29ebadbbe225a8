#include "platform/progress/NSProgress.h"

#include <gtest/gtest.h>

namespace kestrune::platform {
namespace {

TEST(NSProgressTest, FractionIsCompletedOfTotal) {
  struct {
    std::int64_t total;
    std::int64_t completed;
    double expected;
  } const cases[] = {
      {4, 1, 0.25}, {4, 0, 0}, {4, 4, 1},  {4, 8, 2},   {4, -1, -0.25},
      {0, 0, 0},    {0, 5, 0}, {-1, 5, 0}, {-5, -5, 0},
  };
  for (const auto& [total, completed, expected] : cases) {
    NSProgress progress(total);
    progress.setCompletedUnitCount(completed);
    EXPECT_EQ(progress.fractionCompleted(), expected) << completed << " of " << total;
    EXPECT_EQ(progress.totalUnitCount(), total);
    EXPECT_EQ(progress.completedUnitCount(), completed);
    EXPECT_EQ(progress.snapshot(), (NSProgress::Snapshot{total, completed}));
  }
}

}  // namespace
}  // namespace kestrune::platform
