#include "companion/RecentLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrune {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

struct CountingSink final : platform::LogSink {
  void write(const platform::LogRecord&) override { ++count; }
  std::size_t count = 0;
};

platform::LogRecord record(const std::string& subsystem, const std::string& text) {
  return {subsystem, "part", platform::LogLevel::error, "failed name=%{public}s", {text}};
}

TEST(RecentLog, KeepsTheLatestLinesAndPassesAllOn) {
  CountingSink next;
  RecentLog log(next);
  for (std::size_t i = 0; i <= RecentLog::kMost; ++i)
    log.write(record("com.orvanta.kestrune.host", "n" + std::to_string(i)));
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), RecentLog::kMost);
  EXPECT_THAT(lines.front(), HasSubstr("error [com.orvanta.kestrune.host:part] failed name=n1"));
  EXPECT_THAT(lines.back(), HasSubstr("n500"));
  EXPECT_THAT(lines.back(), Not(HasSubstr("\n")));
  EXPECT_EQ(next.count, RecentLog::kMost + 1);
}

TEST(RecentLog, OfTheExtensionItKeepsWhatHappenedAndNotToWhat) {
  CountingSink next;
  RecentLog log(next);
  log.write(record("com.orvanta.kestrune.fileprovider", "secret"));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("] failed name=%{public}s")));
}

TEST(RecentLog, LongLinesAreCut) {
  CountingSink next;
  RecentLog log(next);
  log.write(record("host", std::string(5000, 'x')));
  EXPECT_EQ(log.lines().at(0).size(), RecentLog::kMostBytes);
}

}  // namespace
}  // namespace kestrune
