#include "companion/watch/WatchText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "companion/terminal/TerminalText.h"
#include "host/control/ControlAnswer.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune {
namespace {

using platform::Json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t kMiB = 1U << 20U;

WatchFacts busy(int transfers = 1) {
  host::HostStatus status;
  status.knownItems = 20;
  status.itemsHere = 3;
  status.bytesHere = 25 * kMiB;
  status.cacheLimitBytes = 100 * kMiB;
  status.pendingChanges = 3;
  status.failingChanges = 1;
  status.heldDeletionCount = 2;
  status.isStoreReachable = true;
  WatchFacts facts;
  facts.status = host::toJson(status);
  facts.status["mountPoint"] = "/home/u/Kestrune";
  auto failing = host::pendingSend("/Docs/failing", "the server is full");
  failing.nextAttempt = std::chrono::seconds(12);
  facts.pending =
      host::toJson(host::PendingChanges{3, {failing, host::pendingSend("/資料/waiting")}});
  for (int i = 0; i < transfers; ++i) {
    facts.transfers.push_back(
        {"id" + std::to_string(i),
         "/a rather long folder's name/" + std::string(60, 'x') + "/large.bin",
         5 * static_cast<std::int64_t>(kMiB),
         10 * static_cast<std::int64_t>(kMiB),
         SyncTransfer::Direction::upload,
         {}});
  }
  return facts;
}

TransferRates moving() {
  TransferRates rates;
  auto facts = busy();
  const auto now = TransferRates::Clock::now();
  facts.transfers[0].bytesTransferred = 3 * kMiB;
  rates.saw(facts.transfers, now);
  rates.saw(busy().transfers, now + std::chrono::seconds(1));
  return rates;
}

TEST(WatchPage, ShowsWhatMovesAndWhatWaits) {
  EXPECT_THAT(
      watchPage(busy(), moving(), {80, 24}, false),
      ElementsAre("Kestrune  /home/u/Kestrune",
                  "Store reachable; 3 changes not at the store, 1 failing",
                  "2 deletions held back: kestrune allow-deletions or keep-deleted",
                  "Cache  [####..............] 25.0 MiB of 100.0 MiB, 3 of 20 items here", "",
                  "Transfers (1)",
                  "up   ~xxxxxxxxxxxxxxxxxxxxxxxx/large.bin [#####.....]  50% 2.0 MiB/s    0:03",
                  "", "Not at the store (3)",
                  "send   /Docs/failing              failed, again in 12 s: the server is full",
                  "send   /資料/waiting              waits"));
}

TEST(WatchPage, FitsEveryTerminal) {
  for (const ScreenSize size :
       {ScreenSize{80, 24}, {40, 10}, {20, 5}, {200, 60}, {10, 2}, {80, 1}}) {
    const auto page = watchPage(busy(50), moving(), size, false);
    EXPECT_LE(page.size(), size.lines);
    for (const auto& line : page) EXPECT_LE(cellsOf(line), size.columns) << line;
  }
  const auto page = watchPage(busy(50), moving(), {80, 24}, false);
  EXPECT_THAT(page, Contains(HasSubstr("and 41 more")));
  EXPECT_THAT(page, Contains(HasSubstr("Not at the store (3)")));
}

WatchFacts withConflicts(WatchFacts facts, int count) {
  facts.status["conflicts"] = {{"count", count}, {"paths", Json::array()}};
  for (int i = 0; i < count; ++i)
    facts.status["conflicts"]["paths"].push_back("/Docs/report " + std::to_string(i) +
                                                 " (conflict kestrel 2026-11-22 04.15).pdf");
  return facts;
}

TEST(WatchPage, ShowsConflictsBelowWhatWaits) {
  auto facts = busy(0);
  facts.pending["changes"].erase(1);
  const auto lastOf = [&](int count, ScreenSize size) {
    auto page = watchPage(withConflicts(facts, count), {}, size, false);
    for (const auto& line : page) EXPECT_LE(cellsOf(line), size.columns) << line;
    EXPECT_LE(page.size(), size.lines);
    while (!page.empty() && !page[0].starts_with("send ")) page.erase(page.begin());
    if (!page.empty()) page.erase(page.begin());
    return page;
  };
  EXPECT_THAT(lastOf(0, {80, 24}), testing::IsEmpty());
  EXPECT_THAT(lastOf(2, {80, 24}),
              ElementsAre("", "Changed here and elsewhere (2)",
                          "/Docs/report 0 (conflict kestrel 2026-11-22 04.15).pdf",
                          "/Docs/report 1 (conflict kestrel 2026-11-22 04.15).pdf"));
  const auto many = lastOf(50, {80, 24});
  ASSERT_EQ(many.size(), 15U);
  EXPECT_EQ(many[1], "Changed here and elsewhere (50)");
  EXPECT_EQ(many[14], "and 38 more");
  EXPECT_THAT(lastOf(50, {30, 24})[2], "~kestrel 2026-11-22 04.15).pdf");
}

TEST(WatchPage, KeepsRoomForConflictsWhereManyChangesWait) {
  auto facts = busy(0);
  for (int i = 0; i < 50; ++i) facts.pending["changes"].push_back(facts.pending["changes"][0]);
  const auto page = watchPage(withConflicts(facts, 50), {}, {80, 24}, false);
  ASSERT_EQ(page.size(), 24U);
  EXPECT_EQ(page[19], "");
  EXPECT_EQ(page[20], "Changed here and elsewhere (50)");
  EXPECT_EQ(page[23], "and 48 more");
  for (const ScreenSize size : {ScreenSize{80, 10}, {80, 8}, {80, 7}, {80, 6}, {10, 2}, {80, 1}}) {
    const auto small = watchPage(withConflicts(facts, 50), {}, size, false);
    EXPECT_LE(small.size(), size.lines);
    if (!small.empty()) EXPECT_THAT(small.back(), Not(testing::IsEmpty()));
  }
}

TEST(WatchPage, HasColorsOnlyWhereTheyAreWanted) {
  EXPECT_THAT(watchPage(busy(), moving(), {80, 24}, true), Contains("\033[1mTransfers (1)\033[0m"));
  for (const auto& line : watchPage(busy(), moving(), {80, 24}, false))
    EXPECT_THAT(line, Not(HasSubstr("\033")));
  auto facts = busy();
  facts.transfers[0].path = "/\033[2J";
  for (const auto& line : watchPage(facts, {}, {80, 24}, false))
    EXPECT_THAT(line, Not(HasSubstr("\033")));
}

TEST(WatchPage, SaysThatNoHostAnswers) {
  EXPECT_THAT(watchPage({}, {}, {80, 24}, false), ElementsAre(HasSubstr("No host answers")));
}

TEST(WatchLines, StayTheSameWhileOnlyCountsMove) {
  auto facts = busy();
  const auto before = watchLines(facts, Escaping::none);
  EXPECT_THAT(before, Contains("3 changes not at the store, 1 failing"));
  EXPECT_THAT(before, Contains("send of /Docs/failing failed: the server is full"));
  EXPECT_THAT(before, Contains(HasSubstr("upload of /a rather long")));
  facts.transfers[0].bytesTransferred += 5;
  facts.pending["changes"][0]["nextAttemptSeconds"] = 3;
  EXPECT_EQ(watchLines(facts, Escaping::none), before);
  facts.status["storeReachable"] = false;
  facts.status["storeError"] = "no\nroute";
  EXPECT_THAT(watchLines(facts, Escaping::forTerminal),
              Contains("store not reachable: no\\nroute"));
  EXPECT_THAT(watchLines({}, Escaping::none), ElementsAre("no host answers"));
}

TEST(WatchLines, HaveOneForEachConflict) {
  auto facts = withConflicts(busy(), 2);
  EXPECT_THAT(watchLines(facts, Escaping::none),
              Contains("conflict at /Docs/report 1 (conflict kestrel 2026-11-22 04.15).pdf"));
  facts.status["conflicts"]["count"] = 102;
  facts.status["conflicts"]["paths"][0] = "/\033[2J";
  const auto lines = watchLines(facts, Escaping::forTerminal);
  EXPECT_THAT(lines, Contains("and 100 more conflicts"));
  for (const auto& line : lines) EXPECT_THAT(line, Not(HasSubstr("\033")));
}

TEST(WatchJson, HasKeysThatStay) {
  const Json json = watchJson(busy());
  EXPECT_EQ(json["transfers"][0]["direction"], "upload");
  for (const char* key : {"path", "direction", "bytesTransferred", "totalBytes", "startedAt"})
    EXPECT_TRUE(json["transfers"][0].contains(key)) << key;
  EXPECT_EQ(json["status"]["knownItems"], 20);
  EXPECT_EQ(json["pending"]["count"], 3);
  EXPECT_TRUE(watchJson({})["status"].is_null());
}

}  // namespace
}  // namespace kestrune
