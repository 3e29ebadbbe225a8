// "sync": tried at once, and waited for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/control/ControlClient.h"
#include "host/control/ControlServer.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/support/Waiting.h"

namespace kestrune::host {
namespace {

using namespace std::chrono_literals;
using platform::Json;
using testing::ElementsAre;

class ControlSync : public testing::Test {
 protected:
  ControlSync() { setLeft({pendingSend("/Docs/a", "no room there")}); }
  void setLeft(std::vector<PendingChange> changes) {
    const std::uint64_t count = changes.size();
    host.control.setPending("/Docs", {count, std::move(changes)});
  }
  static ControlRequest sync(bool waits, std::chrono::seconds timeout = 20s) {
    ControlRequest request;
    request.op = ControlRequest::Op::sync;
    request.path = "/Docs";
    request.waits = waits;
    request.timeout = timeout;
    return request;
  }
  std::size_t looks() const { return host.control.callCount("pending /Docs 100"); }

  ControlledHost host;
};

TEST_F(ControlSync, TriesAtOnceAndSaysWhatIsLeft) {
  const Json result = ControlClient(host.file()).ask(sync(false));
  EXPECT_EQ(result["count"], 1);
  EXPECT_EQ(result["changes"][0]["reason"], "no room there");
  EXPECT_THAT(host.control.calls(), ElementsAre("tryNow /Docs", "pending /Docs 100"));
}

TEST_F(ControlSync, WaitsUntilNothingIsLeft) {
  RawClient client(host.file());
  client.send(sync(true).encode() + "\n");
  ASSERT_TRUE(support::waitUntil([&] { return looks() >= 3; }));
  setLeft({});
  const Json line = client.readLine().value();
  EXPECT_EQ(line["result"]["count"], 0);
  EXPECT_EQ(host.control.callCount("tryNow /Docs"), 1U);
}

TEST_F(ControlSync, WhatIsLeftAtTheTimeoutIsToldWithReasons) {
  std::vector<Json> progress;
  const Json result = ControlClient(host.file()).ask(sync(true, 3s), [&](const Json& line) {
    progress.push_back(line);
  });
  EXPECT_EQ(result["count"], 1);
  EXPECT_EQ(result["changes"][0]["reason"], "no room there");
  ASSERT_GE(progress.size(), 1U);  // one each second or so
  EXPECT_LE(progress.size(), 4U);
  EXPECT_EQ(progress[0], (Json{{"left", 1}}));
  EXPECT_LT(looks(), 20U);
}

TEST_F(ControlSync, WithoutTimeItLooksOnce) {
  const Json result = ControlClient(host.file()).ask(sync(true, 0s));
  EXPECT_EQ(result["count"], 1);
  EXPECT_EQ(looks(), 1U);
}

TEST_F(ControlSync, AnUnknownPathIsAnError) {
  ControlRequest request = sync(true);
  request.path = "/missing";
  EXPECT_THROW(ControlClient(host.file()).ask(request), ControlRefusal);
}

TEST_F(ControlSync, NobodyLooksForAClientThatHasGone) {
  RawClient client(host.file());
  client.send(sync(true).encode() + "\n");
  ASSERT_TRUE(support::waitUntil([&] { return looks() >= 2; }));
  client.close();
  RawClient other(host.file());
  EXPECT_TRUE(other.ask(R"({"op":"about"})").contains("result"));
  const std::size_t before = looks();
  EXPECT_TRUE(support::staysTrue([&] { return looks() <= before; }, 1500ms));
}

TEST_F(ControlSync, EndsWithTheHost) {
  RawClient client(host.file());
  client.send(sync(true).encode() + "\n");
  ASSERT_TRUE(support::waitUntil([&] { return looks() >= 1; }));
  host.end();
  EXPECT_NE(client.readError(), "");
  EXPECT_FALSE(client.readLine());
}

}  // namespace
}  // namespace kestrune::host
