#include "companion/control/ControlText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "host/control/ControlAnswer.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune {
namespace {

using host::HostStatus;
using host::PendingChanges;
using platform::Json;
using testing::HasSubstr;
using testing::Not;

std::string statusOf(const HostStatus& status) {
  Json json = host::toJson(status);
  json.update({{"mountPoint", "/mnt/k"}, {"domain", "main"}, {"process", 5}});
  return statusText(json, Escaping::forTerminal);
}

TEST(ControlText, CountsBytes) {
  EXPECT_EQ(sizeText(0), "0 bytes");
  EXPECT_EQ(sizeText(1), "1 byte");
  EXPECT_EQ(sizeText(1023), "1023 bytes");
  EXPECT_EQ(sizeText(1536), "1.5 KiB");
  EXPECT_EQ(sizeText(10ULL << 30U), "10.0 GiB");
  EXPECT_EQ(sizeText(~0ULL), "16.0 EiB");
}

TEST(ControlText, AQuietHostSaysSo) {
  HostStatus status;
  status.isStoreReachable = true;
  const std::string text = statusOf(status);
  EXPECT_THAT(text, HasSubstr("Mounted at /mnt/k, domain main, process 5."));
  EXPECT_THAT(text, HasSubstr("The store answers."));
  EXPECT_THAT(text, HasSubstr("Everything that was changed here is at the store."));
  EXPECT_THAT(text, Not(HasSubstr("deletion")));
  EXPECT_THAT(text, Not(HasSubstr("audit")));
}

TEST(ControlText, AHostThatHasAskedNothingDoesNotClaimAnAnswer) {
  EXPECT_THAT(statusOf(HostStatus()), HasSubstr("The store was not asked for anything yet."));
}

TEST(ControlText, TroubleIsTold) {
  HostStatus status;
  status.isStoreReachable = false;
  status.storeError = "no route\x1b[31m";
  status.pendingChanges = 3;
  status.failingChanges = 1;
  status.heldDeletionCount = 3;
  status.heldDeletions = {"/a\x1b", "/b"};
  status.conflictCount = 4;
  status.conflicts = {"/c\x1b", "/d"};
  status.cacheLimitBytes = 2048;
  status.lastAudit = host::AuditReport{{}, "/Docs", 1, 3, 1};
  status.lastSignal = platform::Date();
  const std::string text = statusOf(status);
  EXPECT_THAT(text, HasSubstr("The last request to the store failed: no route"));
  EXPECT_THAT(text, HasSubstr("3 changes are not at the store yet, 1 failed so far"));
  EXPECT_THAT(text, HasSubstr("3 deletions at the store"));
  EXPECT_THAT(text, HasSubstr("and 1 more"));
  EXPECT_THAT(text, HasSubstr("4 versions lie beside the store's"));
  EXPECT_THAT(text, HasSubstr("  /d\n  and 2 more\n"));
  EXPECT_THAT(text, HasSubstr("of at most 2.0 KiB"));
  EXPECT_THAT(text, HasSubstr("/Docs, 1 difference repaired"));
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST(ControlText, AnExtensionThatIsWellTakesOneLine) {
  HostStatus status;
  EXPECT_THAT(statusOf(status), HasSubstr("\nThe extension runs within the host, without"));
  status.extension.emplace();
  EXPECT_THAT(statusOf(status), HasSubstr("\nThe extension does not run until it is needed.\n"));
  status.extension->pid = 9;
  status.extension->starts = 1;
  status.extension->confinement.emplace();
  const std::string text = statusOf(status);
  EXPECT_THAT(text,
              HasSubstr("\nThe extension runs as process 9 (started 1 time), confined by "
                        "bubblewrap, Landlock and a filter of system calls.\nEverything that"));
  EXPECT_THAT(text, Not(HasSubstr("died")));
}

TEST(ControlText, WhatTheExtensionLacksAndHowItDiedIsTold) {
  HostStatus status;
  status.extension.emplace();
  status.extension->starts = 4;
  status.extension->deaths = 2;
  status.extension->lastDeath = "signal 11\x1b";
  status.extension->refusal = "it ends too often\x1b";
  status.extension->confinement = {"bubblewrap is not installed\x1b", {"no Landlock\x1b"}};
  const std::string text = statusOf(status);
  EXPECT_THAT(text,
              HasSubstr("The extension does not run until it is needed (started 4 times).\n"));
  EXPECT_THAT(text, HasSubstr("It is not confined as it should be: bubblewrap is not installed"));
  EXPECT_THAT(text, HasSubstr("; no Landlock"));
  EXPECT_THAT(text, HasSubstr("It died 2 times, the last time by signal 11"));
  EXPECT_THAT(text, HasSubstr("It was not started when it was last needed: it ends too often"));
  EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

TEST(ControlText, AHostThatDoesNotTellOfTheExtensionIsUnderstood) {
  Json json = host::toJson(HostStatus());
  json.update({{"mountPoint", "/mnt/k"}, {"domain", "main"}, {"process", 5}});
  json.erase("extension");
  EXPECT_THAT(statusText(json, Escaping::none), Not(HasSubstr("extension")));
}

TEST(ControlText, PendingChangesHaveReasons) {
  PendingChanges changes{3, {host::pendingSend("/a\n", "no room"), host::pendingSend("/b")}};
  changes.changes[1].isUnderWay = true;
  const std::string text = pendingText(host::toJson(changes), Escaping::forTerminal);
  EXPECT_THAT(text, HasSubstr("send    1970-01-01T00:00:00Z  /a\\n  (5 bytes)\n"));
  EXPECT_THAT(text, HasSubstr("failed 3 times, again in 8 s: no room\n"));
  EXPECT_THAT(text, HasSubstr("/b  (5 bytes)  under way\n"));
  EXPECT_THAT(text, HasSubstr("and 1 more\n"));
  EXPECT_THAT(pendingText(host::toJson(changes), Escaping::none), HasSubstr("/a\n  ("));
  EXPECT_EQ(pendingText(host::toJson(PendingChanges()), Escaping::none),
            "Everything is at the store.\n");
}

TEST(ControlText, TheStateOfAnItem) {
  host::ItemState state;
  state.sizeBytes = 10;
  EXPECT_EQ(stateText(host::toJson(state), Escaping::none), "10 bytes, not here");
  state.bytesHere = 5;
  EXPECT_EQ(stateText(host::toJson(state), Escaping::none), "5 bytes of 10 bytes here");
  state.bytesHere = 10;
  state.isPinned = true;
  EXPECT_EQ(stateText(host::toJson(state), Escaping::none), "10 bytes, here, pinned");
  state.pending = host::pendingSend("/a", "no room");
  EXPECT_EQ(stateText(host::toJson(state), Escaping::none),
            "10 bytes, here, pinned, not at the store yet (send): no room");
  state = {};
  state.isFolder = true;
  EXPECT_EQ(stateText(host::toJson(state), Escaping::none), "a folder");
}

TEST(ReasonsText, SaysWhatIsHereAndWhy) {
  Json reasons{
      {"folder", false},
      {"sizeBytes", 10},
      {"bytesHere", 10},
      {"pinned", true},
      {"atStore", true},
      {"lastUsed", "2026-01-02T03:04:05Z"},
      {"cause", {{"kind", "program"}, {"program", "vi\x1bm"}, {"at", "2026-01-01T00:00:00Z"}}}};
  EXPECT_EQ(
      reasonsText(reasons, Escaping::forTerminal),
      "  10 bytes, here, pinned.\n"
      "  All of it is here.\n"
      "  vi\\x1bm read it when nothing of it was here, 2026-01-01T00:00:00Z.\n"
      "  Last used 2026-01-02T03:04:05Z (to a minute); what was not used for the longest time "
      "makes room first.\n"
      "  Pinned: it is fetched again when it changes and never makes room for others; kestrune "
      "unpin ends that.\n"
      "  Its contents may go: kestrune evict.\n");
  reasons["cause"].erase("program");
  EXPECT_THAT(reasonsText(reasons, Escaping::none), HasSubstr("which one could not be told"));
  reasons["cause"]["kind"] = "command";
  EXPECT_THAT(reasonsText(reasons, Escaping::none),
              HasSubstr("kestrune download fetched it, 2026"));
  reasons.erase("cause");
  EXPECT_THAT(reasonsText(reasons, Escaping::none), HasSubstr("Why it came is not known"));
  reasons["bytesHere"] = 0;
  const std::string absent = reasonsText(reasons, Escaping::none);
  EXPECT_THAT(absent, HasSubstr("  Nothing has read it since"));
  EXPECT_THAT(absent, testing::Not(HasSubstr("may go")));
  EXPECT_THAT(absent, testing::Not(HasSubstr("not known")));
}

TEST(ReasonsText, SaysWhatWaitsAndForWhat) {
  Json reasons{{"folder", false},
               {"sizeBytes", 10},
               {"bytesHere", 10},
               {"atStore", false},
               {"whyNotEvictable", "'/a' is not at the store yet."},
               {"pending",
                {{"change", "send"},
                 {"since", "2026-01-01T00:00:00Z"},
                 {"attempts", 3},
                 {"underWay", false},
                 {"reason", "HTTP 507"},
                 {"nextAttemptSeconds", 12}}}};
  const std::string text = reasonsText(reasons, Escaping::none);
  EXPECT_THAT(text, HasSubstr("cannot go now: '/a' is not at the store yet.\n"));
  EXPECT_THAT(text,
              HasSubstr("(send), since 2026-01-01T00:00:00Z: failed 3 times, the last time "
                        "with: HTTP 507. Tried again in 12 s, or at once with kestrune sync."));
  reasons["pending"]["underWay"] = true;
  EXPECT_THAT(reasonsText(reasons, Escaping::none), HasSubstr("it is being sent now"));
  reasons["pending"] = {{"change", "create"}, {"since", "x"}, {"attempts", 0}, {"underWay", false}};
  EXPECT_THAT(reasonsText(reasons, Escaping::none), HasSubstr("it waits for its turn"));
  reasons["storeError"] = "no route";
  EXPECT_THAT(reasonsText(reasons, Escaping::none),
              HasSubstr("it waits for the store, which did not answer: no route.\n"));
  EXPECT_THAT(reasonsText({{"folder", true}, {"atStore", true}}, Escaping::none),
              HasSubstr("A folder: it is at the store."));
}

}  // namespace
}  // namespace kestrune
