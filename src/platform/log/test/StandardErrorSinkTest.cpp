#include "platform/log/StandardErrorSink.h"

#include <gtest/gtest.h>

namespace kestrune::platform {
namespace {

LogRecord record(LogLevel level, std::string text) {
  return {"com.example.app", "network", level, "said %{public}s", {std::move(text)}};
}

TEST(StandardErrorSinkTest, LineForPeopleHasTimeLevelOriginAndMessage) {
  const Date time = *parseISO8601WithFraction("2024-06-10T08:15:00.1239Z");
  EXPECT_EQ(standardErrorLine(record(LogLevel::error, "hello"), time),
            "2024-06-10T08:15:00.123Z error [com.example.app:network] said hello\n");
  EXPECT_EQ(standardErrorLine(record(LogLevel::standard, ""), time),
            "2024-06-10T08:15:00.123Z default [com.example.app:network] said \n");
}

TEST(StandardErrorSinkTest, LineForPeopleCannotBeForged) {
  LogRecord hostile = record(LogLevel::info, "a\n2024-06-10 fault [x:y] forged\x1b[2J\u202E\xFF");
  hostile.subsystem = "sub\nsystem";
  hostile.category = "cat\regory";
  EXPECT_EQ(standardErrorLine(hostile, Date()),
            "1970-01-01T00:00:00.000Z info [sub\\nsystem:cat\\regory] said "
            "a\\n2024-06-10 fault [x:y] forged\\x1b[2J\\u202e\\xff\n");
}

TEST(StandardErrorSinkTest, EachRecordIsOneLine) {
  testing::internal::CaptureStderr();
  standardErrorSink().write(record(LogLevel::error, "first"));
  standardErrorSink().write(record(LogLevel::info, std::string(100'000, 'x')));
  const std::string written = testing::internal::GetCapturedStderr();
  const auto end = written.find('\n');
  ASSERT_NE(end, std::string::npos);
  EXPECT_EQ(written.substr(written.find(' '), end + 1 - written.find(' ')),
            " error [com.example.app:network] said first\n");
  EXPECT_TRUE(
      written.ends_with("[com.example.app:network] said " + std::string(100'000, 'x') + "\n"));
}

}  // namespace
}  // namespace kestrune::platform
