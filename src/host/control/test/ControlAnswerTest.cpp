#include "host/control/ControlAnswer.h"

#include <gtest/gtest.h>

#include <string>

#include "host/control/ControlRequest.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune::host {
namespace {

using platform::Json;

TEST(ControlAnswer, TellsTheStatus) {
  HostStatus status;
  status.usesPassthrough = true;
  status.knownItems = 10;
  status.itemsHere = 4;
  status.bytesHere = 4096;
  status.cacheLimitBytes = 1U << 20U;
  status.pendingChanges = 3;
  status.failingChanges = 1;
  status.uploads = 2;
  status.downloads = 5;
  status.heldDeletionCount = 250;
  for (int i = 0; i < 250; ++i) status.heldDeletions.push_back("/" + std::to_string(i));
  status.conflictCount = 101;
  for (int i = 0; i < 101; ++i) status.conflicts.push_back("/\xff" + std::to_string(i));
  status.isStoreReachable = false;
  status.storeError = "no answer from \xff";
  status.lastAudit = AuditReport{platform::Date(std::chrono::seconds(1)), "/Docs", 2, 7, 9};
  status.lastSignal = platform::Date(std::chrono::seconds(2));
  const Json json = toJson(status);
  EXPECT_EQ(json["passthrough"], true);
  EXPECT_EQ(json["knownItems"], 10);
  EXPECT_EQ(json["itemsHere"], 4);
  EXPECT_EQ(json["bytesHere"], 4096);
  EXPECT_EQ(json["cacheLimitBytes"], 1 << 20);
  EXPECT_EQ(json["pendingChanges"], 3);
  EXPECT_EQ(json["failingChanges"], 1);
  EXPECT_EQ(json["uploads"], 2);
  EXPECT_EQ(json["downloads"], 5);
  EXPECT_EQ(json["heldDeletions"]["count"], 250);
  EXPECT_EQ(json["heldDeletions"]["paths"].size(), HostStatus::kMostHeldPaths);
  EXPECT_EQ(json["conflicts"]["count"], 101);
  EXPECT_EQ(json["conflicts"]["paths"].size(), HostStatus::kMostConflictPaths);
  EXPECT_EQ(json["conflicts"]["paths"][0], pathToJson("/\xff"
                                                      "0"));
  EXPECT_EQ(json["storeReachable"], false);
  EXPECT_EQ(json["storeError"], "no answer from \\xff");
  EXPECT_EQ(json["lastAudit"]["at"], "1970-01-01T00:00:01Z");
  EXPECT_EQ(json["lastAudit"]["path"], "/Docs");
  EXPECT_EQ(json["lastAudit"]["differences"], 2);
  EXPECT_EQ(json["lastAudit"]["comparedInAll"], 7);
  EXPECT_EQ(json["lastAudit"]["differencesInAll"], 9);
  EXPECT_EQ(json["lastSignal"], "1970-01-01T00:00:02Z");
}

TEST(ControlAnswer, LeavesOutWhatIsNotKnown) {
  const Json json = toJson(HostStatus());
  EXPECT_EQ(json["conflicts"], (Json{{"count", 0}, {"paths", Json::array()}}));
  for (const char* name : {"cacheLimitBytes", "storeError", "lastAudit", "lastSignal"})
    EXPECT_FALSE(json.contains(name)) << name;
}

TEST(ControlAnswer, TellsOfTheExtension) {
  HostStatus status;
  EXPECT_TRUE(toJson(status)["extension"].is_null());
  status.extension = ExtensionStatus{
      5, 3, 2, "signal 11", ExtensionConfinement{"not installed", {"no Landlock"}}, "too often"};
  EXPECT_EQ(toJson(status)["extension"],
            (Json{{"process", 5},
                  {"starts", 3},
                  {"deaths", 2},
                  {"lastDeath", "signal 11"},
                  {"refusal", "too often"},
                  {"confinement",
                   {{"whyNoBubblewrap", "not installed"}, {"notEnforced", {"no Landlock"}}}}}));
  status.extension = ExtensionStatus();
  EXPECT_EQ(toJson(status)["extension"], (Json{{"starts", 0}, {"deaths", 0}}));
}

TEST(ControlAnswer, TellsEachPendingChange) {
  PendingChanges changes{2, {pendingSend("/a\xff", "no room there"), pendingSend("/b")}};
  changes.changes[1].kind = PendingChange::Kind::remove;
  changes.changes[1].isUnderWay = true;
  const Json json = toJson(changes);
  EXPECT_EQ(json["count"], 2);
  const Json& first = json["changes"][0];
  EXPECT_EQ(first["path"], (Json{{"hex", "2f61ff"}}));
  EXPECT_EQ(first["change"], "send");
  EXPECT_EQ(first["attempts"], 3);
  EXPECT_EQ(first["reason"], "no room there");
  EXPECT_EQ(first["nextAttemptSeconds"], 8);
  EXPECT_EQ(first["bytes"], 5);
  EXPECT_EQ(first["since"], "1970-01-01T00:00:00Z");
  const Json& second = json["changes"][1];
  EXPECT_EQ(second["change"], "remove");
  EXPECT_EQ(second["underWay"], true);
  EXPECT_FALSE(second.contains("reason"));
  EXPECT_FALSE(second.contains("nextAttemptSeconds"));
}

TEST(ControlAnswer, AMissingAnswerIsAnErrorOfItsPath) {
  const Json json = toJson({"/a", "/b"}, Each<Done>{Done()});
  ASSERT_EQ(json.size(), 2U);
  EXPECT_TRUE(json[0].contains("result"));
  EXPECT_TRUE(json[1].contains("error"));
}

TEST(ControlAnswer, TellsReasonsWithoutWhatIsNotKnown) {
  EXPECT_EQ(toJson(ItemReasons()), (platform::Json{{"folder", false},
                                                   {"sizeBytes", 0},
                                                   {"bytesHere", 0},
                                                   {"pinned", false},
                                                   {"atStore", false}}));
  ItemReasons reasons;
  reasons.isAtStore = true;
  reasons.cause = DownloadCause{DownloadCause::Kind::program, "vi\xff", {}};
  reasons.whyNotEvictable = "it is open";
  reasons.lastUsed = platform::Date{};
  reasons.storeError = "no route";
  const auto json = toJson(reasons);
  EXPECT_EQ(json["atStore"], true);
  EXPECT_EQ(json["cause"]["kind"], "program");
  EXPECT_EQ(json["cause"]["program"], "vi\\xff");
  EXPECT_EQ(json["cause"]["at"], "1970-01-01T00:00:00Z");
  EXPECT_EQ(json["whyNotEvictable"], "it is open");
  EXPECT_EQ(json["storeError"], "no route");
  EXPECT_EQ(json["lastUsed"], "1970-01-01T00:00:00Z");
  reasons.cause = DownloadCause{DownloadCause::Kind::command, {}, {}};
  EXPECT_EQ(toJson(reasons)["cause"]["kind"], "command");
  EXPECT_FALSE(toJson(reasons)["cause"].contains("program"));
}

}  // namespace
}  // namespace kestrune::host
