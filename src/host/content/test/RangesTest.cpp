#include "host/content/Ranges.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bitset>
#include <limits>
#include <random>

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();

Ranges rangesOf(const std::vector<ByteRange>& all) {
  Ranges ranges;
  for (const auto& range : all) ranges.add(range);
  return ranges;
}

TEST(RangesTest, WhatTouchesBecomesOne) {
  EXPECT_THAT(rangesOf({{0, 4}, {4, 8}}).all(), ElementsAre(ByteRange{0, 8}));
  EXPECT_THAT(rangesOf({{4, 8}, {0, 4}}).all(), ElementsAre(ByteRange{0, 8}));
  EXPECT_THAT(rangesOf({{0, 2}, {4, 6}, {8, 10}, {1, 9}}).all(), ElementsAre(ByteRange{0, 10}));
  EXPECT_THAT(rangesOf({{0, 10}, {2, 3}}).all(), ElementsAre(ByteRange{0, 10}));
  EXPECT_THAT(rangesOf({{0, 2}, {3, 4}}).all(), ElementsAre(ByteRange{0, 2}, ByteRange{3, 4}));
}

TEST(RangesTest, EmptyRangesChangeNothing) {
  Ranges ranges = rangesOf({{5, 5}, {7, 3}});
  EXPECT_TRUE(ranges.isEmpty());
  ranges.add({0, 10});
  ranges.remove({5, 5});
  ranges.remove({7, 3});
  EXPECT_THAT(ranges.all(), ElementsAre(ByteRange{0, 10}));
  EXPECT_TRUE(ranges.contains({100, 100}));
}

TEST(RangesTest, RemovingSplits) {
  Ranges ranges = rangesOf({{0, 10}, {20, 30}});
  ranges.remove({5, 25});
  EXPECT_THAT(ranges.all(), ElementsAre(ByteRange{0, 5}, ByteRange{25, 30}));
  ranges.remove({1, 2});
  EXPECT_THAT(ranges.all(), ElementsAre(ByteRange{0, 1}, ByteRange{2, 5}, ByteRange{25, 30}));
  ranges.remove({0, kMost});
  EXPECT_TRUE(ranges.isEmpty());
}

TEST(RangesTest, MissingStretchesAreFound) {
  const Ranges ranges = rangesOf({{10, 20}, {30, 40}});
  EXPECT_EQ(ranges.firstMissing({0, 50}), (ByteRange{0, 10}));
  EXPECT_EQ(ranges.firstMissing({12, 50}), (ByteRange{20, 30}));
  EXPECT_EQ(ranges.firstMissing({10, 20}), ByteRange{});
  EXPECT_THAT(ranges.missing({5, 35}), ElementsAre(ByteRange{5, 10}, ByteRange{20, 30}));
  EXPECT_THAT(ranges.missing({10, 20}), IsEmpty());
  EXPECT_TRUE(ranges.contains({30, 40}));
  EXPECT_FALSE(ranges.contains({30, 41}));
  EXPECT_FALSE(ranges.contains({29, 30}));
}

TEST(RangesTest, TheRangeAroundAnOffsetIsFound) {
  const Ranges ranges = rangesOf({{10, 20}, {30, 40}});
  EXPECT_EQ(ranges.around(10), (ByteRange{10, 20}));
  EXPECT_EQ(ranges.around(39), (ByteRange{30, 40}));
  EXPECT_EQ(ranges.around(9), ByteRange{});
  EXPECT_EQ(ranges.around(20), ByteRange{});
  EXPECT_EQ(ranges.around(40), ByteRange{});
}

TEST(RangesTest, TheLargestFileHasItsRange) {
  const Ranges ranges = rangesOf({{kMost - 1, kMost}});
  EXPECT_EQ(ranges.firstMissing({0, kMost}), (ByteRange{0, kMost - 1}));
  EXPECT_EQ(ranges.byteCount(), 1);
  EXPECT_EQ(Ranges::parse(ranges.text()), ranges);
}

TEST(RangesTest, TextsAreReadAsTheyAreWritten) {
  EXPECT_EQ(Ranges().text(), "");
  EXPECT_EQ(Ranges::parse(""), Ranges());
  const Ranges ranges = rangesOf({{0, 4096}, {8192, 9000}});
  EXPECT_EQ(ranges.text(), "0-4096,8192-9000");
  EXPECT_EQ(Ranges::parse(ranges.text()), ranges);
}

TEST(RangesTest, OtherTextsAreRefused) {
  for (const char* text : {",",        "0",
                           "0-",       "-1",
                           "0-0",      "5-3",
                           "0-4,",     "0-4,4-8",
                           "0-4,2-8",  "4-8,0-2",
                           "0-4;6-8",  " 0-4",
                           "0 -4",     "0-4 ",
                           "+0-4",     "0--4",
                           "a-b",      "0-99999999999999999999",
                           "0-4,,6-8", "0-9223372036854775807,1-2"}) {
    EXPECT_EQ(Ranges::parse(text), std::nullopt) << text;
  }
}

// Against a set of single bytes, which cannot be wrong.
TEST(RangesTest, AgreesWithASetOfBytes) {
  constexpr std::int64_t kBytes = 64;
  std::mt19937 generator(4711);
  std::uniform_int_distribution<std::int64_t> position(0, kBytes);
  for (int sequence = 0; sequence < 500; ++sequence) {
    Ranges ranges;
    std::bitset<kBytes> bytes;
    for (int step = 0; step < 40; ++step) {
      const ByteRange range{position(generator), position(generator)};
      const bool adds = generator() % 3 != 0;
      adds ? ranges.add(range) : ranges.remove(range);
      for (std::int64_t i = range.start; i < range.end; ++i)
        bytes.set(static_cast<std::size_t>(i), adds);
      ASSERT_EQ(ranges.byteCount(), static_cast<std::int64_t>(bytes.count()));
      std::bitset<kBytes> missing;
      for (const auto& stretch : ranges.missing({0, kBytes})) {
        for (std::int64_t i = stretch.start; i < stretch.end; ++i)
          missing.set(static_cast<std::size_t>(i));
      }
      ASSERT_EQ(missing, ~bytes);
      const auto all = ranges.all();
      for (std::size_t i = 1; i < all.size(); ++i) ASSERT_LT(all[i - 1].end, all[i].start);
      ASSERT_EQ(Ranges::parse(ranges.text()), ranges);
    }
  }
}

}  // namespace
}  // namespace kestrune::host
