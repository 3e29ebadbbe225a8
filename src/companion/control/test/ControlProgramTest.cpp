// The program `kestrune` beside a host: arguments, exit codes, the place of the socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companion/control/HostFinder.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/console/ChildProgram.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"

namespace kestrune {
namespace {

using testing::HasSubstr;

class ControlProgram : public testing::Test {
 protected:
  /// Runs the program; its first line of output is `line`.
  int run(const std::vector<std::string>& arguments) {
    ChildProgram program("kestrune", arguments);
    line = program.readLine().value_or("");
    const int status = program.finish();
    errors = program.errors();
    return status;
  }

  support::TemporaryDirectory runtime;
  support::IsolatedStorage storage;
  support::ScopedEnvironment variable{"XDG_RUNTIME_DIR", runtime.path().string()};
  host::FakeHostControl control;
  std::string line;
  std::string errors;
};

TEST_F(ControlProgram, WithoutAHostItSaysSo) {
  EXPECT_EQ(run({"status"}), 1);
  EXPECT_THAT(errors, HasSubstr("No host of the domain 'main' is running"));
  EXPECT_EQ(run({"pin", "/usr"}), 1);
  EXPECT_THAT(errors, HasSubstr("does not lie in a folder"));
}

TEST_F(ControlProgram, WrongUsageIsTold) {
  EXPECT_EQ(run({"pin"}), 2);
  EXPECT_EQ(run({"sync", "--timeout", "-1", "/x"}), 2);
  EXPECT_EQ(run({"status", "/x", "/y"}), 2);
  EXPECT_EQ(run({"allow-deletions", "/x"}), 2);
}

TEST_F(ControlProgram, AsksTheHostOfTheDomain) {
  host::ControlOptions options;
  options.socketFile = controlSocketFiles("main").front();
  options.domainIdentifier = "main";
  const host::ControlServer server(options, control);
  EXPECT_EQ(run({"status", "--json"}), 0) << errors;
  EXPECT_EQ(platform::decodeJson(line)["domain"], "main");
  EXPECT_EQ(run({"allow-deletions"}), 0) << errors;
  EXPECT_EQ(line, "7 deletions are carried out.");
  EXPECT_EQ(run({"status", "--domain", "other"}), 1);
}

TEST_F(ControlProgram, ARestartThatFailsSaysWhy) {
  host::ControlOptions options;
  options.socketFile = controlSocketFiles("main").front();
  options.domainIdentifier = "main";
  options.mountPoint = "/mnt/k";
  const host::ControlServer server(options, control);
  EXPECT_EQ(run({"restart"}), 1);
  EXPECT_THAT(errors, HasSubstr("The host was not replaced and goes on: "));
  EXPECT_THAT(errors, HasSubstr("Exec format error"));
  EXPECT_EQ(run({"restart", "--domain", "other"}), 1);
  EXPECT_THAT(errors, HasSubstr("No host of the domain 'other' is running"));
  EXPECT_EQ(run({"restart", "/usr"}), 1);
  EXPECT_THAT(errors, HasSubstr("does not lie in a folder"));
}

TEST_F(ControlProgram, ADoctorThatFindsAProblemExitsWithOne) {
  EXPECT_EQ(run({"doctor", "--json"}), 1) << "there is no configuration";
  const auto found = platform::decodeJson(line);
  EXPECT_GT(found["problems"], 0);
  bool isTold = false;
  for (const auto& finding : found["findings"])
    isTold = isTold || (finding["about"] == "configuration" && finding["level"] == "problem");
  EXPECT_TRUE(isTold) << line;
}

TEST_F(ControlProgram, AHostOfAnotherEnvironmentIsFoundToo) {
  host::ControlOptions options;
  options.socketFile = storage.shared() / "control" / "main.sock";
  const host::ControlServer server(options, control);
  EXPECT_EQ(run({"keep-deleted", "--json"}), 0) << errors;
  EXPECT_EQ(platform::decodeJson(line)["count"], 8);
}

}  // namespace
}  // namespace kestrune
