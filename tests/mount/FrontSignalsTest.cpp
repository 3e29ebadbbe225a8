// Signals for programs that wait in the mount: which of them end the call, and that none of the others costs an answer.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/mount/FrontMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

using std::chrono::milliseconds;
using support::staysTrue;
using support::waitUntil;

// Longer than a signal is left alone before the call that it ends.
constexpr milliseconds kLongEnough{400};

// A program, and what it waits for.
struct Waiting {
  std::string operation;
  std::vector<std::string> program;
};

class FrontSignalsTest : public FrontTest {
 protected:
  void SetUp() override {
    FrontTest::SetUp();
    if (IsSkipped()) return;
    put(at("file"), "x");
    ASSERT_EQ(::mkdir(at("folder").c_str(), 0755), 0);
  }
  std::vector<Waiting> programs() const {
    return {{"lookup", {"stat", "-c", "%s", at("absent")}},
            {"openFolder", {"ls", at("folder")}},
            {"read", {"cat", at("file")}},
            {"makeFolder", {"mkdir", at("new")}}};
  }
  // Starts it, and returns when it waits.
  std::unique_ptr<Child> start(const Waiting& waiting) {
    say("sayWhole", false);
    say("hold", waiting.operation);
    const int before = asked(waiting.operation);
    auto child = std::make_unique<Child>(waiting.program);
    waitUntilAsked(waiting.operation, before);
    return child;
  }
};

TEST_F(FrontSignalsTest, WhoIsStoppedGoesOnWithoutAnError) {
  for (const Waiting& waiting : programs()) {
    const auto child = start(waiting);
    child->signal(SIGSTOP);
    std::this_thread::sleep_for(
        milliseconds(1300));  // also a change is left alone for a second only
    child->signal(SIGCONT);
    EXPECT_FALSE(child->waitForEnd(kLongEnough).has_value()) << waiting.operation;
    say("letGo", waiting.operation);
    const int expected = waiting.operation == "lookup" ? 1 << 8 : 0;  // it is not there
    EXPECT_EQ(child->waitForEnd(), expected) << waiting.operation;
  }
}

TEST_F(FrontSignalsTest, WhoIsStoppedCanBeEndedAllTheSame) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    const auto child = start(programs()[1]);
    child->signal(SIGSTOP);
    EXPECT_FALSE(child->waitForEnd(kLongEnough).has_value());
    child->signal(signal);
    child->signal(SIGCONT);
    EXPECT_TRUE(child->waitForEnd(std::chrono::seconds(3)).has_value()) << signal;
    say("letGo", programs()[1].operation);
  }
}

TEST_F(FrontSignalsTest, WhatRuntimesAndShellsLiveWithEndsNoCallAndHidesNoOther) {
  for (const int signal : {SIGCHLD, SIGURG, SIGWINCH, SIGPROF}) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    struct sigaction before = {};
    ::sigaction(signal, &action, &before);
    say("hold", "lookup");
    const int lookups = asked("lookup");
    {
      InterruptedCall call(
          [&] { return errnoOf([&] { return ::access(at("no").c_str(), F_OK); }); });
      waitUntilAsked("lookup", lookups);
      call.signal(signal);
      EXPECT_TRUE(staysTrue([&] { return !call.done(); }, kLongEnough)) << signal;
      call.interrupt();
      EXPECT_TRUE(waitUntil([&] { return call.done(); }, std::chrono::seconds(2))) << signal;
      say("letGo", "lookup");
      EXPECT_TRUE(waitUntil([&] { return call.done(); }));
      EXPECT_EQ(call.result(), EINTR) << signal;
    }
    ::sigaction(signal, &before, nullptr);
  }
}

}  // namespace
}  // namespace kestrune::mounttest
