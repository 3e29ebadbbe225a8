#include "companion/ReportCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "companion/configuration/CommandError.h"
#include "host/control/ControlAnswer.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/support/IsolatedStorage.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

class ReportCommandTest : public testing::Test {
 protected:
  ReportCommandTest() {
    storage.writeShared("config.json",
                        R"({"apiURL":"https://files.marker.example/api","token":"marker-token"})");
  }
  host::ControlOptions hostOptions() const {
    host::ControlOptions options;
    options.socketFile = directory.path() / "sockets" / "main.sock";
    options.domainIdentifier = "marker-domain";
    options.mountPoint = "/mnt/marker-place";
    options.version = "7.8";
    options.replica = directory.path() / "marker-replica";
    return options;
  }
  static void keepCrash(const fs::path& replica, const std::string& time, const std::string& text) {
    fs::create_directories(replica / "crashes");
    std::ofstream(replica / "crashes" / ("crash-" + time + ".txt")) << text;
  }
  std::string report(ReportOptions options = {}) const {
    options.version = "1.2.3";
    std::ostringstream output;
    printReport(HostFinder({directory.path() / "sockets"}, ""), options, output);
    return output.str();
  }

  support::IsolatedStorage storage;
  support::TemporaryDirectory directory;
  host::FakeHostControl control;
};

TEST_F(ReportCommandTest, WithoutAHostItTellsWhatThereIs) {
  keepCrash(storage.shared() / "replica/main", "2026-01-01T00:00:00.000Z",
            "ended by signal 11\nsignal: SEGV\n/home/marker-user/bin/program(+0x12)[0x34]\n");
  const std::string text = report();
  EXPECT_THAT(text, HasSubstr("kestrune 1.2.3\n"));
  EXPECT_THAT(text, HasSubstr("System: Linux "));
  EXPECT_THAT(text, HasSubstr("Service: https, token present\n"));
  EXPECT_THAT(text, HasSubstr("No host answers.\n"));
  EXPECT_THAT(text, HasSubstr("Replica in its default place: yes\n"));
  EXPECT_THAT(text, HasSubstr("Crashes of the extension: 1\n"));
  EXPECT_THAT(text, HasSubstr("  signal: SEGV\n  program(+0x12)[0x34]\n"));
  EXPECT_THAT(text, Not(HasSubstr("marker")));
}

TEST_F(ReportCommandTest, AReplicaThatWasChosenIsLookedInto) {
  const fs::path replica = directory.path() / "chosen";
  keepCrash(replica, "2026-01-01T00:00:00.000Z", "there");
  const std::string text = report({.replicaDirectory = replica});
  EXPECT_THAT(text, HasSubstr("Replica in its default place: no\n"));
  EXPECT_THAT(text, HasSubstr("Crashes of the extension: 1\n\n  there\n"));
  EXPECT_THAT(report(), HasSubstr("Crashes of the extension: 0\n"));
}

TEST_F(ReportCommandTest, TellsTheTenNewestCrashesTheNewestFirst) {
  for (int i = 10; i < 22; ++i)
    keepCrash(storage.shared() / "replica/main", "2026-01-01T00:00:" + std::to_string(i),
              "crash " + std::to_string(i));
  const std::string text = report();
  EXPECT_THAT(text, HasSubstr("Crashes of the extension: 10\n\n  crash 21\n\n  crash 20\n"));
  EXPECT_THAT(text, HasSubstr("crash 12\n"));
  EXPECT_THAT(text, Not(HasSubstr("crash 11\n")));
}

TEST_F(ReportCommandTest, TheHostsStatusIsToldWithoutNames) {
  host::HostStatus status;
  status.knownItems = 12;
  status.isStoreReachable = false;
  status.storeError = "no route to marker-host";
  status.heldDeletionCount = 2;
  status.heldDeletions = {"/marker-file"};
  status.conflictCount = 3;
  status.conflicts = {"/marker-conflict"};
  status.lastAudit = host::AuditReport{{}, "/marker-folder", 1, 3, 1};
  status.extension.emplace();
  status.extension->pid = 77;
  status.extension->starts = 3;
  status.extension->deaths = 2;
  status.extension->lastDeath = "signal 11 (Segmentation fault)";
  status.extension->refusal = "start '/home/marker': no such file";
  status.extension->confinement = {"bwrap: Can't find /home/marker", {"Landlock is missing"}};
  control.setStatus(status);
  const host::ControlServer server(hostOptions(), control);
  keepCrash(directory.path() / "marker-replica", "2026-01-01T00:00:00.000Z", "of the host");
  const std::string text = report();
  EXPECT_THAT(text, HasSubstr("Host: version 7.8, replaced 0 times\n"));
  EXPECT_THAT(text, HasSubstr("12 items known"));
  EXPECT_THAT(text, HasSubstr("2 deletions at the store"));
  EXPECT_THAT(text, HasSubstr("3 versions lie beside the store's"));
  EXPECT_THAT(text, HasSubstr("1 difference repaired"));
  EXPECT_THAT(text, HasSubstr("process 77 (started 3 times)"));
  EXPECT_THAT(text, HasSubstr("bwrap: Can't find (left out); Landlock is missing."));
  EXPECT_THAT(text, HasSubstr("the last time by signal 11 (Segmentation fault)"));
  EXPECT_THAT(text, HasSubstr("last needed: start (left out)"));
  EXPECT_THAT(text, HasSubstr("  of the host\n"));
  EXPECT_THAT(text, Not(HasSubstr("marker")));
}

TEST_F(ReportCommandTest, SettingsThatCannotBeUsedAreNotQuoted) {
  storage.writeShared("mount.json", R"({"marker":1})");
  const std::string text = report();
  EXPECT_THAT(text, HasSubstr("Settings of mounts: a file that cannot be used\n"));
  EXPECT_THAT(text, Not(HasSubstr("marker")));
}

TEST_F(ReportCommandTest, APathOutsideOfMountsIsToldAtOnce) {
  EXPECT_THROW(report({.path = "/usr"}), CommandError);
}

TEST_F(ReportCommandTest, TheFileHoldsHashesInThePlaceOfNames) {
  control.setPending("/",
                     {1, {host::pendingSend("/marker-folder/marker-file", "'/marker' is full")}});
  control.setLog({"fetch '/marker a': HTTP 500", "enumerateItems /marker b", "has marker-token"});
  host::HostStatus status;
  status.storeError = "no route to marker-host";
  control.setStatus(status);
  const host::ControlServer server(hostOptions(), control);
  const auto parts = [this](bool withNames) {
    ReportOptions options;
    options.withNames = withNames;
    std::map<std::string, std::string> texts;
    for (auto& file : gatherReport(HostFinder({directory.path() / "sockets"}, ""), options))
      texts[file.name] = file.contents;
    return texts;
  };
  auto told = parts(false);
  EXPECT_EQ(told.size(), 7U);
  for (const auto& [name, text] : told) EXPECT_THAT(text, Not(HasSubstr("marker"))) << name;
  EXPECT_THAT(told["log.txt"], HasSubstr("': HTTP 500\nenumerateItems (left out)\nhas (token)\n"));
  EXPECT_THAT(told["pending.json"], HasSubstr(R"("count":1)"));
  EXPECT_THAT(told["status.json"], HasSubstr("knownItems"));
  told = parts(true);
  EXPECT_THAT(told["pending.json"], HasSubstr("marker-file"));
  EXPECT_THAT(told["configuration.json"], HasSubstr("files.marker.example"));
  for (const auto& [name, text] : told) EXPECT_THAT(text, Not(HasSubstr("marker-token"))) << name;
}

TEST_F(ReportCommandTest, AFileThatIsThereIsNotReplaced) {
  ReportOptions options;
  options.output = directory.write("mine", "keep");
  std::ostringstream output;
  EXPECT_THROW(writeReport(HostFinder({}, ""), options, output), CommandError);
  EXPECT_EQ(support::contentsOf(options.output), "keep");
  options.output = directory.path() / "missing/it";
  EXPECT_THROW(writeReport(HostFinder({}, ""), options, output), CommandError);
}

TEST(WithoutNames, EndsWhereAQuotationOrAFileBegins) {
  EXPECT_EQ(withoutNames("bubblewrap is not installed (/usr/bin/bwrap)"),
            "bubblewrap is not installed (/usr/bin/bwrap)");
  EXPECT_EQ(withoutNames("it can't (/proc/sys/user/max_user_namespaces is 0)"),
            "it can't (/proc/sys/user/max_user_namespaces is 0)");
  EXPECT_EQ(withoutNames("fetch '/a b's' bytes"), "fetch (left out)");
  EXPECT_EQ(withoutNames("source path /home/a b: none"), "source path (left out)");
  EXPECT_EQ(withoutNames("\"x\""), "(left out)");
}

}  // namespace
}  // namespace kestrune
