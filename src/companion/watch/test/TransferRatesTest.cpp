#include "companion/watch/TransferRates.h"

#include <gtest/gtest.h>

namespace kestrune {
namespace {

using std::chrono::seconds;

SyncTransfer at(std::int64_t bytes, std::int64_t total = 1000) {
  return {"id", "/a", bytes, total, SyncTransfer::Direction::upload, {}};
}

TEST(TransferRates, AreKnownOnceSomethingHasMoved) {
  TransferRates rates;
  const TransferRates::Clock::time_point start{};
  rates.saw({at(0)}, start);
  EXPECT_FALSE(rates.rateOf("id"));
  EXPECT_FALSE(rates.secondsLeft(at(0)));
  rates.saw({at(0)}, start + seconds(1));
  EXPECT_FALSE(rates.rateOf("id"));
  rates.saw({at(100)}, start + seconds(2));
  EXPECT_DOUBLE_EQ(*rates.rateOf("id"), 100);
  EXPECT_EQ(rates.secondsLeft(at(100)), 9U);
  EXPECT_EQ(rates.secondsLeft(at(1000)), 0U);
  EXPECT_FALSE(rates.secondsLeft(at(100, 0))) << "the size is not known";
}

TEST(TransferRates, FollowWhatHappensSmoothly) {
  TransferRates rates;
  TransferRates::Clock::time_point now{};
  std::int64_t bytes = 0;
  for (int i = 0; i < 10; ++i) rates.saw({at(bytes += 100)}, now += seconds(1));
  rates.saw({at(bytes)}, now += seconds(1));
  EXPECT_GT(*rates.rateOf("id"), 60);
  EXPECT_LT(*rates.rateOf("id"), 100);
  for (int i = 0; i < 60; ++i) rates.saw({at(bytes)}, now += seconds(1));
  EXPECT_FALSE(rates.secondsLeft(at(bytes, bytes + 1))) << "it stands still";
  rates.saw({}, now);
  EXPECT_FALSE(rates.rateOf("id"));
}

}  // namespace
}  // namespace kestrune
