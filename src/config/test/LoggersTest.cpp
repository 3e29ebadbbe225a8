#include "config/Loggers.h"

#include <gtest/gtest.h>

#include "tests/support/CapturingLogSink.h"

namespace kestrune {
namespace {

TEST(Loggers, EachHasItsCategoryAndIsMadeOnce) {
  const struct {
    const platform::Logger& (*logger)();
    std::string category;
  } cases[] = {{&fpLog, "extension"}, {&enumLog, "enumerator"}};
  for (const auto& [logger, category] : cases) {
    const support::CapturingLogSink log;
    logger().write(platform::LogLevel::info, "text");
    ASSERT_EQ(log.records().size(), 1U);
    EXPECT_EQ(log.records()[0].subsystem, "com.orvanta.kestrune.fileprovider");
    EXPECT_EQ(log.records()[0].category, category);
    EXPECT_EQ(&logger(), &logger());
  }
}

}  // namespace
}  // namespace kestrune
