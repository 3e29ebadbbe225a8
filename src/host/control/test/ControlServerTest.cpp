#include "host/control/ControlServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "host/control/ControlClient.h"
#include "host/control/test/FakeHostControl.h"
#include "platform/values/NSError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host {
namespace {

using namespace std::chrono_literals;
using platform::Json;
using support::waitUntil;
using testing::ElementsAre;
using testing::HasSubstr;

ControlRequest request(ControlRequest::Op op, std::vector<std::string> paths = {}) {
  ControlRequest made;
  made.op = op;
  made.paths = std::move(paths);
  return made;
}

using Op = ControlRequest::Op;

TEST(ControlServer, TellsWhoAnswers) {
  ControlledHost host;
  const Json about = ControlClient(host.file()).ask(request(Op::about));
  EXPECT_EQ(about["mountPoint"], "/mnt/k");
  EXPECT_EQ(about["domain"], "main");
  EXPECT_EQ(about["process"], ::getpid());
  EXPECT_EQ(about["version"], "");
  EXPECT_EQ(about["replica"], "/var/replica");
}

TEST(ControlServer, PassesEveryCommandOn) {
  ControlledHost host;
  host.control.setPending("/a", {1, {pendingSend("/a")}});
  HostStatus status;
  status.knownItems = 12;
  host.control.setStatus(status);
  ControlClient client(host.file());
  const Json told = client.ask(request(Op::status));
  EXPECT_EQ(told["knownItems"], 12);
  EXPECT_EQ(told["domain"], "main");
  ControlRequest pending = request(Op::pending);
  pending.path = "/a";
  pending.most = 3;
  EXPECT_EQ(client.ask(pending)["changes"][0]["path"], "/a");
  for (const Op op : {Op::pin, Op::unpin, Op::evict, Op::download}) {
    const Json results = client.ask(request(op, {"/a", "/b"}));
    EXPECT_TRUE(results[0].contains("result"));
    EXPECT_THAT(results[1]["error"], HasSubstr("find '/b'"));
  }
  EXPECT_EQ(client.ask(request(Op::link, {"/a"}))[0]["result"], "https://share.test/a");
  const Json state = client.ask(request(Op::state, {"/a"}))[0]["result"];
  EXPECT_EQ(state["bytesHere"], 5);
  EXPECT_EQ(state["pinned"], true);
  EXPECT_EQ(state["pending"]["change"], "send");
  EXPECT_EQ(client.ask(request(Op::allowDeletions))["count"], 7);
  EXPECT_EQ(client.ask(request(Op::keepDeleted))["count"], 8);
  EXPECT_THAT(
      host.control.calls(),
      ElementsAre("status", "pending /a 3", "pin /a /b", "unpin /a /b", "evict /a /b",
                  "download /a /b", "links /a", "states /a", "allowDeletions", "keepDeleted"));
}

TEST(ControlServer, ARestartThatFailsIsAnErrorWithAReason) {
  ControlledHost host;
  ControlClient client(host.file());
  try {
    client.ask(request(Op::restart));
    ADD_FAILURE() << "answered";
  } catch (const ControlRefusal& error) {
    EXPECT_THAT(error.what(), HasSubstr("Exec format error"));
  }
  EXPECT_EQ(client.ask(request(Op::about))["restarts"], 0);
  EXPECT_THAT(host.control.calls(), ElementsAre("restart"));
}

TEST(ControlServer, AnUnknownPathIsAnErrorWithAReason) {
  ControlledHost host;
  ControlRequest pending = request(Op::pending);
  pending.path = "/missing";
  ControlClient client(host.file());
  try {
    client.ask(pending);
    FAIL() << "no error";
  } catch (const ControlRefusal& error) {
    EXPECT_THAT(error.what(), HasSubstr("find '/missing'"));
  }
}

TEST(ControlServer, GarbageIsAnsweredAndTheNextLineIsRead) {
  ControlledHost host;
  RawClient client(host.file());
  for (const std::string& line :
       {std::string("nonsense"), std::string(), std::string("\0\0\0", 3), std::string("\xff\xfe"),
        std::string(100'000, '['), R"({"op":"status","x":)" + std::string(500, '[')}) {
    EXPECT_NE(client.ask(line).value("error", ""), "") << line.substr(0, 20);
  }
  EXPECT_EQ(client.ask(R"({"op":"about"})")["result"]["domain"], "main");
}

TEST(ControlServer, AnEndlessLineIsRefusedAndItsClientDropped) {
  ControlledHost host;
  RawClient client(host.file());
  client.send(std::string(2U << 20U, 'x'));
  EXPECT_THAT(client.readError(), HasSubstr("longer than 1 MiB"));
  EXPECT_FALSE(client.readLine());
  RawClient other(host.file());
  other.send(std::string(2U << 20U, 'x') + "\n");
  EXPECT_THAT(other.readError(), HasSubstr("longer than 1 MiB"));
}

TEST(ControlServer, ALineOfNearlyAMegabyteIsRead) {
  ControlledHost host;
  RawClient client(host.file());
  const std::string line = R"({"op":"about"})";
  EXPECT_TRUE(client.ask(line + std::string((1U << 20U) - line.size(), ' ')).contains("result"));
}

TEST(ControlServer, TenThousandTinyWritesAreOneLine) {
  ControlledHost host;
  host.control.setPending("/a", {});
  RawClient client(host.file());
  const std::string line = R"({"op":"pin","paths":["/a"]})" + std::string(10'000, ' ') + "\n";
  for (const char c : line) client.send(std::string_view(&c, 1));
  EXPECT_TRUE(client.readLine()->contains("result"));
  EXPECT_EQ(host.control.callCount("pin /a"), 1U);
}

TEST(ControlServer, LinesSentAtOnceAreAnsweredOneAfterTheOther) {
  ControlledHost host;
  RawClient client(host.file());
  std::string lines;
  for (int i = 0; i < 500; ++i) {
    lines += i % 2 == 0 ? "{\"op\":\"allow-deletions\"}\n" : "x\n";
  }
  std::thread sender([&] { client.send(lines); });
  for (int i = 0; i < 500; ++i) {
    EXPECT_TRUE(client.readLine()->contains(i % 2 == 0 ? "result" : "error")) << i;
  }
  sender.join();
}

TEST(ControlServer, WhoEndsItsSendingStillGetsTheAnswer) {
  ControlledHost host;
  host.control.hold();
  RawClient client(host.file());
  client.send(R"({"op":"status"})");  // and no line's end
  client.endSending();
  ASSERT_TRUE(waitUntil([&] { return host.control.heldCount() == 1; }));
  host.control.release();
  EXPECT_TRUE(client.readLine()->contains("result"));
  EXPECT_FALSE(client.readLine());
}

TEST(ControlServer, ASlowRequestHoldsUpNobodyElse) {
  ControlledHost host;
  host.control.hold();
  RawClient slow(host.file());
  slow.send("{\"op\":\"status\"}\n");
  ASSERT_TRUE(waitUntil([&] { return host.control.heldCount() == 1; }));
  const RawClient silent(host.file());
  const RawClient half(host.file());
  half.send("{\"op\":");
  RawClient client(host.file());
  EXPECT_TRUE(client.ask(R"({"op":"about"})").contains("result"));
  host.control.release();
  EXPECT_TRUE(slow.readLine()->contains("result"));
}

TEST(ControlServer, AClientThatGoesAwayIsForgotten) {
  ControlledHost host(30s, 1);
  host.control.hold();
  RawClient client(host.file());
  client.send("{\"op\":\"status\"}\n");
  ASSERT_TRUE(waitUntil([&] { return host.control.heldCount() == 1; }));
  client.close();
  // Its place is free again although its request was not answered.
  EXPECT_TRUE(waitUntil([&] {
    RawClient next(host.file());
    return next.ask(R"({"op":"about"})").contains("result");
  }));
  host.control.release();
}

TEST(ControlServer, NoMoreThanItsNumberOfClientsAreLetIn) {
  ControlledHost host(30s, 2);
  RawClient first(host.file());
  RawClient second(host.file());
  EXPECT_TRUE(first.ask(R"({"op":"about"})").contains("result"));
  EXPECT_TRUE(second.ask(R"({"op":"about"})").contains("result"));
  RawClient third(host.file());
  EXPECT_THAT(third.readError(), HasSubstr("too many"));
  EXPECT_FALSE(third.readLine());
  first.close();
  EXPECT_TRUE(waitUntil([&] {
    RawClient next(host.file());
    return next.ask(R"({"op":"about"})").contains("result");
  }));
}

TEST(ControlServer, ClientsThatAreSilentOrTakeNothingAreDroppedAndThoseThatWaitAreNot) {
  ControlledHost host(200ms);
  host.control.hold();
  RawClient waiting(host.file());
  waiting.send("{\"op\":\"allow-deletions\"}\n");
  RawClient silent(host.file());
  RawClient trickling(host.file());
  std::atomic<bool> ended = false;
  std::thread trickler([&] {
    while (!ended) {
      trickling.send(" ");
      std::this_thread::sleep_for(10ms);
    }
  });
  EXPECT_FALSE(silent.readLine());
  EXPECT_FALSE(trickling.readLine());
  ended = true;
  trickler.join();
  host.control.release();
  EXPECT_EQ(waiting.readLine()->at("result")["count"], 7);
}

TEST(ControlServer, WhoDoesNotTakeItsAnswerIsDropped) {
  ControlledHost host(200ms, 1);
  HostStatus status;
  for (std::size_t i = 0; i < HostStatus::kMostHeldPaths; ++i) {
    status.heldDeletions.push_back("/" + std::string(200, 'x'));
  }
  host.control.setStatus(status);
  const RawClient deaf(host.file());
  std::string lines;
  for (int i = 0; i < 1000; ++i) lines += "{\"op\":\"status\"}\n";
  deaf.send(lines);
  EXPECT_TRUE(waitUntil([&] {
    RawClient next(host.file());
    return next.ask(R"({"op":"about"})").contains("result");
  }));
  EXPECT_LT(host.control.callCount("status"), 1000U);
}

TEST(ControlServer, TheEndIsToldToThoseWhoWait) {
  ControlledHost host;
  host.control.hold();
  RawClient client(host.file());
  RawClient idle(host.file());
  client.send("{\"op\":\"status\"}\n");
  ASSERT_TRUE(waitUntil([&] { return host.control.heldCount() == 1; }));
  host.end();
  EXPECT_THAT(client.readError(), HasSubstr("host is ending"));
  EXPECT_FALSE(client.readLine());
  EXPECT_FALSE(idle.readLine());
  EXPECT_FALSE(std::filesystem::exists(host.file()));
  host.control.release();  // goes nowhere
}

TEST(ControlServer, RepliesMayComeFromManyThreadsWhileClientsComeAndGo) {
  ControlledHost host;
  host.control.setPending("/a", {1, {pendingSend("/a")}});
  std::atomic<bool> ended = false;
  host.control.hold();
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      while (!ended) {
        host.control.release();
        host.control.hold();
      }
    });
  }
  std::atomic<int> answered = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&, i] {
      for (int round = 0; round < 100; ++round) {
        RawClient client(host.file());
        client.send("{\"op\":\"pending\",\"path\":\"/a\"}\n");
        if ((round + i) % 3 == 0) continue;  // goes away
        if (client.readLine()->contains("result")) ++answered;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  ended = true;
  for (std::thread& thread : threads) thread.join();
  host.control.release();
  EXPECT_GT(answered, 200);
}

TEST(ControlClient, SaysWhyNobodyAnswers) {
  ControlledHost host;
  host.control.hold();
  ControlClient client(host.file());
  try {
    client.ask(request(Op::status), nullptr, 50ms);
    FAIL() << "no error";
  } catch (const platform::NSPOSIXError& error) {
    EXPECT_EQ(error.code(), ETIMEDOUT);
  }
  host.end();
  EXPECT_THROW(ControlClient(host.file()), platform::NSPOSIXError);
}

TEST(ControlServer, TellsReasonsAndItsLogAndEnds) {
  ControlledHost host;
  ItemReasons reasons;
  reasons.whyNotEvictable = "it is open";
  host.control.setReasons("/a", reasons);
  host.control.setLog({"one", "t\xffwo"});
  ControlClient client(host.file());
  const Json each = client.ask(request(Op::why, {"/a", "/missing"}));
  EXPECT_EQ(each[0]["result"]["whyNotEvictable"], "it is open");
  EXPECT_TRUE(each[1].contains("error"));
  EXPECT_EQ(client.ask(request(Op::log))["lines"], (Json{"one", "t\\xffwo"}));
  EXPECT_EQ(host.control.callCount("end"), 0U);
  client.ask(request(Op::end));
  EXPECT_EQ(host.control.callCount("end"), 1U);
}

}  // namespace
}  // namespace kestrune::host
