#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "Comparison.h"
#include "FoundationAnswers.h"
#include "Generator.h"
#include "platform/values/Date.h"

namespace kestrune::second_opinion {
namespace {

using platform::Date;
using std::chrono::milliseconds;

constexpr int kGeneratedDates = 6000;
constexpr int kDatesAPool = 300;
constexpr std::int64_t kDay = 86'400'000;                  // in milliseconds
constexpr std::int64_t kYear0 = -62'167'219'200'000;       // 0000-01-01T00:00:00.000Z
constexpr std::int64_t kLastMoment = 253'402'300'799'999;  // 9999-12-31T23:59:59.999Z

const std::string kWholeSeconds = "uuuu-MM-dd'T'HH:mm:ssXXX";
const std::string kWithFraction = "uuuu-MM-dd'T'HH:mm:ss.SSSXXX";

std::string digits(std::size_t number, std::size_t width) {
  std::string text = std::to_string(number);
  return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

/// Fields that mostly exist, and sometimes are just beyond what does.
std::string generatedDate(Generator& generator, bool withFraction) {
  const std::vector<std::string_view> years = {"0000", "0001", "0004", "0100", "1582",
                                               "1600", "1900", "1969", "1970", "2000",
                                               "2023", "2024", "2100", "9999"};
  std::string text =
      generator.oneIn(2) ? std::string(generator.pick(years)) : digits(generator.below(10'000), 4);
  text += "-" + digits(generator.oneIn(8) ? generator.below(15) : 1 + generator.below(12), 2);
  text += "-" + digits(generator.oneIn(4) ? 26 + generator.below(8) : generator.below(29), 2);
  text += "T" + digits(generator.below(generator.oneIn(8) ? 27 : 24), 2);
  text += ":" + digits(generator.below(generator.oneIn(8) ? 63 : 60), 2);
  text += ":" + digits(generator.below(generator.oneIn(8) ? 63 : 60), 2);
  if (withFraction) {
    const std::size_t width = 1 + generator.below(4);
    text += "." + digits(generator.below(10), width);
  }
  if (generator.oneIn(2)) return text + "Z";
  text += generator.oneIn(2) ? "+" : "-";
  text += digits(generator.below(generator.oneIn(8) ? 27 : 15), 2);
  return text + ":" +
         digits(generator.oneIn(8) ? 50 + generator.below(12) : 15 * generator.below(4), 2);
}

std::string mutatedDate(Generator& generator, std::string text) {
  const std::vector<std::string_view> faults = {
      "0", "1", "9", "-", "+",      ":",      ".",      ",",   "T",   "t",
      "Z", "z", " ", "/", "\u0662", "\uFF15", "\u2212", "UTC", "GMT", "e1"};
  const std::size_t place = generator.below(text.size());
  switch (generator.below(4)) {
    case 0:
      return text.substr(0, place);
    case 1:
      return text.erase(place, 1);
    case 2:
      return text.insert(place, generator.pick(faults));
    default:
      return text.replace(place, 1, generator.pick(faults));
  }
}

std::vector<std::string> dates(Generator& generator, bool withFraction) {
  std::vector<std::string> texts;
  const std::string fraction = withFraction ? ".5" : "";
  for (const char* const second :
       {"2024-02-29T00:00:00",  "2023-02-29T00:00:00",  "1900-02-29T00:00:00",
        "2000-02-29T00:00:00",  "0000-02-29T00:00:00",  "0100-02-29T00:00:00",
        "0000-01-01T00:00:00",  "9999-12-31T23:59:59",  "1582-10-04T12:00:00",
        "1582-10-10T12:00:00",  "1582-10-15T12:00:00",  "1969-12-31T23:59:59",
        "1970-01-01T00:00:00",  "2016-12-31T23:59:60",  "2024-05-01T24:00:00",
        "2024-04-31T00:00:00",  "2024-00-10T00:00:00",  "2024-13-10T00:00:00",
        "2024-01-00T00:00:00",  "2024-1-10T00:00:00",   "2024-01-1T00:00:00",
        "24-01-01T00:00:00",    "12024-01-01T00:00:00", "-2024-01-01T00:00:00",
        "+2024-01-01T00:00:00", "2024-01-01T1:00:00",   "2024-01-01 00:00:00",
        "2024-01-01t00:00:00",  "20240101T000000",      "2024-01-01T00:00",
        " 2024-01-01T00:00:00"}) {
    for (const char* const zone :
         {"Z", "+00:00", "-00:00", "+02:00", "-05:30", "+23:59", "-23:59", "+24:00", "+02:60",
          "+0200", "+02", "z", "", " Z", "Z ", "UTC", "+2:00"})
      texts.push_back(second + fraction + zone);
  }
  for (int i = 0; i < kGeneratedDates; ++i) {
    std::string text = generatedDate(generator, withFraction);
    texts.push_back(generator.oneIn(3) ? mutatedDate(generator, text) : text);
  }
  return texts;
}

/// What a text says before any calendar looks at it.
struct Fields {
  int year = 0;
  int month = 0;
  int day = 0;
  int zoneHour = 0;
  int zoneMinute = 0;
};

const std::string kMoment = R"((\d{4})-(\d\d)-(\d\d)T\d\d:\d\d:\d\d(\.\d+)?)";
const std::string kZone = R"((Z|[+-](\d\d):(\d\d)))";

bool startsWithMoment(const std::string& text) {
  static const std::regex form(kMoment);
  return std::regex_search(text, form, std::regex_constants::match_continuous);
}

bool startsWithDate(const std::string& text) {
  static const std::regex form(kMoment + kZone);
  return std::regex_search(text, form, std::regex_constants::match_continuous);
}

bool onlyTheyAccept(const Difference& difference) { return !difference.ours && difference.theirs; }

/// The fields of a text that has RFC 3339's form, whatever their values.
std::optional<Fields> fieldsOf(const std::string& text) {
  static const std::regex form(kMoment + kZone);
  std::smatch match;
  if (!std::regex_match(text, match, form)) return std::nullopt;
  Fields fields{std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3])};
  if (match[6].matched) {
    fields.zoneHour = std::stoi(match[6]);
    fields.zoneMinute = std::stoi(match[7]);
  }
  return fields;
}

/// Days from 1970-01-01 to a day of the Julian calendar (by its day number, counted in years that begin
/// in March).
std::int64_t julianDays(const Fields& fields) {
  const std::int64_t winter = fields.month <= 2 ? 1 : 0;
  const std::int64_t year = fields.year + 4800 - winter;
  const std::int64_t month = fields.month + 12 * winter - 3;
  return fields.day + (153 * month + 2) / 5 + 365 * year + year / 4 - 32083 - 2'440'588;
}

std::int64_t gregorianDays(const Fields& fields) {
  const std::chrono::year_month_day day(std::chrono::year(fields.year),
                                        std::chrono::month(static_cast<unsigned>(fields.month)),
                                        std::chrono::day(static_cast<unsigned>(fields.day)));
  return std::chrono::sys_days(day).time_since_epoch().count();
}

// 1582-10-15, the first day that the hybrid calendar calls as ISO 8601 does.
const std::int64_t kFirstGregorianDay = gregorianDays({1582, 10, 15});

const std::vector<AcceptedDifference> kParserDifferences = {
    {"ISO 8601-1, 4.2.1: dates are Gregorian in all years, where Foundation's calendar is the "
     "Julian one until 1582-10-04",
     [](const Difference& difference) {
       const auto fields = fieldsOf(difference.input);
       if (!fields || !difference.ours || !difference.theirs) return false;
       const std::int64_t shift = julianDays(*fields) - gregorianDays(*fields);
       return gregorianDays(*fields) < kFirstGregorianDay &&
              std::stoll(*difference.theirs) == std::stoll(*difference.ours) + shift * kDay;
     }},
    {"ISO 8601-1, 4.2.1: the last year of a century has no leap day but in every fourth, which "
     "Julian ones have",
     [](const Difference& difference) {
       const auto fields = fieldsOf(difference.input);
       return onlyTheyAccept(difference) && fields && fields->year < 1582 &&
              fields->year % 100 == 0 && fields->year % 400 != 0 && fields->month == 2 &&
              fields->day == 29;
     }},
    {"RFC 3339, 5.6: hours of a zone go to 23, minutes to 59",
     [](const Difference& difference) {
       const auto fields = fieldsOf(difference.input);
       return onlyTheyAccept(difference) && fields &&
              (fields->zoneHour > 23 || fields->zoneMinute > 59);
     }},
    {"ISO 8601's sign for UTC is a capital letter; RFC 3339, 5.6 also allows a small one, which no "
     "formatter of Foundation's writes",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) && difference.input.ends_with('z') &&
              fieldsOf(difference.input.substr(0, difference.input.size() - 1) + "Z");
     }},
    {"RFC 3339, 5.6: nothing follows the zone",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) && startsWithDate(difference.input) &&
              !fieldsOf(difference.input);
     }},
    {"RFC 3339, 5.6: a zone is Z, or a sign, two digits, a colon and two digits",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) && startsWithMoment(difference.input) &&
              !startsWithDate(difference.input);
     }},
    {"RFC 3339, 5.6: fields have their widths, and nothing is before them",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) && !startsWithMoment(difference.input);
     }}};

Answer millisecondsOf(std::optional<Date> date) {
  if (!date) return std::nullopt;
  return std::to_string(std::chrono::floor<milliseconds>(*date).time_since_epoch().count());
}

void compareParsers(bool withFraction, std::vector<AcceptedDifference> accepted) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, std::move(accepted));
  const std::vector<std::string> texts = dates(generator, withFraction);
  for (std::size_t done = 0; done < texts.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kDatesAPool && done < texts.size(); ++i, ++done) {
      const std::string& text = texts[done];
      const auto ours =
          withFraction ? platform::parseISO8601WithFraction(text) : platform::parseISO8601(text);
      const auto theirs = foundationDate(text, withFraction ? kWithFraction : kWholeSeconds);
      comparison.compare(text, millisecondsOf(ours),
                         theirs ? Answer(std::to_string(*theirs)) : Answer());
    }
  }
  comparison.finish();
}

TEST(DateAgainstFoundationTest, WholeSecondsAreParsed) {
  compareParsers(false, kParserDifferences);
}

TEST(DateAgainstFoundationTest, FractionsAreParsed) { compareParsers(true, kParserDifferences); }

// The last second of all is left out: what is later than its beginning is written as its beginning.
void compareWriters(std::string (*ours)(Date), const std::string& format) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, {{"ISO 8601-1, 4.2.1: dates are Gregorian in all years, where "
                                "Foundation's calendar is the Julian one until 1582-10-04",
                                [](const Difference& difference) {
                                  const auto our = fieldsOf(*difference.ours);
                                  const auto their = fieldsOf(*difference.theirs);
                                  return our && their && gregorianDays(*our) < kFirstGregorianDay &&
                                         julianDays(*their) == gregorianDays(*our) &&
                                         difference.ours->substr(10) ==
                                             difference.theirs->substr(10);
                                }}});
  std::vector<std::int64_t> moments = {kYear0, kLastMoment, 0, -1, 1, 999, -999, -1000, -1001};
  for (int i = 0; i < kGeneratedDates; ++i) {
    const auto span = static_cast<std::size_t>(kLastMoment - kYear0);
    moments.push_back(kYear0 + static_cast<std::int64_t>(generator.below(span)));
  }
  for (std::size_t done = 0; done < moments.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kDatesAPool && done < moments.size(); ++i, ++done) {
      comparison.compare(std::to_string(moments[done]), ours(Date(milliseconds(moments[done]))),
                         foundationDateText(moments[done], format));
    }
  }
  comparison.finish();
}

TEST(DateAgainstFoundationTest, WholeSecondsAreWritten) {
  compareWriters(platform::formatISO8601, kWholeSeconds);
}

TEST(DateAgainstFoundationTest, MillisecondsAreWritten) {
  compareWriters(platform::formatISO8601Milliseconds, kWithFraction);
}

TEST(DateAgainstFoundationTest, DaysOfTheCalendar) {
  Comparison comparison(seedFromEnvironment(), {});
  for (int year = 1583; year <= 9999; year += year < 2200 ? 1 : 25) {
    const ReleasePool pool;
    for (int month = 1; month <= 12; ++month) {
      for (const int day : {29, 30, 31}) {
        const std::string text = digits(static_cast<std::size_t>(year), 4) + "-" +
                                 digits(static_cast<std::size_t>(month), 2) + "-" +
                                 digits(static_cast<std::size_t>(day), 2) + "T00:00:00Z";
        const auto theirs = foundationDay(year, month, day);
        comparison.compare(text, millisecondsOf(platform::parseISO8601(text)),
                           theirs ? Answer(std::to_string(*theirs * 1000)) : Answer());
      }
    }
  }
  comparison.finish();
}

}  // namespace
}  // namespace kestrune::second_opinion
