#include "sandbox/BubblewrapCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrune::sandbox {

namespace {

using testing::ElementsAreArray;

const std::vector<std::string> kNamespaces = {"/usr/bin/bwrap",    "--unshare-user",
                                              "--unshare-ipc",     "--unshare-pid",
                                              "--unshare-uts",     "--unshare-cgroup-try",
                                              "--die-with-parent", "--new-session",
                                              "--cap-drop",        "ALL",
                                              "--clearenv"};

std::vector<std::string> operator+(std::vector<std::string> first,
                                   const std::vector<std::string>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST(BubblewrapCommandTest, BindsThePlacesAndNothingElse) {
  SandboxRules rules;
  rules.places = {{"/usr", Access::read, 1, 1},
                  {"/dev/null", Access::device, 1, 2},
                  {"/data/shared", Access::readWrite, 1, 3}};
  rules.links = {{"/lib", "/usr/lib"}};
  rules.program = "/usr/bin/program";
  EXPECT_THAT(bubblewrapCommand(rules, {{"A", "1"}, {"B", ""}}, {"--socket", "3"}),
              ElementsAreArray(kNamespaces + std::vector<std::string>{"--setenv",
                                                                      "A",
                                                                      "1",
                                                                      "--setenv",
                                                                      "B",
                                                                      "",
                                                                      "--ro-bind",
                                                                      "/usr",
                                                                      "/usr",
                                                                      "--dev-bind",
                                                                      "/dev/null",
                                                                      "/dev/null",
                                                                      "--bind",
                                                                      "/data/shared",
                                                                      "/data/shared",
                                                                      "--symlink",
                                                                      "/usr/lib",
                                                                      "/lib",
                                                                      "--remount-ro",
                                                                      "/",
                                                                      "--chdir",
                                                                      "/",
                                                                      "--",
                                                                      "/usr/bin/program",
                                                                      "--socket",
                                                                      "3"}));
}

TEST(BubblewrapCommandTest, CoversBeforeItBindsInTheCoveredDirectory) {
  SandboxRules rules;
  rules.places = {{"/s/replica/tmp", Access::readWrite, 1, 1},
                  {"/s", Access::readWrite, 1, 2},
                  {"/s/replica/outgoing", Access::read, 1, 3}};
  rules.covered = {"/s/replica"};
  rules.program = "/p";
  EXPECT_THAT(bubblewrapCommand(rules, {}, {}),
              ElementsAreArray(kNamespaces +
                               std::vector<std::string>{
                                   "--bind", "/s", "/s", "--tmpfs", "/s/replica", "--bind",
                                   "/s/replica/tmp", "/s/replica/tmp", "--ro-bind",
                                   "/s/replica/outgoing", "/s/replica/outgoing", "--remount-ro",
                                   "/s/replica", "--remount-ro", "/", "--chdir", "/", "--", "/p"}));
}

}  // namespace

}  // namespace kestrune::sandbox
