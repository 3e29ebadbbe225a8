#include "companion/control/ControlCommands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "companion/configuration/CommandError.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using host::pendingSend;
using platform::Json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Op = host::ControlRequest::Op;

/// Two hosts, and the commands of somebody who asks them.
class ControlCommandsTest : public testing::Test {
 protected:
  ControlCommandsTest()
      : top(fs::canonical(directory.path())),
        finder({directory.path() / "sockets"}, row("mount") + row("second")),
        server(start("main", "mount", control)),
        secondServer(start("second", "second", secondControl)) {}

  std::string row(const std::string& name) const {
    return "40 22 0:50 / " + (top / name).string() + " rw - fuse.kestrune kestrune rw\n";
  }
  std::unique_ptr<host::ControlServer> start(const std::string& domain, const std::string& name,
                                             host::HostControl& asked) const {
    host::ControlOptions options;
    options.socketFile = directory.path() / "sockets" / (domain + ".sock");
    options.domainIdentifier = domain;
    options.mountPoint = top / name;
    return std::make_unique<host::ControlServer>(options, asked);
  }
  std::string at(const std::string& path) const { return top.string() + path; }

  /// What is printed; `error` is what the command ended with.
  std::string run(ControlCommand command) {
    std::ostringstream out;
    error.clear();
    progress.str("");
    try {
      runControl(finder, command, {out, Escaping::forTerminal, command.asJson, &progress});
    } catch (const CommandError& failure) {
      error = failure.what();
    }
    return out.str();
  }
  std::string run(Op op, std::vector<std::string> paths = {}, bool asJson = false) {
    ControlCommand command;
    command.op = op;
    command.paths = std::move(paths);
    command.asJson = asJson;
    return run(command);
  }

  support::TemporaryDirectory directory;
  const fs::path top;
  host::FakeHostControl control;
  host::FakeHostControl secondControl;
  const HostFinder finder;
  std::unique_ptr<host::ControlServer> server;
  std::unique_ptr<host::ControlServer> secondServer;
  std::string error;
  std::ostringstream progress;
};

TEST_F(ControlCommandsTest, StatusIsTextOrJson) {
  EXPECT_THAT(run(Op::status), HasSubstr("domain main"));
  EXPECT_EQ(platform::decodeJson(run(Op::status, {}, true))["mountPoint"], at("/mount"));
  ControlCommand command;
  command.domainIdentifier = "second";
  EXPECT_THAT(run(command), HasSubstr("domain second"));
  command.domainIdentifier = "third";
  EXPECT_EQ(run(command), "");
  EXPECT_THAT(error, HasSubstr("kestrune mount"));
}

TEST_F(ControlCommandsTest, PendingOfADomainOrAPath) {
  control.setPending("/", {1, {pendingSend("/a", "no room")}});
  EXPECT_THAT(run(Op::pending), HasSubstr("/a  (5 bytes)"));
  EXPECT_EQ(error, "");
  secondControl.setPending("/Docs", {1, {pendingSend("/Docs/x")}});
  EXPECT_THAT(run(Op::pending, {at("/second/Docs")}), HasSubstr("/Docs/x"));
  const Json json = platform::decodeJson(run(Op::pending, {at("/second/Docs")}, true));
  EXPECT_EQ(json["path"], at("/second/Docs"));
  EXPECT_EQ(json["count"], 1);
  EXPECT_EQ(run(Op::pending, {at("/second/missing")}), "");
  EXPECT_THAT(error, HasSubstr("find '/missing'"));
}

TEST_F(ControlCommandsTest, SyncWithoutWaitingOnlyTries) {
  control.setPending("/a", {2, {pendingSend("/a")}});
  EXPECT_THAT(run(Op::sync, {at("/mount/a")}), HasSubstr("2 changes are on their way"));
  EXPECT_EQ(error, "");
  EXPECT_THAT(control.calls(), ElementsAre("tryNow /a", "pending /a 100"));
}

TEST_F(ControlCommandsTest, SyncThatWaitsFailsWithWhatIsLeft) {
  control.setPending("/a", {});
  control.setPending("/b", {1, {pendingSend("/b", "no room there")}});
  ControlCommand command;
  command.op = Op::sync;
  command.paths = {at("/mount/a"), at("/mount/b")};
  command.waits = true;
  command.timeout = std::chrono::seconds(2);
  EXPECT_EQ(run(command), at("/mount/a") + ": everything is at the store.\n");
  EXPECT_THAT(error, HasSubstr(at("/mount/b") + "' is not at the store yet"));
  EXPECT_THAT(error, HasSubstr("no room there"));
  EXPECT_THAT(progress.str(), HasSubstr("1 change left"));
}

TEST_F(ControlCommandsTest, EachItemIsTreatedWhateverBecomesOfTheOthers) {
  control.setPending("/a", {});
  control.setPending("/d", {});
  secondControl.setPending("/b", {});
  const std::string printed = run(
      Op::link, {at("/mount/a"), at("/mount/missing"), "/usr", at("/second/b"), at("/mount/d")});
  EXPECT_EQ(printed, "https://share.test/a\nhttps://share.test/b\nhttps://share.test/d\n");
  EXPECT_THAT(error, HasSubstr("Cannot make a link to '" + at("/mount/missing") + "': find"));
  EXPECT_THAT(error, HasSubstr("'/usr' does not lie in"));
}

TEST_F(ControlCommandsTest, TheVerbsArePassedOn) {
  control.setPending("/a", {});
  for (const Op op : {Op::pin, Op::unpin, Op::evict, Op::download}) {
    EXPECT_EQ(run(op, {at("/mount/a")}), "");
    EXPECT_EQ(error, "");
  }
  EXPECT_THAT(control.calls(), ElementsAre("pin /a", "unpin /a", "evict /a", "download /a"));
  EXPECT_THAT(run(Op::state, {at("/mount/a")}), HasSubstr("5 bytes of 10 bytes here, pinned"));
}

TEST_F(ControlCommandsTest, JsonHasOneLineForEachPathAndFailuresToo) {
  control.setPending("/a", {});
  std::istringstream lines(run(Op::pin, {at("/mount/a"), at("/mount/missing")}, true));
  std::vector<Json> read;
  for (std::string line; std::getline(lines, line);) read.push_back(platform::decodeJson(line));
  ASSERT_EQ(read.size(), 2U);
  EXPECT_EQ(read[0]["path"], at("/mount/a"));
  EXPECT_TRUE(read[0].contains("result"));
  EXPECT_THAT(read[1]["error"].get<std::string>(), HasSubstr("find"));
  EXPECT_NE(error, "");
}

TEST_F(ControlCommandsTest, ManyPathsGoInSeveralRequests) {
  std::vector<std::string> paths;
  for (int i = 0; i < 100; ++i) {
    std::string path;
    for (int part = 0; part < 15; ++part) path += "/" + std::string(250, '\x01');
    path += "/" + std::to_string(i);
    control.setPending(path, {});
    paths.push_back(at("/mount") + path);
  }
  run(Op::pin, paths);
  EXPECT_EQ(error, "");
  EXPECT_EQ(control.calls().size(), 3U);
}

TEST_F(ControlCommandsTest, HeldDeletionsAreDecided) {
  EXPECT_EQ(run(Op::allowDeletions), "7 deletions are carried out.\n");
  EXPECT_EQ(run(Op::keepDeleted), "8 items are kept and sent to the store again.\n");
}

TEST_F(ControlCommandsTest, AHostThatEndsMeanwhileIsToldApartFromARefusal) {
  control.hold();
  control.setPending("/a", {});
  std::thread ending([&] {
    while (control.heldCount() == 0) std::this_thread::yield();
    server.reset();
  });
  EXPECT_EQ(run(Op::download, {at("/mount/a")}), "");
  ending.join();
  EXPECT_THAT(error, HasSubstr("the host is ending"));
}

}  // namespace
}  // namespace kestrune
