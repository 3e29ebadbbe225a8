// `kestrune status --watch` on a terminal and on a pipe, beside a host in the test's hands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "companion/control/HostFinder.h"
#include "host/control/test/FakeHostControl.h"
#include "status/SyncStatus.h"
#include "tests/console/ChildProgram.h"
#include "tests/console/TerminalProgram.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"

namespace kestrune {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kEnter = "\033[?1049h";
constexpr const char* kLeave = "\033[?25h\033[?1049l";

class WatchProgram : public testing::Test {
 protected:
  WatchProgram() {
    control.setPending("/", {});
    options.socketFile = controlSocketFiles("main").front();
    options.domainIdentifier = "main";
    options.mountPoint = "/mnt/k";
    server = std::make_unique<host::ControlServer>(options, control);
  }
  void setKnownItems(std::uint64_t count) {
    host::HostStatus status;
    status.knownItems = count;
    control.setStatus(status);
  }

  support::TemporaryDirectory runtime;
  support::IsolatedStorage storage;
  support::ScopedEnvironment variable{"XDG_RUNTIME_DIR", runtime.path().string()};
  support::ScopedEnvironment kind{"TERM", "xterm"};
  host::FakeHostControl control;
  host::ControlOptions options;
  std::unique_ptr<host::ControlServer> server;
};

TEST_F(WatchProgram, DrawsAPageAndPutsTheTerminalBackOnControlC) {
  TerminalProgram program({"status", "--watch"});
  const std::string first = program.readUntil("Transfers (0)");
  EXPECT_THAT(first, HasSubstr(kEnter));
  EXPECT_THAT(first, HasSubstr("Kestrune  /mnt/k"));
  EXPECT_FALSE(program.echoes());
  setKnownItems(77);
  program.readUntil("of 77 items");
  program.type("\x03");
  std::string rest;
  EXPECT_EQ(program.end(rest), 130);
  EXPECT_TRUE(rest.ends_with(kLeave)) << rest;
  EXPECT_TRUE(program.echoes());
}

TEST_F(WatchProgram, QEndsItAndSignalsDoToo) {
  std::string rest;
  {
    TerminalProgram program({"status", "--watch"});
    program.readUntil("Transfers");
    program.type("q");
    EXPECT_EQ(program.end(rest), 0);
  }
  TerminalProgram program({"status", "--watch"});
  program.readUntil("Transfers");
  program.signal(SIGTERM);
  rest.clear();
  EXPECT_EQ(program.end(rest), 143);
  EXPECT_TRUE(rest.ends_with(kLeave));
}

TEST_F(WatchProgram, FollowsTheTerminalsSize) {
  TerminalProgram program({"status", "--watch"});
  program.readUntil("Kestrune  /mnt/k");
  program.resize(12, 24);
  program.readUntil("Kestrune  /~");
}

TEST_F(WatchProgram, WithoutColorsWhereTheyAreNotWanted) {
  const support::ScopedEnvironment plain("NO_COLOR", "1");
  TerminalProgram program({"status", "--watch"});
  EXPECT_THAT(program.readUntil("Transfers (0)"), Not(HasSubstr("\033[1m")));
}

TEST_F(WatchProgram, WaitsForAHostThatGoesAway) {
  TerminalProgram program({"status", "--watch"});
  program.readUntil("Transfers");
  server = nullptr;
  program.readUntil("No host answers");
  server = std::make_unique<host::ControlServer>(options, control);
  program.readUntil("Transfers");
}

TEST_F(WatchProgram, OnAPipeItTellsEachChangeOnce) {
  ChildProgram program("kestrune", {"status", "--watch"});
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z store not asked yet"));
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z everything is at the store"));
  control.setPending("/", {1, {host::pendingSend("/a", "it is full")}});
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("send of /a failed: it is full"));
  program.signal(SIGINT);
  EXPECT_EQ(program.readLine(), std::nullopt) << "nothing is told twice";
  EXPECT_EQ(program.finish(), 130);
}

TEST_F(WatchProgram, ShowsConflictsAsTheyComeAndGo) {
  const std::string path = "/a (conflict kestrel 2026-11-22 04.15)";
  host::HostStatus status;
  status.conflictCount = 1;
  status.conflicts = {path};
  ChildProgram piped("kestrune", {"status", "--watch"});
  piped.readLine();
  piped.readLine();
  control.setStatus(status);
  EXPECT_THAT(piped.readLine().value_or(""), testing::EndsWith("Z conflict at " + path));
  TerminalProgram page({"status", "--watch"});
  EXPECT_THAT(page.readUntil(path), HasSubstr("Changed here and elsewhere (1)"));
  control.setStatus({});
  EXPECT_THAT(piped.readLine().value_or(""), testing::EndsWith("Z ended: conflict at " + path));
}

TEST_F(WatchProgram, OnAPipeItTellsWhenTransfersBeginAndEnd) {
  ChildProgram program("kestrune", {"status", "--watch"});
  program.readLine();
  program.readLine();
  SyncStatus record;
  record.transfers.push_back(
      {"id", "/Docs/a", 0, 2048, SyncTransfer::Direction::download, platform::dateNow()});
  storage.writeShared("sync-status.json", record.encode());
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z download of /Docs/a, 2.0 KiB"));
  record.transfers[0].bytesTransferred = 2000;
  storage.writeShared("sync-status.json", record.encode());
  storage.writeShared("sync-status.json", SyncStatus().encode());
  EXPECT_THAT(program.readLine().value_or(""), HasSubstr("Z ended: download of /Docs/a, 2.0 KiB"));
}

TEST_F(WatchProgram, ForProgramsItTellsObjects) {
  ChildProgram program("kestrune", {"status", "--watch", "--json"});
  EXPECT_EQ(platform::decodeJson(program.readLine().value_or(""))["status"]["knownItems"], 0);
  setKnownItems(5);
  EXPECT_EQ(platform::decodeJson(program.readLine().value_or(""))["status"]["knownItems"], 5);
  program.signal(SIGTERM);
  EXPECT_EQ(program.finish(), 143);
}

TEST_F(WatchProgram, WithoutAHostAtTheBeginningItFails) {
  server = nullptr;
  ChildProgram program("kestrune", {"status", "--watch"});
  EXPECT_EQ(program.finish(), 1);
  EXPECT_THAT(program.errors(), HasSubstr("No host of the domain"));
}

}  // namespace
}  // namespace kestrune
