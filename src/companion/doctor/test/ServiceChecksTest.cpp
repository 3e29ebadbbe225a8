#include "companion/doctor/ServiceChecks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/control/test/FakeHostControl.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {
namespace {

using testing::HasSubstr;
using testing::Not;
using Level = Finding::Level;

std::string textOf(const Findings& findings) { return findingsText(findings, Escaping::none); }

TEST(ServiceChecks, WithoutAConfigurationTheServiceIsNotAsked) {
  const support::IsolatedStorage storage;
  const Findings none = checkService();
  ASSERT_EQ(none.size(), 1U);
  EXPECT_EQ(none[0].level, Level::problem);
  EXPECT_EQ(none[0].about, "configuration");
  EXPECT_THAT(none[0].advice, HasSubstr("kestrune configure"));
  storage.writeShared("config.json", R"({"apiURL":"http://h"})");
  EXPECT_THAT(textOf(checkService()), HasSubstr("holds no address and token"));
}

TEST(ServiceChecks, AServiceThatListsItsRootIsWell) {
  support::ServiceFixture service;
  service.setListing("/", {});
  const auto file = service.storage().shared() / "config.json";
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  EXPECT_FALSE(hasProblem(checkService())) << textOf(checkService());
  EXPECT_THAT(textOf(checkService()), HasSubstr("ok       service       It accepts the token"));
  ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
  EXPECT_THAT(textOf(checkService()), HasSubstr("chmod 600"));
  service.http().on("GET", "/files", support::Answer(401));
  EXPECT_THAT(textOf(checkService()), HasSubstr("problem  service"));
  EXPECT_THAT(textOf(checkService()), Not(HasSubstr(support::ServiceFixture::kToken)));
}

TEST(ServiceChecks, ClocksMayDifferByAMinute) {
  const platform::Date now = platform::dateNow();
  const auto level = [now](std::chrono::seconds skew) {
    ServiceProbe probe;
    probe.serverTime = now - skew;
    return checkTimes(probe, now).at(0).level;
  };
  EXPECT_EQ(level(std::chrono::seconds(60)), Level::ok);
  EXPECT_EQ(level(std::chrono::seconds(-60)), Level::ok);
  EXPECT_EQ(level(std::chrono::seconds(61)), Level::warning);
  EXPECT_EQ(level(std::chrono::seconds(301)), Level::problem);
  EXPECT_EQ(level(std::chrono::seconds(-301)), Level::problem);
  ServiceProbe behind;
  behind.serverTime = now + std::chrono::seconds(400);
  EXPECT_EQ(checkTimes(behind, now)[0].text, "This machine's clock is 400 s behind the service's.");
  EXPECT_TRUE(checkTimes({}, now).empty());
}

TEST(ServiceChecks, ACertificateThatEndsSoonIsAWarning) {
  const platform::Date now = platform::dateNow();
  ServiceProbe probe;
  probe.certificateUntil = now + std::chrono::hours(24 * 30);
  EXPECT_EQ(checkTimes(probe, now).at(0).level, Level::ok);
  probe.certificateUntil = now + std::chrono::hours(24);
  EXPECT_EQ(checkTimes(probe, now).at(0).level, Level::warning);
}

class MountChecksTest : public testing::Test {
 protected:
  MountChecksTest() {
    host::ControlOptions options = served.options();
    options.mountPoint = "/mnt/k";
    options.version = "7.8";
    served.end();
    served.server = std::make_unique<host::ControlServer>(options, served.control);
  }
  Finding look(const std::string& table = "36 35 98:0 / /mnt/k rw - fuse.kestrune kestrune rw\n") {
    auto checked = checkMounts(HostFinder({served.file().parent_path()}, table), table);
    replicas = std::move(checked.replicas);
    EXPECT_EQ(checked.findings.size(), 1U);
    return checked.findings.at(0);
  }
  host::ControlledHost served;
  std::vector<std::filesystem::path> replicas;
};

TEST_F(MountChecksTest, TellHowEachHostIsDoing) {
  EXPECT_EQ(look().text, "'/mnt/k' is served by version 7.8.");
  EXPECT_THAT(replicas, testing::ElementsAre(std::filesystem::path("/var/replica")));
  host::HostStatus status;
  status.heldDeletionCount = 2;
  served.control.setStatus(status);
  EXPECT_THAT(look().text, HasSubstr("2 deletions at the store are held back"));
  status.failingChanges = 3;
  served.control.setStatus(status);
  EXPECT_THAT(look().text, HasSubstr("3 changes could not be sent"));
  status.isStoreReachable = false;
  status.storeError = "no route";
  served.control.setStatus(status);
  EXPECT_EQ(look().level, Level::warning);
  EXPECT_THAT(look().text, HasSubstr("cannot reach the store: no route"));
  status.extension.emplace();
  status.extension->refusal = "no such program";
  served.control.setStatus(status);
  EXPECT_EQ(look().level, Level::problem);
  EXPECT_THAT(look().text, HasSubstr("does not start: no such program"));
}

TEST_F(MountChecksTest, AHostThatDoesNotAnswerIsAProblem) {
  served.end();
  EXPECT_EQ(look().level, Level::problem);
  EXPECT_THAT(replicas, testing::IsEmpty());
  EXPECT_THAT(look().advice, HasSubstr("fusermount3 -u -z '/mnt/k'"));
  EXPECT_EQ(look("").text, "Nothing is mounted.");
}

}  // namespace
}  // namespace kestrune
