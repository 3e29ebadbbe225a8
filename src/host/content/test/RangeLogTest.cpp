#include "host/content/RangeLog.h"

#include <gtest/gtest.h>

#include <fstream>

#include "host/content/test/ContentHarness.h"

namespace kestrune::host::test {
namespace {

class RangeLogTest : public testing::Test {
 protected:
  RangeLogTest() { state_.present.add({0, 10}); }
  ContentState replayed(std::int64_t lengthOnDisk = 100) {
    ContentState state = state_;
    RangeLog(contents_, 5).replay(state, lengthOnDisk);
    return state;
  }
  void appendText(const std::string& text) {
    std::ofstream(directory_.path() / "replica/contents/5.log", std::ios::app) << text;
  }

  support::TemporaryDirectory directory_;
  std::shared_ptr<ContentDirectory> contents_ =
      std::make_shared<ContentDirectory>(directory_.path() / "replica");
  ContentState state_{.number = 5, .version = "1", .sizeBytes = 100, .fetchableBytes = 80};
};

TEST_F(RangeLogTest, WithoutALogNothingChanges) { EXPECT_EQ(replayed(), state_); }

TEST_F(RangeLogTest, RangesAndCutsCountInTheirOrder) {
  RangeLog log(contents_, 5);
  log.noteHere({40, 60});
  log.noteCut(50);
  log.noteHere({20, 30});
  EXPECT_EQ(log.noted(), 3U);
  const auto state = replayed();
  EXPECT_EQ(state.present.text(), "0-10,20-30,40-50");
  EXPECT_EQ(state.sizeBytes, 50);
  EXPECT_EQ(state.fetchableBytes, 50);
  // Over a state that knows it already.
  state_ = state;
  EXPECT_EQ(replayed(), state);
}

TEST_F(RangeLogTest, ACutThatWasBegunCountsIfTheFileIsThatShort) {
  RangeLog log(contents_, 5);
  log.noteCutting(5);
  EXPECT_EQ(replayed(), state_);
  const auto state = replayed(5);
  EXPECT_EQ(state.sizeBytes, 5);
  EXPECT_EQ(state.fetchableBytes, 5);
  EXPECT_EQ(state.present.text(), "0-5");
  log.noteHere({0, 3});  // the cut was not made, or was noted
  EXPECT_EQ(replayed(5), state_);
}

TEST_F(RangeLogTest, AnEmptiedLogSaysNothing) {
  RangeLog log(contents_, 5);
  log.noteHere({40, 60});
  log.clear();
  EXPECT_EQ(replayed(), state_);
  log.noteHere({20, 30});
  EXPECT_EQ(replayed().present.text(), "0-10,20-30");
}

TEST_F(RangeLogTest, ATornLastLineIsNoneAndDoesNotHideLaterOnes) {
  RangeLog(contents_, 5).noteHere({40, 60});
  appendText("+70-7");
  EXPECT_EQ(replayed().present.text(), "0-10,40-60");
  RangeLog(contents_, 5).noteHere({20, 30});
  EXPECT_EQ(replayed().present.text(), "0-10,20-30,40-60");
}

TEST_F(RangeLogTest, NonsenseEndsTheReading) {
  for (const std::string nonsense : {"hello\n", "\n", "+5-3\n", "=-1\n", "=x\n", "*40-60\n"}) {
    RangeLog(contents_, 5).clear();
    RangeLog(contents_, 5).noteHere({20, 30});
    appendText(nonsense);
    EXPECT_EQ(replayed().present.text(), "0-10,20-30") << nonsense;
  }
}

}  // namespace
}  // namespace kestrune::host::test
