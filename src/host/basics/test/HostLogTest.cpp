#include "host/basics/HostLog.h"

#include <gtest/gtest.h>

#include "tests/support/CapturingLogSink.h"

namespace kestrune::host {
namespace {

class HostLogTest : public testing::Test {
 protected:
  support::CapturingLogSink sink_;
  std::chrono::steady_clock::time_point now_;
  HostLog log_{[this] { return now_; }};
};

TEST_F(HostLogTest, ALineNamesItsSubsystemAndShowsItsText) {
  log_.failure("fetch", "fetch '/a'", "timed out");
  ASSERT_EQ(sink_.records().size(), 1U);
  EXPECT_EQ(sink_.records()[0].subsystem, "com.orvanta.kestrune.host");
  EXPECT_EQ(sink_.records()[0].level, platform::LogLevel::error);
  EXPECT_EQ(sink_.messages()[0], "fetch '/a': timed out");
}

TEST_F(HostLogTest, ALoopDoesNotFloodTheLog) {
  for (int i = 0; i < 100'000; ++i) log_.failure("fetch", "fetch '/a'", "timed out");
  EXPECT_EQ(sink_.records().size(), HostLog::kBurst);
  now_ += HostLog::kInterval;
  log_.failure("fetch", "fetch '/a'", "timed out");
  log_.failure("fetch", "fetch '/a'", "timed out");
  ASSERT_EQ(sink_.records().size(), HostLog::kBurst + 1);
  EXPECT_EQ(sink_.messages().back(),
            "fetch '/a': timed out (99980 more like this since the last line)");
}

TEST_F(HostLogTest, OneKindDoesNotSilenceAnother) {
  for (int i = 0; i < 100; ++i) log_.failure("fetch", "fetch '/a'", "timed out");
  log_.note("names", "left out");
  EXPECT_EQ(sink_.messages().back(), "left out");
}

}  // namespace
}  // namespace kestrune::host
