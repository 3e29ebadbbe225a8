#include <gtest/gtest.h>

#include <limits>

#include "platform/log/Log.h"

namespace kestrune::platform {
namespace {

using Arguments = std::vector<LogArgument>;

std::string message(std::string_view format, Arguments arguments) {
  LogRecord record;
  record.format = format;
  record.arguments = std::move(arguments);
  return record.message();
}

struct Line {
  std::string_view format;
  Arguments arguments;
  std::string_view expected;
};

void expectLines(const std::vector<Line>& lines) {
  for (const auto& [format, arguments, expected] : lines)
    EXPECT_EQ(message(format, arguments), expected) << format;
}

const LogArgument kText = std::string("text");
const LogArgument kSeven = std::int64_t{7};
const LogArgument kHalf = 0.5;

TEST(LogFormatTest, TextsAreShownOnlyWherePublic) {
  expectLines({
      {"%{public}s", {kText}, "text"},
      {"%s", {kText}, "<private>"},
      {"%{private}s", {kText}, "<private>"},
      {"%{sensitive}s", {kText}, "<private>"},
      {"%{}s", {kText}, "<private>"},
      {"%{Public}s", {kText}, "<private>"},
      {"%{publicity}s", {kText}, "<private>"},
      {"%{public, location:name}s", {kText}, "text"},
      {"%{location:name,public}s", {kText}, "text"},
      {"%{ public }s", {kText}, "text"},
      {"%s", {std::string()}, "<private>"},
      {"%{public}s", {std::string()}, ""},
      {"[%{public}s]", {std::string("100%s %{public}s %n")}, "[100%s %{public}s %n]"},
      {"init domain=%s apiURL=%s token=%s",
       {kText, kText, kText},
       "init domain=<private> apiURL=<private> token=<private>"},
  });
}

TEST(LogFormatTest, NumbersAreAlwaysShown) {
  constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  expectLines({
      {"%ld", {kSeven}, "7"},
      {"%lld", {kSeven}, "7"},
      {"%d", {kSeven}, "7"},
      {"%i", {kSeven}, "7"},
      {"%zd", {kSeven}, "7"},
      {"%{public}ld", {kSeven}, "7"},
      {"%{private}ld", {kSeven}, "7"},
      {"%lld", {kLeast}, "-9223372036854775808"},
      {"%lld", {kMost}, "9223372036854775807"},
      {"%llu", {std::int64_t{-1}}, "18446744073709551615"},
      {"%f", {kHalf}, "0.500000"},
      {"%.1f", {kHalf}, "0.5"},
      {"%.0f", {1.5}, "2"},
      {"%.f", {2.5}, "2"},
      {"%.3f", {1.0 / 3}, "0.333"},
      {"%.2f", {-0.005}, "-0.01"},
      {"%{public}.1f", {kHalf}, "0.5"},
      {"%.1f", {std::numeric_limits<double>::infinity()}, "inf"},
      {"%.1f", {-std::numeric_limits<double>::infinity()}, "-inf"},
      {"%.1f", {std::numeric_limits<double>::quiet_NaN()}, "nan"},
      {"%.*fs", {std::int64_t{1}, 2.25}, "2.2s"},
      {"%.*fs", {std::int64_t{0}, 2.75}, "3s"},
      {"%.*f", {std::int64_t{-3}, kHalf}, "0.500000"},
      {"%{public}.*f", {std::int64_t{2}, kHalf}, "0.50"},
      {"createItem done %lld bytes in %.*fs (%.*f MB/s)",
       {std::int64_t{1'048'576}, std::int64_t{2}, 0.5, std::int64_t{1}, 2.0},
       "createItem done 1048576 bytes in 0.50s (2.0 MB/s)"},
  });
}

TEST(LogFormatTest, TruthValuesAreWords) {
  expectLines({
      {"%{bool}d", {true}, "true"},
      {"%{bool}d", {false}, "false"},
      {"%{bool}d", {std::int64_t{2}}, "true"},
      {"%{bool}d", {std::int64_t{0}}, "false"},
      {"%{public,bool}d", {true}, "true"},
      {"%{bool, private}d", {true}, "true"},
  });
}

TEST(LogFormatTest, ArgumentsThatDoNotFitAreShownByTheirOwnType) {
  expectLines({
      {"%s", {kSeven}, "7"},
      {"%{public}s", {kHalf}, "0.500000"},
      {"%{public}s", {true}, "true"},
      {"%d", {true}, "true"},
      {"%ld", {kHalf}, "0.500000"},
      {"%f", {kSeven}, "7"},
      {"%.2f", {kSeven}, "7"},
      // A text stays private, whatever the format takes it for.
      {"%ld", {kText}, "<private>"},
      {"%{bool}d", {kText}, "<private>"},
      {"%.*f", {std::int64_t{2}, kText}, "<private>"},
      {"%{public}ld", {kText}, "text"},
      // A precision that is no number counts as none.
      {"%.*f", {kText, kHalf}, "0.500000"},
      {"%.*f", {0.5, kHalf}, "0.500000"},
  });
}

TEST(LogFormatTest, MissingArgumentsAreNamedAndSurplusOnesIgnored) {
  expectLines({
      {"%{public}s", {}, "<missing>"},
      {"%ld of %ld", {kSeven}, "7 of <missing>"},
      {"%.*f", {}, "<missing>"},
      {"%.*f", {std::int64_t{2}}, "<missing>"},
      {"%.*f %ld", {std::int64_t{2}}, "<missing> <missing>"},
      {"nothing", {kText, kSeven}, "nothing"},
      {"%ld", {kSeven, kText}, "7"},
      {"", {kText}, ""},
      {"", {}, ""},
  });
}

TEST(LogFormatTest, PercentSignsAndUnknownConversionsStandForThemselves) {
  expectLines({
      {"100%%", {}, "100%"},
      {"%%s", {kText}, "%s"},
      {"%%%ld%%", {kSeven}, "%7%"},
      {"%", {kText}, "%"},
      {"a %", {}, "a %"},
      {"% ", {}, "% "},
      {"%{public", {kText}, "%{public"},
      {"%{public}", {kText}, "%{public}"},
      {"%{public}%", {kText}, "%{public}%"},
      {"%l", {kSeven}, "%l"},
      {"%.", {kHalf}, "%."},
      {"%.*", {kHalf}, "%.*"},
      {"%.99999999999999999999", {kHalf}, "%.99999999999999999999"},
      {"%n %p %@ %x", {kText}, "%n %p %@ %x"},
      {"%y then %ld", {kSeven}, "%y then 7"},
      {"%\xFF%ld",
       {kSeven},
       "%\xFF"
       "7"},
  });
}

TEST(LogFormatTest, WildPrecisionIsBounded) {
  const std::string longest = "0.5" + std::string(1099, '0');
  EXPECT_EQ(message("%.999999999f", {kHalf}), longest);
  EXPECT_EQ(message("%.99999999999999999999f", {kHalf}), longest);
  EXPECT_EQ(message("%.*f", {std::numeric_limits<std::int64_t>::max(), kHalf}), longest);
  EXPECT_EQ(message("%.*f", {std::numeric_limits<std::int64_t>::min(), kHalf}), "0.500000");
  const std::string largest = message("%.1100f", {-std::numeric_limits<double>::max()});
  EXPECT_EQ(largest.size(), 1U + 309U + 1U + 1100U);
}

TEST(LogFormatTest, RenderingEscapesNothing) {
  EXPECT_EQ(message("%{public}s", {std::string("a\nb\0c", 5)}), std::string("a\nb\0c", 5));
}

TEST(LogFormatTest, WhatDisturbsADisplayIsEscaped) {
  struct {
    std::string_view text;
    std::string_view expected;
  } const cases[] = {
      {"", ""},
      {"plain text ~!", "plain text ~!"},
      {"a\nb", "a\\nb"},
      {"a\r\n\tb", "a\\r\\n\\tb"},
      {std::string_view("\0", 1), "\\x00"},
      {"\x1b[31mred\x1b[0m", "\\x1b[31mred\\x1b[0m"},
      {"\a\b\v\f\x1f\x7f", "\\x07\\x08\\x0b\\x0c\\x1f\\x7f"},
      {"\u0080\u0085\u009B\u009F", "\\u0080\\u0085\\u009b\\u009f"},
      {"\u00A0\u00AD", "\u00A0\u00AD"},
      {"\u200D", "\u200D"},
      {"\u200E\u200F\u061C", "\\u200e\\u200f\\u061c"},
      {"\u2027\u2028\u2029\u202A\u202B\u202C\u202D\u202E\u202F",
       "\u2027\\u2028\\u2029\\u202a\\u202b\\u202c\\u202d\\u202e\u202F"},
      {"\u2065\u2066\u2067\u2068\u2069\u206A", "\u2065\\u2066\\u2067\\u2068\\u2069\u206A"},
      {"photo_\u202Egpj.exe", "photo_\\u202egpj.exe"},
      {"Gr\u00FC\u00DFe \u6587\u5B57 \U0001F600", "Gr\u00FC\u00DFe \u6587\u5B57 \U0001F600"},
      {"e\u0301", "e\u0301"},
      {"back\\slash", "back\\slash"},
      // No UTF-8: byte by byte, and what follows is read anew.
      {"\xFF", "\\xff"},
      {"\xC3", "\\xc3"},
      {"\xC3(", "\\xc3("},
      {"\xC3\n", "\\xc3\\n"},
      {"\xE2\x82", "\\xe2\\x82"},
      {"\xE2\x82\xC3\xBC", "\\xe2\\x82\u00FC"},
      {"\x80\xBF", "\\x80\\xbf"},
      {"\xC0\x8A", "\\xc0\\x8a"},  // an overlong line break
      {"\xE0\x80\x8A", "\\xe0\\x80\\x8a"},
      {"\xED\xA0\x80", "\\xed\\xa0\\x80"},  // half a surrogate pair
      {"\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"\xF5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
      {"\xF0\x9F\x98", "\\xf0\\x9f\\x98"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(escapeForDisplay(text), expected);
}

TEST(LogFormatTest, EscapedTextHasNothingLeftToEscape) {
  std::string everything;
  for (int byte = 0; byte < 256; ++byte) everything.push_back(static_cast<char>(byte));
  const std::string escaped = escapeForDisplay(everything);
  EXPECT_EQ(escapeForDisplay(escaped), escaped);
  EXPECT_EQ(escaped.find('\n'), std::string::npos);
  EXPECT_EQ(escaped.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace kestrune::platform
