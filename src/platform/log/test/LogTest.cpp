#include "platform/log/Log.h"

#include <gtest/gtest.h>

namespace kestrune::platform {
namespace {

TEST(LogTest, LevelsHaveTheirNames) {
  EXPECT_EQ(logLevelName(LogLevel::debug), "debug");
  EXPECT_EQ(logLevelName(LogLevel::info), "info");
  EXPECT_EQ(logLevelName(LogLevel::standard), "default");
  EXPECT_EQ(logLevelName(LogLevel::error), "error");
  EXPECT_EQ(logLevelName(LogLevel::fault), "fault");
}

}  // namespace
}  // namespace kestrune::platform
