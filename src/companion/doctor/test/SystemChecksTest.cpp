#include "companion/doctor/SystemChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/IsolatedStorage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using testing::HasSubstr;
using Level = Finding::Level;

class SystemChecksTest : public testing::Test {
 protected:
  SystemChecksTest() {
    places.fuseDevice = directory.write("fuse", "");
    places.programFolders = {directory.path() / "bin"};
    places.user = 1000;
  }
  support::TemporaryDirectory directory;
  SystemPlaces places;
};

TEST_F(SystemChecksTest, WithoutADeviceNothingCanBeMounted) {
  EXPECT_EQ(checkMounting(places)[0].level, Level::ok);
  places.fuseDevice = directory.path() / "missing";
  const Finding finding = checkMounting(places)[0];
  EXPECT_EQ(finding.level, Level::problem);
  EXPECT_EQ(finding.about, "fuse-device");
  EXPECT_THAT(finding.text, HasSubstr("missing' cannot be opened: No such file"));
  EXPECT_THAT(finding.advice, HasSubstr("modprobe fuse"));
  places.fuseDevice = directory.path();
  EXPECT_THAT(checkMounting(places)[0].advice, HasSubstr("0666"));
}

TEST_F(SystemChecksTest, UsersNeedAHelperThatMayMount) {
  EXPECT_THAT(checkMounting(places)[1].advice, HasSubstr("Install the package fuse3"));
  EXPECT_EQ(checkMounting(places)[1].level, Level::problem);
  const auto helper = directory.write("bin/fusermount3", "");
  ASSERT_EQ(::chmod(helper.c_str(), 0755), 0);
  EXPECT_THAT(checkMounting(places)[1].text, HasSubstr("may not mount for users"));
  if (::geteuid() == 0) {
    ASSERT_EQ(::chmod(helper.c_str(), 04755), 0);
    EXPECT_EQ(checkMounting(places)[1].level, Level::ok);
  }
  places.user = 0;
  places.programFolders.clear();
  EXPECT_EQ(checkMounting(places)[1].level, Level::ok);
}

TEST_F(SystemChecksTest, TriesTheSandboxOrSaysWhyNot) {
  const support::IsolatedStorage storage;
  const Findings findings = checkSandbox(directory.path() / "no-such-program");
  ASSERT_EQ(findings.size(), 2U);
  EXPECT_EQ(findings[0].about, "bubblewrap");
  EXPECT_EQ(findings[0].level, Level::warning);
  EXPECT_THAT(findings[0].text, HasSubstr("no-such-program"));
  EXPECT_EQ(findings[1].about, "landlock");
  EXPECT_TRUE(storage.temporaryNames().empty()) << "what was made for the trial stays";
}

TEST_F(SystemChecksTest, FewDescriptorsAreToldAndNoneIsAProblem) {
  EXPECT_EQ(checkLimits().size(), 2U);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);  // each case runs in a process of its own
  const Findings few = checkLimits();
  EXPECT_EQ(few[0].level, Level::warning);
  EXPECT_THAT(few[0].text, HasSubstr("may open 64 files only"));
  limit.rlim_cur = 3;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  const Findings none = checkLimits();
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);  // a search for leaks at the end needs some
  EXPECT_EQ(none[1].level, Level::problem);
  EXPECT_THAT(none[1].advice, HasSubstr("max_user_instances"));
}

}  // namespace
}  // namespace kestrune
