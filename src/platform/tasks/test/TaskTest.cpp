#include "platform/tasks/Task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/post.hpp>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/tasks/test/Event.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {
namespace {

using std::chrono::milliseconds;

Task<void> throwing() {
  throw std::runtime_error("it failed");
  co_return;
}

Task<void> setting(Event* event) {
  event->set();
  co_return;
}

/// Says that it runs, then blocks its thread until it may end.
Task<void> waiting(Event* runs, Event* mayEnd) {
  runs->set();
  EXPECT_TRUE(mayEnd->wait());
  co_return;
}

Task<void> counting(std::atomic<int>* count) {
  ++*count;
  co_return;
}

Task<void> notingThread(std::thread::id* thread) {
  *thread = std::this_thread::get_id();
  co_return;
}

/// Everything that the executor was given before this call has had its turn on one of its threads.
void letExecutorRun() {
  for (int i = 0; i < 64; ++i) {
    Event turn;
    boost::asio::post(sharedExecutor(), [&turn] { turn.set(); });
    ASSERT_TRUE(turn.wait());
  }
}

TEST(TaskTest, BlockingRunEndsWithTheTask) {
  std::thread::id thread;
  runBlocking(notingThread(&thread));
  EXPECT_NE(thread, std::thread::id());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(TaskTest, BlockingRunThrowsTheTasksException) {
  EXPECT_THROW(runBlocking(throwing()), std::runtime_error);
}

TEST(TaskTest, TaskDoesNotStartBeforeItIsAwaited) {
  Event ran;
  {
    Task<void> task = setting(&ran);
    EXPECT_FALSE(ran.isSet());
  }
  letExecutorRun();
  EXPECT_FALSE(ran.isSet());
}

TEST(TaskTest, DetachedTasksRunOnOneExecutorSideBySide) {
  constexpr std::size_t kTasks = 4;  // as many threads as the executor has at least
  std::vector<Event> runs(kTasks);
  Event mayEnd;
  const auto ledger = TaskLedger::make();
  Event idle;
  {
    const TaskLedger::Scope scope(ledger);
    for (auto& run : runs) spawnDetached("waits", waiting(&run, &mayEnd));
  }
  ledger->open();
  ledger->whenIdle([&] { idle.set(); });
  for (auto& run : runs) EXPECT_TRUE(run.wait()) << "each has a thread while the others block";
  EXPECT_FALSE(idle.isSet());
  mayEnd.set();
  EXPECT_TRUE(idle.wait());
}

TEST(TaskDeathTest, EscapedErrorEndsTheProcessAndNamesTheTask) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        spawnDetached("listing", throwing());
        Event never;
        EXPECT_FALSE(never.wait());
      },
      "task 'listing' ended with an error that nobody handles: it failed");
}

TEST(TaskDeathTest, BlockingRunOnTheExecutorIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        Event done;
        boost::asio::post(sharedExecutor(), [&done] {
          runBlocking(setting(&done));
          done.set();
        });
        EXPECT_TRUE(done.wait());
      },
      "isOnSharedExecutor");
}

Task<void> notingThreads(std::thread::id* first, std::thread::id* second, Event* ended) {
  *first = std::this_thread::get_id();
  co_await sleepFor(milliseconds(1));
  *second = std::this_thread::get_id();
  ended->set();
}

TEST(ExecutorScopeTest, TasksBeginOnItsThreadAndGoOnOnTheOthers) {
  std::thread::id first;
  std::thread::id second;
  Event ended;
  {
    const ExecutorScope scope;
    { const ExecutorScope inner; }
    spawnDetached("notes threads", notingThreads(&first, &second, &ended));
    EXPECT_EQ(first, std::this_thread::get_id());
    EXPECT_TRUE(isOnSharedExecutor());
  }
  ASSERT_TRUE(ended.wait());
  EXPECT_NE(second, std::thread::id());
  EXPECT_NE(second, std::this_thread::get_id());
}

TEST(ExecutorScopeTest, WhatIsPostedDoesNotRunWithinTheCall) {
  const ExecutorScope scope;
  Event ran;
  std::thread::id thread;
  boost::asio::post(sharedExecutor(), [&] {
    thread = std::this_thread::get_id();
    ran.set();
  });
  ASSERT_TRUE(ran.wait());
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(ExecutorScopeTest, ItEnds) {
  { const ExecutorScope scope; }
  EXPECT_FALSE(isOnSharedExecutor());
  std::thread::id first;
  std::thread::id second;
  Event ended;
  spawnDetached("notes threads", notingThreads(&first, &second, &ended));
  ASSERT_TRUE(ended.wait());
  EXPECT_NE(first, std::this_thread::get_id());
}

TEST(TaskTest, SleepLastsItsDuration) {
  for (const auto duration : {milliseconds(20), milliseconds(0), milliseconds(-1000)}) {
    const auto before = std::chrono::steady_clock::now();
    runBlocking(sleepFor(duration));
    EXPECT_GE(std::chrono::steady_clock::now() - before, duration);
  }
  TimerSleeper sleeper;
  const auto before = std::chrono::steady_clock::now();
  runBlocking(sleeper.sleep(milliseconds(20)));
  EXPECT_GE(std::chrono::steady_clock::now() - before, milliseconds(20));
}

TEST(TaskLedgerTest, TasksWaitAtTheGate) {
  Event ran;
  const auto ledger = TaskLedger::make();
  {
    const TaskLedger::Scope scope(ledger);
    spawnDetached("held", setting(&ran));
  }
  letExecutorRun();
  EXPECT_FALSE(ran.isSet());
  ledger->open();
  EXPECT_TRUE(ran.wait());
}

TEST(TaskLedgerTest, OpenGateLetsLaterTasksThrough) {
  Event ran;
  const auto ledger = TaskLedger::make();
  ledger->open();
  ledger->open();
  const TaskLedger::Scope scope(ledger);
  spawnDetached("passes", setting(&ran));
  EXPECT_TRUE(ran.wait());
}

TEST(TaskLedgerTest, IdleComesAfterTheLastTaskOnce) {
  Event runs[2];
  Event mayEnd[2];
  Event idle;
  std::atomic<int> calls = 0;
  const auto ledger = TaskLedger::make();
  {
    const TaskLedger::Scope scope(ledger);
    for (int i = 0; i < 2; ++i) spawnDetached("counted", waiting(&runs[i], &mayEnd[i]));
  }
  ledger->whenIdle([&] {
    ++calls;
    idle.set();
  });
  ledger->open();
  for (auto& run : runs) ASSERT_TRUE(run.wait());
  mayEnd[0].set();
  letExecutorRun();
  EXPECT_FALSE(idle.isSet());
  mayEnd[1].set();
  EXPECT_TRUE(idle.wait());
  letExecutorRun();
  EXPECT_EQ(calls, 1);
}

TEST(TaskLedgerTest, IdleIsCalledAtOnceOnTheCallersThreadIfNothingRuns) {
  const auto ledger = TaskLedger::make();
  ledger->open();
  std::thread::id thread;
  ledger->whenIdle([&] { thread = std::this_thread::get_id(); });
  EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(TaskLedgerTest, IdleWaitsForTheGateEvenWithoutTasks) {
  const auto ledger = TaskLedger::make();
  int calls = 0;
  ledger->whenIdle([&] { ++calls; });
  EXPECT_EQ(calls, 0);
  ledger->open();
  EXPECT_EQ(calls, 1);
  ledger->open();
  EXPECT_EQ(calls, 1);
}

TEST(TaskLedgerTest, IdleHandlerMaySpawnAndAskTheLedger) {
  Event ran;
  Event second;
  const auto ledger = TaskLedger::make();
  ledger->whenIdle([&] {
    const TaskLedger::Scope scope(ledger);
    spawnDetached("from the handler", setting(&ran));
    ledger->whenIdle([&] { second.set(); });
  });
  ledger->open();
  EXPECT_TRUE(ran.wait());
  EXPECT_TRUE(second.wait());
}

/// The same for a task that nobody waits for: it may outlive the test, so it owns its events.
Task<void> waitingAlone(std::shared_ptr<Event> runs, std::shared_ptr<Event> mayEnd) {
  runs->set();
  EXPECT_TRUE(mayEnd->wait());
  co_return;
}

TEST(TaskLedgerTest, OnlyTasksStartedInsideTheScopeOnItsThreadCount) {
  const auto runs = std::make_shared<Event>();
  const auto outsideRuns = std::make_shared<Event>();
  const auto mayEnd = std::make_shared<Event>();
  Event idle;
  const auto ledger = TaskLedger::make();
  spawnDetached("before the scope", waitingAlone(runs, mayEnd));
  {
    const TaskLedger::Scope scope(ledger);
    std::thread([&] {
      spawnDetached("another thread's", waitingAlone(outsideRuns, mayEnd));
    }).join();
  }
  EXPECT_TRUE(runs->wait()) << "the gate is not theirs";
  EXPECT_TRUE(outsideRuns->wait());
  ledger->open();
  ledger->whenIdle([&] { idle.set(); });
  EXPECT_TRUE(idle.isSet());
  mayEnd->set();
}

TEST(TaskLedgerTest, ScopesNest) {
  std::atomic<int> outerRan = 0;
  std::atomic<int> innerRan = 0;
  const auto outer = TaskLedger::make();
  const auto inner = TaskLedger::make();
  {
    const TaskLedger::Scope outerScope(outer);
    spawnDetached("outer", counting(&outerRan));
    {
      const TaskLedger::Scope innerScope(inner);
      spawnDetached("inner", counting(&innerRan));
    }
    spawnDetached("outer again", counting(&outerRan));
  }
  Event outerIdle;
  Event innerIdle;
  outer->whenIdle([&] { outerIdle.set(); });
  inner->whenIdle([&] { innerIdle.set(); });
  inner->open();
  EXPECT_TRUE(innerIdle.wait());
  EXPECT_EQ(innerRan, 1);
  EXPECT_EQ(outerRan, 0);
  outer->open();
  EXPECT_TRUE(outerIdle.wait());
  EXPECT_EQ(outerRan, 2);
}

TEST(TaskLedgerTest, LedgerThatIsDroppedUnopenedLetsItsTasksRun) {
  Event ran;
  Event idle;
  {
    const auto ledger = TaskLedger::make();
    const TaskLedger::Scope scope(ledger);
    spawnDetached("left over", setting(&ran));
    ledger->whenIdle([&] { idle.set(); });
  }
  EXPECT_TRUE(ran.wait());
  EXPECT_TRUE(idle.wait());
}

TEST(TaskLedgerTest, SpawningOpeningAndEndingMayRace) {
  for (int round = 0; round < 200; ++round) {
    constexpr int kTasks = 8;
    std::atomic<int> ran = 0;
    std::atomic<int> calls = 0;
    Event idle;
    const auto ledger = TaskLedger::make();
    std::thread opener([&] { ledger->open(); });
    {
      const TaskLedger::Scope scope(ledger);
      for (int i = 0; i < kTasks; ++i) spawnDetached("races", counting(&ran));
    }
    ledger->whenIdle([&] {
      ++calls;
      idle.set();
    });
    ASSERT_TRUE(idle.wait());
    EXPECT_EQ(ran, kTasks);
    EXPECT_EQ(calls, 1);
    opener.join();
  }
}

}  // namespace
}  // namespace kestrune::platform
