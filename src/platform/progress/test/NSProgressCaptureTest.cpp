#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "platform/progress/NSProgress.h"

namespace kestrune::platform {
namespace {

using Counts = NSProgress::Snapshot;

TEST(NSProgressCapture, KnowsNothingBeforeAProgressIsMade) {
  const NSProgress before(7);
  const NSProgress::Capture capture;
  EXPECT_EQ(capture.snapshot(), std::nullopt);
}

TEST(NSProgressCapture, ShowsTheFirstProgressAsItMoves) {
  const NSProgress::Capture capture;
  NSProgress first(100);
  NSProgress second(5);
  EXPECT_EQ(capture.snapshot(), (Counts{100, 0}));
  first.setCompletedUnitCount(40);
  second.setCompletedUnitCount(5);
  EXPECT_EQ(capture.snapshot(), (Counts{100, 40}));
}

TEST(NSProgressCapture, ForgetsAProgressThatIsGoneAndTakesNoOther) {
  const NSProgress::Capture capture;
  { const NSProgress first(1); }
  const NSProgress second(2);
  EXPECT_EQ(capture.snapshot(), std::nullopt);
}

TEST(NSProgressCapture, SeesItsOwnThreadAlone) {
  const NSProgress::Capture capture;
  std::optional<NSProgress> elsewhere;
  std::thread([&] { elsewhere.emplace(3); }).join();
  EXPECT_EQ(capture.snapshot(), std::nullopt);
}

TEST(NSProgressCapture, AnInnerCaptureTakesWhatIsMadeWhileItLives) {
  const NSProgress::Capture outer;
  std::optional<NSProgress> inner;
  {
    const NSProgress::Capture capture;
    inner.emplace(1);
    EXPECT_EQ(capture.snapshot(), (Counts{1, 0}));
  }
  EXPECT_EQ(outer.snapshot(), std::nullopt);
  const NSProgress later(2);
  EXPECT_EQ(outer.snapshot(), (Counts{2, 0}));
}

TEST(NSProgressCapture, AProgressMayOutliveItsCapture) {
  std::optional<NSProgress> progress;
  {
    const NSProgress::Capture capture;
    progress.emplace(1);
  }
  progress.reset();
}

}  // namespace
}  // namespace kestrune::platform
