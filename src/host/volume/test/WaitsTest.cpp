#include "host/volume/Waits.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrune::host {
namespace {

using std::chrono::nanoseconds;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Waits, ThoseThatMayGoComeFirstAndTheOldestOfThem) {
  Waits waits;
  waits.of(3, nanoseconds(10));
  waits.of(1, nanoseconds(30)).notBefore = nanoseconds(90);
  waits.of(2, nanoseconds(20)).notBefore = nanoseconds(50);
  waits.of(4, nanoseconds(5)).notBefore = nanoseconds(80);
  EXPECT_THAT(waits.byAge(nanoseconds(50)), ElementsAre(3, 2, 4, 1));
  EXPECT_THAT(waits.byAge(nanoseconds(90)), ElementsAre(4, 3, 2, 1));
}

TEST(Waits, WhatWaitsAnewIsTheYoungest) {
  Waits waits;
  waits.of(1, nanoseconds(10)).attempts = 2;
  waits.of(2, nanoseconds(20));
  waits.renew(1, nanoseconds(30));
  EXPECT_THAT(waits.byAge(nanoseconds(99)), ElementsAre(2, 1));
  EXPECT_EQ(waits.of(1, nanoseconds(40)).attempts, 2);
  EXPECT_EQ(waits.find(1)->since(), nanoseconds(30));
}

TEST(Waits, OnlyWhatDiffersWaits) {
  Waits waits;
  for (const ItemId id : {1U, 3U, 5U, 9U}) waits.of(id, nanoseconds(10)).attempts = 1;
  waits.agree({2, 3, 4, 5, 7}, nanoseconds(20));
  EXPECT_THAT(waits.byAge(nanoseconds(20)), ElementsAre(3, 5, 2, 4, 7));
  EXPECT_EQ(waits.find(1), nullptr);
  EXPECT_EQ(waits.find(9), nullptr);
  EXPECT_EQ(waits.find(3)->attempts, 1);
  EXPECT_EQ(waits.find(4)->attempts, 0);
  EXPECT_THAT(waits.byAge(nanoseconds(19)), ElementsAre(3, 5, 2, 4, 7));
  waits.agree({}, nanoseconds(30));
  EXPECT_THAT(waits.byAge(nanoseconds(30)), IsEmpty());
}

}  // namespace
}  // namespace kestrune::host
