#include "platform/values/Date.h"

#include <algorithm>
#include <cstdio>

namespace kestrune::platform {

namespace {

using std::chrono::days;
using std::chrono::floor;
using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

// The library's own parsers take signs, blanks and short fields that the form forbids; reading
// fixed fields is shorter than guarding them. The calendar is the library's.
class Reader {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  bool atEnd() const { return rest_.empty(); }

  bool take(char expected) {
    if (rest_.empty() || rest_.front() != expected) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::optional<int> takeDigit() {
    if (rest_.empty() || rest_.front() < '0' || rest_.front() > '9') return std::nullopt;
    const int digit = rest_.front() - '0';
    rest_.remove_prefix(1);
    return digit;
  }

  /// A number of exactly `digits` digits that is at most `most`.
  std::optional<int> takeNumber(int digits, int most) {
    int value = 0;
    for (int i = 0; i < digits; ++i) {
      const auto digit = takeDigit();
      if (!digit) return std::nullopt;
      value = value * 10 + *digit;
    }
    if (value > most) return std::nullopt;
    return value;
  }

 private:
  std::string_view rest_;
};

std::optional<Date> takeDay(Reader& reader) {
  const auto year = reader.takeNumber(4, 9999);
  if (!year || !reader.take('-')) return std::nullopt;
  const auto month = reader.takeNumber(2, 12);
  if (!month || !reader.take('-')) return std::nullopt;
  const auto day = reader.takeNumber(2, 31);
  if (!day) return std::nullopt;
  const std::chrono::year_month_day date(std::chrono::year(*year),
                                         std::chrono::month(static_cast<unsigned>(*month)),
                                         std::chrono::day(static_cast<unsigned>(*day)));
  if (!date.ok()) return std::nullopt;
  return std::chrono::sys_days(date);
}

std::optional<seconds> takeTimeOfDay(Reader& reader) {
  const auto hour = reader.takeNumber(2, 23);
  if (!hour || !reader.take(':')) return std::nullopt;
  const auto minute = reader.takeNumber(2, 59);
  if (!minute || !reader.take(':')) return std::nullopt;
  const auto second = reader.takeNumber(2, 59);
  if (!second) return std::nullopt;
  return hours(*hour) + minutes(*minute) + seconds(*second);
}

std::optional<microseconds> takeFraction(Reader& reader) {
  if (!reader.take('.')) return std::nullopt;
  auto digit = reader.takeDigit();
  if (!digit) return std::nullopt;
  microseconds fraction(0);
  for (microseconds unit(100'000); digit; unit /= 10) {
    fraction += *digit * unit;  // from the seventh digit on the unit is zero
    digit = reader.takeDigit();
  }
  return fraction;
}

/// How far local time is ahead of UTC.
std::optional<seconds> takeZone(Reader& reader) {
  if (reader.take('Z')) return seconds(0);
  const bool ahead = reader.take('+');
  if (!ahead && !reader.take('-')) return std::nullopt;
  const auto hour = reader.takeNumber(2, 23);
  if (!hour || !reader.take(':')) return std::nullopt;
  const auto minute = reader.takeNumber(2, 59);
  if (!minute) return std::nullopt;
  const seconds offset = hours(*hour) + minutes(*minute);
  return ahead ? offset : -offset;
}

enum class Fraction { required, forbidden };

std::optional<Date> parse(std::string_view text, Fraction form) {
  Reader reader(text);
  const auto day = takeDay(reader);
  if (!day || !reader.take('T')) return std::nullopt;
  const auto time = takeTimeOfDay(reader);
  if (!time) return std::nullopt;
  std::optional<microseconds> fraction(0);
  if (form == Fraction::required) fraction = takeFraction(reader);
  if (!fraction) return std::nullopt;
  const auto zone = takeZone(reader);
  if (!zone || !reader.atEnd()) return std::nullopt;
  return *day + *time + *fraction - *zone;
}

constexpr Date kFirstWritable = std::chrono::sys_days(std::chrono::year(0) / 1 / 1);
constexpr Date kLastWritable =
    std::chrono::sys_days(std::chrono::year(9999) / 12 / 31) + hours(24) - microseconds(1);

/// "2024-06-10T08:15:00", the fraction cut; the cut part is left in `fraction`.
std::string format(Date date, microseconds& fraction) {
  date = std::clamp(date, kFirstWritable, kLastWritable);
  const auto day = floor<days>(date);
  const std::chrono::year_month_day ymd(day);
  const auto time = floor<seconds>(date - day);
  fraction = date - day - time;
  const auto secondOfDay = static_cast<int>(time.count());
  char text[64];
  const int length = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d",
                                   static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                                   static_cast<unsigned>(ymd.day()), secondOfDay / 3600,
                                   secondOfDay / 60 % 60, secondOfDay % 60);
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

Date dateNow() { return floor<microseconds>(std::chrono::system_clock::now()); }

std::int64_t wholeSeconds(Date date) {
  return std::chrono::duration_cast<seconds>(date.time_since_epoch()).count();
}

std::optional<Date> parseISO8601WithFraction(std::string_view text) {
  return parse(text, Fraction::required);
}

std::optional<Date> parseISO8601(std::string_view text) { return parse(text, Fraction::forbidden); }

std::string formatISO8601(Date date) {
  microseconds fraction(0);
  return format(date, fraction) + "Z";
}

std::string formatISO8601Milliseconds(Date date) {
  microseconds fraction(0);
  const std::string whole = format(date, fraction);
  const auto digits = std::to_string(1000 + floor<milliseconds>(fraction).count());
  return whole + "." + digits.substr(1) + "Z";
}

}  // namespace kestrune::platform
