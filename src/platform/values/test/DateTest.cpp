#include "platform/values/Date.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace kestrune::platform {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Date at(std::int64_t sinceEpoch) { return Date(microseconds(sinceEpoch)); }

// Computed with `date -u -d … +%s`.
constexpr std::int64_t kMay2024 = 1'714'566'645;        // 2024-05-01T12:30:45Z
constexpr std::int64_t kYear0 = -62'167'219'200;        // 0000-01-01T00:00:00Z
constexpr std::int64_t kYear9999End = 253'402'300'799;  // 9999-12-31T23:59:59Z

struct Parsed {
  const char* text;
  std::int64_t expectedMicroseconds;
};

TEST(DateTest, WithoutFractionParses) {
  const Parsed cases[] = {
      {"2024-05-01T12:30:45Z", kMay2024 * 1'000'000},
      {"2024-05-01T12:30:45+00:00", kMay2024 * 1'000'000},
      {"2024-05-01T12:30:45-00:00", kMay2024 * 1'000'000},
      {"2024-05-01T14:30:45+02:00", kMay2024 * 1'000'000},
      {"2024-05-01T07:00:45-05:30", kMay2024 * 1'000'000},
      {"2024-05-02T12:29:45+23:59", kMay2024 * 1'000'000},
      {"2024-04-30T12:31:45-23:59", kMay2024 * 1'000'000},
      {"1970-01-01T00:00:00Z", 0},
      {"1969-12-31T23:59:59Z", -1'000'000},
      {"2000-02-29T00:00:00Z", 951'782'400'000'000},
      {"2024-02-29T23:59:59Z", 1'709'251'199'000'000},
      {"0000-01-01T00:00:00Z", kYear0 * 1'000'000},
      {"0000-01-01T00:00:00+01:00", (kYear0 - 3600) * 1'000'000},
      {"9999-12-31T23:59:59Z", kYear9999End * 1'000'000},
      {"9999-12-31T23:59:59-01:00", (kYear9999End + 3600) * 1'000'000},
  };
  for (const auto& [text, expected] : cases) {
    const auto date = parseISO8601(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(date->time_since_epoch().count(), expected) << text;
    EXPECT_FALSE(parseISO8601WithFraction(text)) << text << " has no fraction";
  }
}

TEST(DateTest, FractionIsCutAtMicroseconds) {
  const std::string manyNines = "2024-05-01T12:30:45." + std::string(5000, '9') + "Z";
  const Parsed cases[] = {
      {"2024-05-01T12:30:45.0Z", kMay2024 * 1'000'000},
      {"2024-05-01T12:30:45.1Z", kMay2024 * 1'000'000 + 100'000},
      {"2024-05-01T12:30:45.12Z", kMay2024 * 1'000'000 + 120'000},
      {"2024-05-01T12:30:45.123Z", kMay2024 * 1'000'000 + 123'000},
      {"2024-05-01T12:30:45.000001Z", kMay2024 * 1'000'000 + 1},
      {"2024-05-01T12:30:45.123456Z", kMay2024 * 1'000'000 + 123'456},
      {"2024-05-01T12:30:45.1234569Z", kMay2024 * 1'000'000 + 123'456},
      {"2024-05-01T12:30:45.0000009Z", kMay2024 * 1'000'000},
      {manyNines.c_str(), kMay2024 * 1'000'000 + 999'999},
      {"2024-05-01T14:30:45.5+02:00", kMay2024 * 1'000'000 + 500'000},
      {"2024-05-01T07:30:45.5-05:00", kMay2024 * 1'000'000 + 500'000},
      {"1969-12-31T23:59:59.5Z", -500'000},
      {"1969-12-31T23:59:59.9999999Z", -1},
  };
  for (const auto& [text, expected] : cases) {
    const auto date = parseISO8601WithFraction(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(date->time_since_epoch().count(), expected) << text;
    EXPECT_FALSE(parseISO8601(text)) << text << " has a fraction";
  }
}

TEST(DateTest, EverythingElseIsRefused) {
  const std::string_view cases[] = {
      "",
      " ",
      "yesterday",
      "2024",
      "2024-05-01",
      "12:30:45Z",
      "1714566645",
      // Separators, case, blanks, left-over characters.
      "2024-05-01 12:30:45Z",
      "2024-05-01t12:30:45Z",
      "2024-05-01T12:30:45z",
      "2024-05-01T12:30:45",
      " 2024-05-01T12:30:45Z",
      "2024-05-01T12:30:45Z ",
      "2024-05-01T12:30:45Z\n",
      "2024-05-01T12:30:45ZZ",
      "2024-05-01T12:30:45 Z",
      "2024/05/01T12:30:45Z",
      "20240501T123045Z",
      "2024-05-01T123045Z",
      "2024-05-01T12:30Z",
      "2024-W18-3T12:30:45Z",
      "2024-122T12:30:45Z",
      std::string_view("2024-05-01T12:30:45Z\0", 21),
      std::string_view("2024-05-01T12:30:45\0Z", 21),
      // Widths and signs.
      "24-05-01T12:30:45Z",
      "02024-05-01T12:30:45Z",
      "10000-01-01T00:00:00Z",
      "99999-01-01T00:00:00Z",
      "+2024-05-01T12:30:45Z",
      "-0001-05-01T12:30:45Z",
      "2024-5-01T12:30:45Z",
      "2024-05-1T12:30:45Z",
      "2024-05-01T2:30:45Z",
      "2024-05-01T12:3:45Z",
      "2024-05-01T12:30:5Z",
      "2024-05-01T12:30:045Z",
      "2024-05-+1T12:30:45Z",
      "2024-05-01T-2:30:45Z",
      "2024-05-01T 2:30:45Z",
      // Days and times that do not exist.
      "2024-00-01T12:30:45Z",
      "2024-13-01T12:30:45Z",
      "2024-05-00T12:30:45Z",
      "2024-05-32T12:30:45Z",
      "2024-02-30T12:30:45Z",
      "2023-02-29T12:30:45Z",
      "1900-02-29T12:30:45Z",
      "2024-04-31T12:30:45Z",
      "2024-05-01T24:00:00Z",
      "2024-05-01T12:60:45Z",
      "2024-05-01T12:30:60Z",
      "2016-12-31T23:59:60Z",
      // Zones.
      "2024-05-01T12:30:45+0200",
      "2024-05-01T12:30:45+02",
      "2024-05-01T12:30:45+2:00",
      "2024-05-01T12:30:45+02:0",
      "2024-05-01T12:30:45+24:00",
      "2024-05-01T12:30:45+02:60",
      "2024-05-01T12:30:45+02:00:00",
      "2024-05-01T12:30:45UTC",
      "2024-05-01T12:30:45Z+02:00",
      "2024-05-01T12:30:45+",
      "2024-05-01T12:30:45\u221202:00",
      // Fractions.
      "2024-05-01T12:30:45.Z",
      "2024-05-01T12:30:45,5Z",
      "2024-05-01T12:30:45.5",
      "2024-05-01T12:30:45.5.5Z",
      "2024-05-01T12:30:45.-5Z",
      "2024-05-01T12:30:45.5e1Z",
      "2024-05-01T12:30.5Z",
      "2024-05-01T12:30:45.5z",
      // Digits that are none in ASCII, and bytes that are no text.
      "\u0662\u0660\u0662\u0664-05-01T12:30:45Z",
      "2024-05-01T12:30:4\uFF15Z",
      "2024-05-01T12:30:45Z\xFF",
      "\xFF",
  };
  for (const auto text : cases) {
    EXPECT_FALSE(parseISO8601(text)) << text;
    EXPECT_FALSE(parseISO8601WithFraction(text)) << text;
  }
}

TEST(DateTest, EveryPrefixOfADateIsRefused) {
  const std::string_view plain = "2024-05-01T12:30:45+02:00";
  for (std::size_t length = 0; length < plain.size(); ++length) {
    EXPECT_FALSE(parseISO8601(plain.substr(0, length))) << plain.substr(0, length);
  }
  const std::string_view fraction = "2024-05-01T12:30:45.123+02:00";
  for (std::size_t length = 0; length < fraction.size(); ++length) {
    EXPECT_FALSE(parseISO8601WithFraction(fraction.substr(0, length)))
        << fraction.substr(0, length);
  }
}

TEST(DateTest, FormatCutsFractionsAndClampsYears) {
  struct {
    Date date;
    const char* seconds;
    const char* milliseconds;
  } const cases[] = {
      {at(0), "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.000Z"},
      {at(999'999), "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.999Z"},
      {at(1'999), "1970-01-01T00:00:00Z", "1970-01-01T00:00:00.001Z"},
      {at(kMay2024 * 1'000'000 + 50'000), "2024-05-01T12:30:45Z", "2024-05-01T12:30:45.050Z"},
      {at(-1), "1969-12-31T23:59:59Z", "1969-12-31T23:59:59.999Z"},
      {at(-1'000'000), "1969-12-31T23:59:59Z", "1969-12-31T23:59:59.000Z"},
      {at(-1'000'001), "1969-12-31T23:59:58Z", "1969-12-31T23:59:58.999Z"},
      {at(951'782'400'000'000), "2000-02-29T00:00:00Z", "2000-02-29T00:00:00.000Z"},
      {at(kYear0 * 1'000'000), "0000-01-01T00:00:00Z", "0000-01-01T00:00:00.000Z"},
      {at(kYear0 * 1'000'000 - 1), "0000-01-01T00:00:00Z", "0000-01-01T00:00:00.000Z"},
      {kDistantPast, "0000-01-01T00:00:00Z", "0000-01-01T00:00:00.000Z"},
      {at(kYear9999End * 1'000'000), "9999-12-31T23:59:59Z", "9999-12-31T23:59:59.000Z"},
      {at(kYear9999End * 1'000'000 + 999'999), "9999-12-31T23:59:59Z", "9999-12-31T23:59:59.999Z"},
      {at((kYear9999End + 1) * 1'000'000), "9999-12-31T23:59:59Z", "9999-12-31T23:59:59.999Z"},
      {Date::max(), "9999-12-31T23:59:59Z", "9999-12-31T23:59:59.999Z"},
  };
  for (const auto& [date, expectedSeconds, expectedMilliseconds] : cases) {
    EXPECT_EQ(formatISO8601(date), expectedSeconds);
    EXPECT_EQ(formatISO8601Milliseconds(date), expectedMilliseconds);
  }
}

TEST(DateTest, WhatIsFormattedParsesToTheSameSecond) {
  // Steps of a prime number of seconds over the whole span meet every month, hour and leap year.
  for (std::int64_t second = kYear0; second <= kYear9999End; second += 86'400LL * 37 + 4'001) {
    const Date date(seconds{second});
    EXPECT_EQ(parseISO8601(formatISO8601(date)), date) << second;
    EXPECT_EQ(parseISO8601WithFraction(formatISO8601Milliseconds(date + milliseconds(7))),
              date + milliseconds(7));
  }
}

TEST(DateTest, WholeSecondsTruncateTowardZero) {
  struct {
    std::int64_t microseconds;
    std::int64_t seconds;
  } const cases[] = {
      {0, 0},  {999'999, 0},  {1'000'000, 1},   {1'500'000, 1},
      {-1, 0}, {-999'999, 0}, {-1'000'000, -1}, {-1'900'000, -1},
  };
  for (const auto& [microsecond, second] : cases)
    EXPECT_EQ(wholeSeconds(at(microsecond)), second) << microsecond;
  EXPECT_EQ(wholeSeconds(kDistantPast), -9'223'372'036'854);
}

TEST(DateTest, NowIsTheSystemsTime) {
  const auto before = std::chrono::floor<microseconds>(std::chrono::system_clock::now());
  const Date now = SystemClock().now();
  const auto after = std::chrono::system_clock::now();
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);
}

}  // namespace
}  // namespace kestrune::platform
