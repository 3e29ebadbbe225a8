// Each case serves on the test's own thread, which is the process's main thread.
#include "platform/tasks/MainQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/tasks/test/Event.h"
#include "platform/values/NSError.h"

namespace kestrune::platform {
namespace {

using testing::ElementsAre;

MainQueue& queue() { return MainQueue::shared(); }

/// One call of `run`, and how it ended.
struct Asked {
  Event ended;
  NSErrorPtr failure;
  bool endedOnMainThread = false;
};

Task<void> ask(std::shared_ptr<Asked> asked, std::function<void()> work) {
  try {
    co_await MainQueue::run(std::move(work));
  } catch (...) {
    asked->failure = currentError();
  }
  asked->endedOnMainThread = isMainThread();
  asked->ended.set();
}

/// Asks on the test's own thread: `ask` returns when the queue has taken or refused the work.
class Asker {
 public:
  std::shared_ptr<Asked> ask(std::function<void()> work) {
    auto asked = std::make_shared<Asked>();
    boost::asio::co_spawn(context_, platform::ask(asked, std::move(work)), boost::asio::detached);
    turn();
    return asked;
  }
  /// Lets those whose work has run, or was refused, go on.
  void turn() {
    context_.restart();
    context_.poll();
  }

 private:
  boost::asio::io_context context_;
};

/// Asks from a task on the shared executor.
std::shared_ptr<Asked> askFromTask(std::function<void()> work) {
  auto asked = std::make_shared<Asked>();
  spawnDetached("asks the main thread", ask(asked, std::move(work)));
  return asked;
}

void serveOnce() {
  queue().stop();
  queue().serve();
}

void expectRefused(const Asked& asked) {
  ASSERT_NE(asked.failure, nullptr);
  EXPECT_EQ(asked.failure->domain(), kNSCocoaErrorDomain);
  EXPECT_EQ(asked.failure->code(), NSCocoaError::featureUnsupported);
  EXPECT_EQ(asked.failure->localizedDescription(),
            "The main thread of this program takes no work.");
}

TEST(MainQueueTest, TheFirstThreadIsTheMainThread) {
  EXPECT_TRUE(isMainThread());
  bool other = true;
  std::thread([&other] { other = isMainThread(); }).join();
  EXPECT_FALSE(other);
}

TEST(MainQueueTest, AClosedQueueRefusesWorkAtOnce) {
  Asker asker;
  bool ran = false;
  const auto asked = asker.ask([&ran] { ran = true; });
  asker.turn();
  ASSERT_TRUE(asked->ended.isSet());
  expectRefused(*asked);
  queue().open();
  serveOnce();
  EXPECT_FALSE(ran);
}

TEST(MainQueueTest, WorkIsRefusedAgainAfterStop) {
  Asker asker;
  queue().open();
  serveOnce();
  const auto asked = asker.ask([] { ADD_FAILURE() << "it ran"; });
  asker.turn();
  ASSERT_TRUE(asked->ended.isSet());
  expectRefused(*asked);
}

TEST(MainQueueTest, WorkRunsOnTheMainThreadAndItsTaskGoesOnElsewhere) {
  bool onMain = false;
  queue().open();
  const auto asked = askFromTask([&onMain] {
    onMain = isMainThread();
    queue().stop();
  });
  queue().serve();
  ASSERT_TRUE(asked->ended.wait());
  EXPECT_EQ(asked->failure, nullptr);
  EXPECT_TRUE(onMain);
  EXPECT_FALSE(asked->endedOnMainThread);
}

TEST(MainQueueTest, WorkAcceptedBeforeServingRunsInItsOrder) {
  Asker asker;
  std::vector<int> seen;
  std::vector<std::shared_ptr<Asked>> asked;
  queue().open();
  for (int i = 0; i < 5; ++i) asked.push_back(asker.ask([&seen, i] { seen.push_back(i); }));
  asker.turn();
  EXPECT_TRUE(seen.empty());
  EXPECT_FALSE(asked.front()->ended.isSet()) << "nothing returns before its work has run";
  serveOnce();
  asker.turn();
  EXPECT_THAT(seen, ElementsAre(0, 1, 2, 3, 4));
  for (const auto& one : asked) {
    EXPECT_TRUE(one->ended.isSet());
    EXPECT_EQ(one->failure, nullptr);
  }
}

TEST(MainQueueTest, ServingEndsOnlyAfterStop) {
  Event served;
  queue().open();
  const auto first = askFromTask([] {});
  bool endedEarly = true;
  std::thread stopper([&] {
    EXPECT_TRUE(first->ended.wait());
    const auto second = askFromTask([] {});
    EXPECT_TRUE(second->ended.wait()) << "it still serves";
    EXPECT_EQ(second->failure, nullptr);
    endedEarly = served.isSet();
    queue().stop();
  });
  queue().serve();
  served.set();
  stopper.join();
  EXPECT_FALSE(endedEarly);
}

TEST(MainQueueTest, StopMayComeBeforeServe) {
  queue().open();
  queue().stop();
  queue().serve();
  queue().stop();
}

TEST(MainQueueTest, WorkMayStopTheQueueAndWhatWasAcceptedStillRuns) {
  Asker asker;
  std::vector<int> seen;
  queue().open();
  const auto first = asker.ask([&seen] {
    seen.push_back(1);
    queue().stop();
  });
  const auto second = asker.ask([&seen] { seen.push_back(2); });
  queue().serve();
  asker.turn();
  EXPECT_THAT(seen, ElementsAre(1, 2));
  EXPECT_EQ(second->failure, nullptr);
}

TEST(MainQueueTest, WorkMayAskForMoreWork) {
  Asker asker;
  std::vector<int> seen;
  std::shared_ptr<Asked> inner;
  queue().open();
  const auto outer = asker.ask([&] {
    inner = asker.ask([&seen] { seen.push_back(2); });
    seen.push_back(1);
    queue().stop();
  });
  queue().serve();
  asker.turn();
  EXPECT_THAT(seen, ElementsAre(1, 2));
}

TEST(MainQueueTest, AClosedQueueMayBeOpenedAgain) {
  Asker asker;
  for (int round = 0; round < 3; ++round) {
    int ran = 0;
    queue().open();
    const auto asked = asker.ask([&ran] { ++ran; });
    serveOnce();
    asker.turn();
    EXPECT_EQ(asked->failure, nullptr);
    EXPECT_EQ(ran, 1);
  }
}

TEST(MainQueueTest, ErrorsOfTheWorkComeBackWithTheirType) {
  Asker asker;
  queue().open();
  const auto typed = asker.ask([] { throw NSPOSIXError(2, "open '/x'"); });
  const auto other = asker.ask([] { throw std::runtime_error("it failed"); });
  bool ran = false;
  const auto after = asker.ask([&ran] { ran = true; });
  serveOnce();
  asker.turn();
  ASSERT_NE(typed->failure, nullptr);
  EXPECT_NE(dynamic_cast<const NSPOSIXError*>(typed->failure.get()), nullptr);
  EXPECT_EQ(typed->failure->code(), 2);
  ASSERT_NE(other->failure, nullptr);
  EXPECT_EQ(other->failure->localizedDescription(), "it failed");
  EXPECT_TRUE(ran) << "a failure is its own task's alone";
  EXPECT_EQ(after->failure, nullptr);
}

TEST(MainQueueTest, ManyTasksMayAskAtOnce) {
  constexpr std::size_t kTasks = 200;
  std::vector<std::shared_ptr<Asked>> asked;
  int ran = 0;  // the main thread's alone
  bool alwaysOnMain = true;
  queue().open();
  std::thread asking([&] {
    for (std::size_t i = 0; i < kTasks; ++i) {
      asked.push_back(askFromTask([&] {
        ++ran;
        alwaysOnMain = alwaysOnMain && isMainThread();
      }));
    }
    for (const auto& one : asked) EXPECT_TRUE(one->ended.wait());
    queue().stop();
  });
  queue().serve();
  asking.join();
  EXPECT_EQ(ran, static_cast<int>(kTasks));
  EXPECT_TRUE(alwaysOnMain);
}

/// A run loop of the system's, as far as a dispatcher is concerned.
struct RunLoop {
  std::vector<std::function<void()>> handed;

  MainQueue::Dispatcher dispatcher() {
    return [this](std::function<void()> work) { handed.push_back(std::move(work)); };
  }
};

TEST(MainQueueTest, ADispatcherGetsTheWorkInsteadOfTheQueue) {
  Asker asker;
  RunLoop loop;
  for (const bool isOpen : {false, true}) {
    if (isOpen) queue().open();
    loop.handed.clear();
    queue().setDispatcher(loop.dispatcher());
    int ran = 0;
    const auto asked = asker.ask([&ran] { ++ran; });
    asker.turn();
    ASSERT_EQ(loop.handed.size(), 1U);
    EXPECT_EQ(ran, 0);
    EXPECT_FALSE(asked->ended.isSet()) << "nothing returns before its work has run";
    loop.handed.front()();
    asker.turn();
    EXPECT_EQ(ran, 1);
    ASSERT_TRUE(asked->ended.isSet());
    EXPECT_EQ(asked->failure, nullptr);
  }
  serveOnce();
}

TEST(MainQueueTest, WithoutADispatcherAgainTheQueueCounts) {
  Asker asker;
  RunLoop loop;
  queue().setDispatcher(loop.dispatcher());
  queue().setDispatcher(nullptr);
  const auto refused = asker.ask([] { ADD_FAILURE() << "it ran"; });
  asker.turn();
  ASSERT_TRUE(refused->ended.isSet());
  expectRefused(*refused);
  queue().open();
  bool ran = false;
  const auto taken = asker.ask([&ran] { ran = true; });
  serveOnce();
  asker.turn();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(taken->ended.isSet());
  EXPECT_TRUE(loop.handed.empty());
}

TEST(MainQueueTest, ADispatcherLeavesTheQueueWhatItHasAccepted) {
  Asker asker;
  RunLoop loop;
  bool ran = false;
  queue().open();
  const auto asked = asker.ask([&ran] { ran = true; });
  queue().setDispatcher(loop.dispatcher());
  serveOnce();
  asker.turn();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(asked->ended.isSet());
  EXPECT_TRUE(loop.handed.empty());
}

TEST(MainQueueTest, ErrorsComeBackThroughADispatcher) {
  Asker asker;
  RunLoop loop;
  queue().setDispatcher(loop.dispatcher());
  const auto asked = asker.ask([] { throw NSPOSIXError(2, "open '/x'"); });
  ASSERT_EQ(loop.handed.size(), 1U);
  loop.handed.front()();
  asker.turn();
  ASSERT_NE(asked->failure, nullptr);
  EXPECT_NE(dynamic_cast<const NSPOSIXError*>(asked->failure.get()), nullptr);
}

TEST(MainQueueTest, WorkThatADispatcherDropsOrRefusesFails) {
  Asker asker;
  RunLoop loop;
  queue().setDispatcher(loop.dispatcher());
  const auto dropped = asker.ask([] { ADD_FAILURE() << "it ran"; });
  asker.turn();
  EXPECT_FALSE(dropped->ended.isSet());
  loop.handed.clear();
  asker.turn();
  ASSERT_TRUE(dropped->ended.isSet());
  EXPECT_NE(dropped->failure, nullptr);

  queue().setDispatcher([](const std::function<void()>&) {
    throw NSCocoaError(NSCocoaError::featureUnsupported, "The loop has ended.");
  });
  const auto refused = asker.ask([] { ADD_FAILURE() << "it ran"; });
  asker.turn();
  ASSERT_TRUE(refused->ended.isSet());
  ASSERT_NE(refused->failure, nullptr);
  EXPECT_EQ(refused->failure->localizedDescription(), "The loop has ended.");
}

TEST(MainQueueTest, ADispatcherMayCallTheWorkAtOnceAndAskForMore) {
  Asker asker;
  std::vector<int> seen;
  std::shared_ptr<Asked> inner;
  queue().setDispatcher([](const std::function<void()>& work) { work(); });
  const auto outer = asker.ask([&] {
    inner = asker.ask([&seen] { seen.push_back(1); });
    seen.push_back(2);
  });
  asker.turn();
  EXPECT_THAT(seen, ElementsAre(1, 2));
  EXPECT_TRUE(outer->ended.isSet());
  EXPECT_TRUE(inner->ended.isSet());
}

}  // namespace
}  // namespace kestrune::platform
