// Ctrl-C while a command waits for the store.
#include <gtest/gtest.h>

#include <string>

#include "tests/console/TerminalProgram.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

TEST(Interruption, ControlCEndsCatAndLeavesNothing) {
  support::ServiceFixture service;
  service.setListing("/", {{.name = "a.txt", .size = 5}});
  service.setContents("/a.txt", {support::Answer::never()});
  TerminalProgram program({"cat", "/a.txt"});
  ASSERT_TRUE(service.http().waitForRequests(3)) << "two listings and an address";
  EXPECT_FALSE(service.storage().temporaryNames().empty()) << "it has not begun";
  program.type("\x03");
  std::string seen;
  EXPECT_EQ(program.end(seen), 130) << seen;
  EXPECT_TRUE(service.storage().temporaryNames().empty());
}

TEST(Interruption, ControlCEndsAListing) {
  support::ServiceFixture service;
  service.http().hold("GET", "/files");
  TerminalProgram program({"ls", "/"});
  ASSERT_TRUE(service.http().waitForRequests(1));
  program.type("\x03");
  std::string seen;
  EXPECT_EQ(program.end(seen), 130) << seen;
  EXPECT_TRUE(service.storage().temporaryNames().empty());
}

}  // namespace
}  // namespace kestrune
