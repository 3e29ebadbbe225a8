// The process that the extension of a real folder runs in: what is told of it, and that it is confined.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/mount/LiveRestart.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;
using testing::HasSubstr;
using testing::Not;

/// The value of a row of /proc/PID/status, by its first word.
std::string rowOf(int process, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string word; file >> word;) {
    if (word == name) return file >> word ? word : "";
  }
  return "";
}

class LiveExtensionTest : public LiveRestartTest {
 protected:
  void SetUp() override {
    LiveRestartTest::SetUp();
    if (!HasFatalFailure() && !IsSkipped()) EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  }
  std::string tell(const std::string& command) {
    const auto result = mount().control(command);
    EXPECT_EQ(result.status, 0) << result.output;
    return result.output;
  }
};

TEST_F(LiveExtensionTest, StatusAndReportTellOfTheProcessAndItsDeath) {
  const int process = mount().extension();
  ASSERT_NE(process, 0);
  EXPECT_THAT(tell("status"), HasSubstr("The extension runs as process " + std::to_string(process) +
                                        " (started 1 time)"));
  EXPECT_THAT(tell("status"), Not(HasSubstr("It died")));
  EXPECT_THAT(tell("report --print"), HasSubstr("Crashes of the extension: 0\n"));

  ASSERT_EQ(::kill(process, SIGSEGV), 0);
  ASSERT_TRUE(waitUntil([&] {
    return mount().control("status").output.find("It died 1 time, the last time by signal 11") !=
           std::string::npos;
  })) << tell("status");
  EXPECT_EQ(contentsOf(mount() / "docs/b.txt"), "other");
  EXPECT_THAT(tell("status"), HasSubstr("(started 2 times)"));
  const std::string report = tell("report --print");
  EXPECT_THAT(report, HasSubstr("Crashes of the extension: 1\n"));
  EXPECT_THAT(report, HasSubstr("the extension ended by signal 11"));
  EXPECT_THAT(report, HasSubstr("signal: SEGV"));
  EXPECT_THAT(report, HasSubstr("Service: http, token present\n"));
  const std::string top = mount().mountPoint().parent_path();
  for (const std::string& secret : {std::string("live-mount-token"), service().address(), top})
    EXPECT_THAT(report, Not(HasSubstr(secret)));
}

TEST_F(LiveExtensionTest, ACrashIsReportedWhereNoHostRuns) {
  ASSERT_EQ(::kill(mount().extension(), SIGSEGV), 0);
  ASSERT_TRUE(waitUntil([&] {
    return mount().control("status").output.find("It died 1 time") != std::string::npos;
  }));
  mount().end(SIGTERM);
  const std::string report = tell("report --print --replica '" + mount().replica().string() + "'");
  EXPECT_THAT(report, HasSubstr("No host answers.\n"));
  EXPECT_THAT(report, HasSubstr("Crashes of the extension: 1\n"));
  EXPECT_THAT(report, Not(HasSubstr("live-mount-token")));
}

TEST_F(LiveExtensionTest, TheProcessIsConfinedAsStatusSays) {
  const int process = mount().extension();
  ASSERT_NE(process, 0);
  EXPECT_EQ(rowOf(process, "Seccomp:"), "2");
  EXPECT_EQ(rowOf(process, "NoNewPrivs:"), "1");
  EXPECT_EQ(rowOf(process, "CapEff:"), "0000000000000000");
  std::error_code error;
  const fs::path theirs = fs::read_symlink("/proc/" + std::to_string(process) + "/ns/mnt", error);
  if (error) GTEST_SKIP() << "name spaces cannot be looked at: " << error.message();
  const bool saysBubblewrap = tell("status --json").find("whyNoBubblewrap") == std::string::npos;
  EXPECT_EQ(theirs != fs::read_symlink("/proc/self/ns/mnt"), saysBubblewrap);
}

}  // namespace
}  // namespace kestrune::mounttest
