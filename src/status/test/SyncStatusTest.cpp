#include "status/SyncStatus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

#include "platform/values/NSError.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

platform::Date date(const char* text) { return *platform::parseISO8601(text); }

SyncTransfer transfer() {
  return {"ID-1",
          "/Docs/a.pdf",
          5,
          10,
          SyncTransfer::Direction::upload,
          date("2025-03-04T10:15:30Z") + 999ms};
}

TEST(SyncStatus, IsOneCompactObjectWithItsKeysInOrder) {
  SyncStatus status;
  status.updatedAt = date("2025-03-04T10:15:31Z");
  EXPECT_EQ(status.encode(),
            R"({"transfers":[],"updatedAt":"2025-03-04T10:15:31Z","activeEnumerations":0})");
  status.activeEnumerations = 2;
  status.transfers = {transfer(), transfer()};
  status.transfers[1].direction = SyncTransfer::Direction::download;
  EXPECT_EQ(status.encode(),
            R"({"transfers":[)"
            R"({"id":"ID-1","path":"\/Docs\/a.pdf","bytesTransferred":5,"totalBytes":10,)"
            R"("direction":"upload","startedAt":"2025-03-04T10:15:30Z"},)"
            R"({"id":"ID-1","path":"\/Docs\/a.pdf","bytesTransferred":5,"totalBytes":10,)"
            R"("direction":"download","startedAt":"2025-03-04T10:15:30Z"}],)"
            R"("updatedAt":"2025-03-04T10:15:31Z","activeEnumerations":2})");
}

TEST(SyncStatus, ComesBackFromItsTextInWholeSeconds) {
  SyncStatus status;
  status.updatedAt = date("2025-03-04T10:15:31Z");
  status.activeEnumerations = std::numeric_limits<std::int64_t>::max();
  status.transfers = {transfer()};
  status.transfers[0].path =
      "/quote\" back\\ line\n null" + std::string(1, '\0') + " \xF0\x9F\x98\x80";
  status.transfers[0].bytesTransferred = std::numeric_limits<std::int64_t>::min();
  status.transfers[0].totalBytes = std::numeric_limits<std::int64_t>::max();

  const SyncStatus again = SyncStatus::decode(status.encode());
  status.transfers[0].startedAt = date("2025-03-04T10:15:30Z");
  EXPECT_EQ(again.transfers, status.transfers);
  EXPECT_EQ(again.updatedAt, status.updatedAt);
  EXPECT_EQ(again.activeEnumerations, status.activeEnumerations);
}

TEST(SyncStatus, TextsThatAreNoUTF8AreRefused) {
  for (const auto field : {&SyncTransfer::id, &SyncTransfer::path}) {
    SyncStatus status;
    status.transfers = {transfer()};
    status.transfers[0].*field = "\xFF";
    EXPECT_THROW(status.encode(), platform::NSCocoaError);
  }
}

TEST(SyncStatus, WhatIsNoRecordIsRefused) {
  const std::string good = R"({"id":"i","path":"p","bytesTransferred":1,"totalBytes":2,)"
                           R"("direction":"upload","startedAt":"2025-03-04T10:15:30Z"})";
  const auto record = [](const std::string& transfer) {
    return "{\"transfers\":[" + transfer +
           R"(],"updatedAt":"2025-03-04T10:15:31Z","activeEnumerations":0,"more":1})";
  };
  EXPECT_EQ(SyncStatus::decode(record(good)).transfers.size(), 1U);

  const auto without = [&good](const std::string& part, const std::string& instead) {
    std::string text = good;
    return text.replace(text.find(part), part.size(), instead);
  };
  const std::string cases[] = {
      "",
      "[]",
      "{}",
      record("1"),
      record(without(R"("id":"i",)", "")),
      record(without(R"("i")", "1")),
      record(without(R"("p")", "null")),
      record(without(":1", ":1.5")),
      record(without(":1", ":9223372036854775808")),
      record(without(":1", ":-9223372036854775809")),
      record(without(":2", R"(:"2")")),
      record(without("upload", "sideways")),
      record(without("2025-03-04T10:15:30Z", "yesterday")),
      R"({"transfers":{},"updatedAt":"2025-03-04T10:15:31Z","activeEnumerations":0})",
      R"({"transfers":[],"updatedAt":5,"activeEnumerations":0})",
      R"({"transfers":[],"updatedAt":"2025-03-04T10:15:31Z"})",
  };
  for (const auto& text : cases)
    EXPECT_THROW(SyncStatus::decode(text), platform::NSCocoaError) << text;
}

}  // namespace
}  // namespace kestrune
