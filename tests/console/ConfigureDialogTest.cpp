// `kestrune configure` at a terminal asks for what it needs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "config/SharedConfig.h"
#include "tests/console/TerminalProgram.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using testing::HasSubstr;
using testing::Not;

class ConfigureDialog : public testing::Test {
 protected:
  ConfigureDialog() { service.writeConfiguration("{}"); }
  support::ServiceFixture service;
};

TEST_F(ConfigureDialog, AsksForWhatIsMissingAndDoesNotShowTheToken) {
  service.http().on("GET", "/files", support::Answer(200, support::listingReply({})));
  TerminalProgram program({"configure"});
  program.readUntil("Address of the service");
  EXPECT_TRUE(program.echoes());
  program.type(service.http().origin() + "\n");
  std::string seen = program.readUntil("Token (it is not shown): ");
  EXPECT_FALSE(program.echoes());
  program.type("typed-secret\n");
  EXPECT_EQ(program.end(seen), 0) << seen;
  EXPECT_THAT(seen, HasSubstr("the service accepts the token"));
  EXPECT_THAT(seen, Not(HasSubstr("typed-secret")));
  EXPECT_TRUE(program.echoes());
  EXPECT_EQ(SharedConfig::token()->reveal(), "typed-secret");
}

TEST_F(ConfigureDialog, AWrongAddressIsToldBeforeTheTokenIsAskedFor) {
  TerminalProgram program({"configure"});
  program.readUntil("Address of the service");
  program.type("nonsense\n");
  std::string seen;
  EXPECT_EQ(program.end(seen), 1);
  EXPECT_THAT(seen, HasSubstr("'nonsense' is no address"));
}

TEST_F(ConfigureDialog, ControlCEndsItAndPutsTheTerminalBack) {
  TerminalProgram program({"configure", "--url", "http://h"});
  program.readUntil("Token (it is not shown): ");
  program.type("typed\x03");
  std::string seen;
  EXPECT_EQ(program.end(seen), 130);
  EXPECT_TRUE(program.echoes());
  EXPECT_FALSE(SharedConfig::token());
}

TEST_F(ConfigureDialog, ASignalPutsTheTerminalBackToo) {
  TerminalProgram program({"configure", "--url", "http://h"});
  program.readUntil("Token (it is not shown): ");
  program.signal(SIGTERM);
  std::string seen;
  EXPECT_EQ(program.end(seen), 143);
  EXPECT_TRUE(program.echoes());
}

}  // namespace
}  // namespace kestrune
