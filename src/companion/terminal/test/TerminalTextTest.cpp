#include "companion/terminal/TerminalText.h"

#include <gtest/gtest.h>

namespace kestrune {
namespace {

TEST(TerminalText, FitsTextsIntoCells) {
  EXPECT_EQ(fitted("abc", 5), "abc  ");
  EXPECT_EQ(fitted("abcdef", 5), "abcd~");
  EXPECT_EQ(fittedEnd("/folder/file", 6), "~/file");
  EXPECT_EQ(fitted("abcde", 5), "abcde");
  EXPECT_EQ(fitted("abc", 0), "");
  EXPECT_EQ(fitted("abc", 1), "~");
  EXPECT_EQ(fittedEnd("abc", 1), "~");
}

TEST(TerminalText, WideAndCombiningCharactersCount) {
  EXPECT_EQ(cellsOf("資料"), 4U);
  EXPECT_EQ(cellsOf("u\u0308"), 1U);
  EXPECT_EQ(cellsOf("Größe"), 5U);
  EXPECT_EQ(fitted("資料集", 4), "資~ ") << "half a character is none";
  EXPECT_EQ(fittedEnd("資料集", 4), "~集 ");
}

TEST(TerminalText, ControlCharactersAreEscapedBeforeTheyAreCounted) {
  EXPECT_EQ(fitted("a\x1b[31m", 20), "a\\x1b[31m           ");
  EXPECT_EQ(cellsOf(fitted("a\n\xff b", 7)), 7U);
}

TEST(TerminalText, BarsAndTimes) {
  EXPECT_EQ(barText(0, 100, 12), "[..........]");
  EXPECT_EQ(barText(55, 100, 12), "[#####.....]");
  EXPECT_EQ(barText(200, 100, 12), "[##########]");
  EXPECT_EQ(barText(5, 0, 5), "[...]");
  EXPECT_EQ(barText(5, 10, 2), "  ");
  EXPECT_EQ(durationText(7), "0:07");
  EXPECT_EQ(durationText(3723), "1:02:03");
  EXPECT_EQ(durationText(360'000), "long");
}

}  // namespace
}  // namespace kestrune
