#include "sandbox/BubblewrapTrial.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune::sandbox {

namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class BubblewrapTrialTest : public testing::Test {
 protected:
  /// A program in bubblewrap's place.
  std::filesystem::path standIn(const std::string& script) const {
    auto file = directory_.write("bwrap", "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
  }

  std::string reasonOf(const std::filesystem::path& bubblewrap,
                       milliseconds deadline = milliseconds(20000)) const {
    return whyNoBubblewrap(rules_, bubblewrap, deadline).value_or("it works");
  }

  support::TemporaryDirectory directory_;
  SandboxRules rules_;
};

TEST_F(BubblewrapTrialTest, AMissingOneIsNamed) {
  EXPECT_EQ(reasonOf("/nowhere/bwrap"), "bubblewrap is not installed (/nowhere/bwrap)");
}

TEST_F(BubblewrapTrialTest, OneThatCannotBeStartedIsTold) {
  EXPECT_EQ(reasonOf(directory_.write("bwrap", "")),
            "bubblewrap cannot be started: Permission denied");
}

TEST_F(BubblewrapTrialTest, OneThatWorksIsTriedWithTheWholeCommand) {
  EXPECT_EQ(reasonOf(standIn("exit 0")), "it works");
  EXPECT_THAT(reasonOf(standIn("echo \"$@\" >&2; exit 1")), HasSubstr("--unshare-user"));
  EXPECT_THAT(reasonOf(standIn("for last; do :; done; echo \"$last\" >&2; exit 1")),
              HasSubstr("/usr/bin/true"));
}

TEST_F(BubblewrapTrialTest, TheReasonIsItsFirstLine) {
  const auto reason =
      reasonOf(standIn("echo 'No permissions to create new namespace' >&2; echo more >&2; exit 1"));
  EXPECT_THAT(
      reason,
      StartsWith("bubblewrap cannot make a sandbox: No permissions to create new namespace"));
  EXPECT_THAT(reason, Not(HasSubstr("more")));
}

TEST_F(BubblewrapTrialTest, OneThatSaysNothingOrIsKilledFailsToo) {
  EXPECT_THAT(reasonOf(standIn("exit 1")), HasSubstr("it does not say why"));
  EXPECT_THAT(reasonOf(standIn("kill -9 $$")), HasSubstr("it does not say why"));
}

TEST_F(BubblewrapTrialTest, OneThatHangsIsKilledAtTheDeadline) {
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(reasonOf(standIn("exec sleep 100"), milliseconds(50)),
            "bubblewrap did not answer within 50 ms");
  EXPECT_EQ(reasonOf(standIn("exec sleep 100 2>&-"), milliseconds(50)),
            "bubblewrap did not answer within 50 ms");
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(50));
}

TEST_F(BubblewrapTrialTest, FindsNeitherTheHostsEnvironmentNorItsDirectory) {
  EXPECT_THAT(reasonOf(standIn("echo \"[$HOME] $(pwd)\" >&2; exit 1")), HasSubstr(": [] /"));
}

}  // namespace

}  // namespace kestrune::sandbox
