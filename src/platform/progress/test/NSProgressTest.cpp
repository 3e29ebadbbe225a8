#include "platform/progress/NSProgress.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace kestrune::platform {
namespace {

using Snapshot = NSProgress::Snapshot;

constexpr std::chrono::seconds kPatience(30);

/// Keeps what it is told. Observers of one progress never run side by side, so it needs no lock of
/// its own.
struct Witness {
  std::vector<Snapshot> seen;
  NSProgress::Observer observer() {
    return [this](const Snapshot& snapshot) { seen.push_back(snapshot); };
  }
};

/// Runs `body` on several threads that begin together, and waits for them.
void onThreads(int count, const std::function<void(int)>& body) {
  std::promise<void> start;
  const std::shared_future<void> started = start.get_future().share();
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&body, started, i] {
      started.wait();
      body(i);
    });
  }
  start.set_value();
  for (auto& thread : threads) thread.join();
}

TEST(NSProgressTest, FractionIsCompletedOfTotal) {
  struct {
    std::int64_t total;
    std::int64_t completed;
    double expected;
  } const cases[] = {
      {4, 1, 0.25},
      {4, 0, 0},
      {4, 4, 1},
      {4, 8, 2},
      {4, -1, -0.25},
      {0, 0, 0},
      {0, 5, 0},
      {-1, 5, 0},
      {-5, -5, 0},
      {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::max(), 1},
  };
  for (const auto& [total, completed, expected] : cases) {
    NSProgress progress(total);
    EXPECT_EQ(progress.snapshot(), (Snapshot{total, 0}));
    progress.setCompletedUnitCount(completed);
    EXPECT_EQ(progress.fractionCompleted(), expected) << completed << " of " << total;
    EXPECT_EQ(progress.totalUnitCount(), total);
    EXPECT_EQ(progress.completedUnitCount(), completed);
    EXPECT_EQ(progress.snapshot(), (Snapshot{total, completed}));
    EXPECT_EQ(progress.snapshot().fractionCompleted(), expected);
  }
}

TEST(NSProgressTest, ObserverHearsOfEveryChangeAndOfNothingElse) {
  NSProgress progress(10);
  Witness witness;
  const auto observation = progress.observe(witness.observer());
  EXPECT_TRUE(witness.seen.empty()) << "the present value is no change";
  progress.setCompletedUnitCount(0);
  progress.setTotalUnitCount(10);
  progress.addCompletedUnits(0);
  progress.raiseCompletedUnitCount(0);
  progress.raiseCompletedUnitCount(-5);
  EXPECT_TRUE(witness.seen.empty()) << "nothing changed";
  progress.setCompletedUnitCount(3);
  progress.setCompletedUnitCount(3);
  progress.addCompletedUnits(2);
  progress.raiseCompletedUnitCount(4);
  progress.raiseCompletedUnitCount(7);
  progress.setTotalUnitCount(20);
  progress.setCompletedUnitCount(1);
  progress.addCompletedUnits(-1);
  progress.cancel();
  const std::vector<Snapshot> expected = {{10, 3}, {10, 5}, {10, 7}, {20, 7}, {20, 1}, {20, 0}};
  EXPECT_EQ(witness.seen, expected);
}

TEST(NSProgressTest, ConcurrentAdditionsAllCount) {
  constexpr int kThreads = 4;
  constexpr int kAdditions = 2000;
  NSProgress progress(kThreads * kAdditions);
  Witness witness;
  const auto observation = progress.observe(witness.observer());
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < kAdditions; ++i) progress.addCompletedUnits(1);
  });
  EXPECT_EQ(progress.completedUnitCount(), kThreads * kAdditions);
  ASSERT_EQ(witness.seen.size(), std::size_t{kThreads} * kAdditions);
  for (std::size_t i = 0; i < witness.seen.size(); ++i) {
    EXPECT_EQ(witness.seen[i].completedUnitCount, static_cast<std::int64_t>(i) + 1)
        << "in the order of the changes";
  }
}

TEST(NSProgressTest, ConcurrentRaisesNeverLower) {
  NSProgress progress(4000);
  Witness witness;
  const auto observation = progress.observe(witness.observer());
  onThreads(4, [&](int thread) {
    for (int i = 1; i <= 1000; ++i) progress.raiseCompletedUnitCount(i * 4 - thread);
  });
  EXPECT_EQ(progress.completedUnitCount(), 4000);
  std::int64_t before = 0;
  for (const Snapshot& snapshot : witness.seen) {
    EXPECT_GT(snapshot.completedUnitCount, before);
    before = snapshot.completedUnitCount;
  }
  EXPECT_EQ(before, 4000) << "the last call sees the last value";
}

TEST(NSProgressTest, ObserversRunOneAtATimeOnTheThreadOfTheChange) {
  NSProgress progress(100);
  std::atomic<int> inside = 0;
  thread_local bool changesNow = false;
  const auto observer = [&](const Snapshot&) {
    EXPECT_EQ(inside.fetch_add(1), 0);
    EXPECT_TRUE(changesNow);
    std::this_thread::yield();
    inside.fetch_sub(1);
  };
  const auto first = progress.observe(observer);
  const auto second = progress.observe(observer);
  onThreads(4, [&](int) {
    for (int i = 0; i < 200; ++i) {
      changesNow = true;
      progress.addCompletedUnits(1);
      changesNow = false;
    }
  });
}

TEST(NSProgressTest, ObserverMayChangeTheProgress) {
  NSProgress progress(10);
  Witness witness;
  const auto changing = progress.observe([&](const Snapshot& snapshot) {
    if (snapshot.completedUnitCount == 10) progress.setTotalUnitCount(20);
    EXPECT_FALSE(progress.isCancelled());
    EXPECT_GE(progress.fractionCompleted(), 0);
  });
  const auto watching = progress.observe(witness.observer());
  progress.setCompletedUnitCount(9);
  progress.setCompletedUnitCount(10);
  ASSERT_FALSE(witness.seen.empty());
  EXPECT_EQ(witness.seen.front(), (Snapshot{10, 9}));
  EXPECT_EQ(witness.seen.back(), (Snapshot{20, 10}));
}

TEST(NSProgressTest, ObserverMayEndItsOwnObservation) {
  NSProgress progress(10);
  int calls = 0;
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = held;
  NSProgress::Observation observation;
  observation = progress.observe([&calls, &observation, held = std::move(held)](const Snapshot&) {
    ++calls;
    observation.invalidate();
    ++*held;  // what the observer holds stays alive until it returns
  });
  progress.addCompletedUnits(1);
  progress.addCompletedUnits(1);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(watched.expired());
}

TEST(NSProgressTest, ObserverMayEndAnothersObservation) {
  NSProgress progress(10);
  Witness witness;
  NSProgress::Observation other;
  const auto ending = progress.observe([&](const Snapshot&) { other.invalidate(); });
  other = progress.observe(witness.observer());
  progress.addCompletedUnits(1);
  EXPECT_TRUE(witness.seen.empty());
}

TEST(NSProgressTest, ObserverThatIsAddedByAnObserverHearsOfLaterChanges) {
  NSProgress progress(10);
  Witness witness;
  NSProgress::Observation later;
  auto adding =
      progress.observe([&](const Snapshot&) { later = progress.observe(witness.observer()); });
  progress.setCompletedUnitCount(1);
  EXPECT_TRUE(witness.seen.empty());
  adding.invalidate();
  progress.setCompletedUnitCount(2);
  EXPECT_EQ(witness.seen, (std::vector<Snapshot>{{10, 2}}));
}

TEST(NSProgressTest, ObservationEndsWithItsObject) {
  NSProgress progress(10);
  Witness witness;
  {
    const auto observation = progress.observe(witness.observer());
    progress.addCompletedUnits(1);
  }
  progress.addCompletedUnits(1);
  EXPECT_EQ(witness.seen.size(), 1U);

  auto first = progress.observe(witness.observer());
  auto moved = std::move(first);
  progress.addCompletedUnits(1);
  EXPECT_EQ(witness.seen.size(), 2U) << "moving does not end it";
  Witness second;
  moved = progress.observe(second.observer());
  progress.addCompletedUnits(1);
  EXPECT_EQ(witness.seen.size(), 2U) << "assigning another ends it";
  EXPECT_EQ(second.seen.size(), 1U);
  moved.invalidate();
  moved.invalidate();
  progress.addCompletedUnits(1);
  EXPECT_EQ(second.seen.size(), 1U);
  NSProgress::Observation none;
  none.invalidate();
}

TEST(NSProgressTest, ObservationMayOutliveItsProgress) {
  Witness witness;
  NSProgress::Observation observation;
  {
    NSProgress progress(1);
    observation = progress.observe(witness.observer());
    progress.setCompletedUnitCount(1);
  }
  observation.invalidate();
  EXPECT_EQ(witness.seen.size(), 1U);
}

TEST(NSProgressTest, EndOfAnObservationWaitsForItsRunningObserver) {
  NSProgress progress(1);
  std::promise<void> inside;
  std::promise<void> mayEnd;
  std::atomic<bool> observerEnded = false;
  auto observation = progress.observe([&](const Snapshot&) {
    inside.set_value();
    EXPECT_EQ(mayEnd.get_future().wait_for(kPatience), std::future_status::ready);
    observerEnded = true;
  });
  std::thread changing([&] { progress.setCompletedUnitCount(1); });
  ASSERT_EQ(inside.get_future().wait_for(kPatience), std::future_status::ready);
  auto ended = std::async(std::launch::async, [&] {
    observation.invalidate();
    EXPECT_TRUE(observerEnded);
  });
  EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  mayEnd.set_value();
  EXPECT_EQ(ended.wait_for(kPatience), std::future_status::ready);
  changing.join();
}

TEST(NSProgressTest, NoObserverRunsAfterItsObservationHasEnded) {
  NSProgress progress(1);
  std::atomic<bool> done = false;
  std::thread changing([&] {
    while (!done) progress.addCompletedUnits(1);
  });
  for (int i = 0; i < 500; ++i) {
    // Destroyed right after the observation: a late call would write into freed memory.
    auto calls = std::make_unique<int>(0);
    auto observation = progress.observe([target = calls.get()](const Snapshot&) { ++*target; });
    std::this_thread::yield();
    observation.invalidate();
  }
  done = true;
  changing.join();
}

/// Asks the progress for something when it is destroyed.
class AskingGuest {
 public:
  explicit AskingGuest(NSProgress& progress) : progress_(progress) {}
  AskingGuest(const AskingGuest&) = delete;
  AskingGuest& operator=(const AskingGuest&) = delete;
  ~AskingGuest() { progress_.addCompletedUnits(1); }

 private:
  NSProgress& progress_;
};

TEST(NSProgressTest, WhatObserversAndHandlersHoldMayAskTheProgressAtItsEnd) {
  NSProgress progress(10);
  {
    const auto observation =
        progress.observe([guest = std::make_shared<AskingGuest>(progress)](const Snapshot&) {});
  }
  EXPECT_EQ(progress.completedUnitCount(), 1);
  progress.setCancellationHandler([guest = std::make_shared<AskingGuest>(progress)] {});
  progress.setCancellationHandler([guest = std::make_shared<AskingGuest>(progress)] {});
  EXPECT_EQ(progress.completedUnitCount(), 2);
  progress.cancel();
  EXPECT_EQ(progress.completedUnitCount(), 3);
}

TEST(NSProgressTest, CancellingRunsTheHandlerOnceOnThisThread) {
  NSProgress progress(1);
  int calls = 0;
  const auto caller = std::this_thread::get_id();
  progress.setCancellationHandler([&] {
    ++calls;
    EXPECT_EQ(std::this_thread::get_id(), caller);
    EXPECT_TRUE(progress.isCancelled());
    progress.cancel();
  });
  EXPECT_FALSE(progress.isCancelled());
  EXPECT_EQ(calls, 0);
  progress.cancel();
  progress.cancel();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(progress.isCancelled());
}

TEST(NSProgressTest, CancellingChangesNoCounts) {
  NSProgress progress(5);
  progress.setCompletedUnitCount(2);
  progress.cancel();
  EXPECT_TRUE(progress.isCancelled());
  EXPECT_EQ(progress.snapshot(), (Snapshot{5, 2}));
  progress.setCompletedUnitCount(3);
  EXPECT_EQ(progress.completedUnitCount(), 3);
}

TEST(NSProgressTest, HandlerSetAfterTheCancellationRunsAtOnce) {
  NSProgress progress(1);
  progress.cancel();
  int calls = 0;
  progress.setCancellationHandler([&] { ++calls; });
  EXPECT_EQ(calls, 1);
  progress.setCancellationHandler(nullptr);
  progress.cancel();
  EXPECT_EQ(calls, 1);
}

TEST(NSProgressTest, LastHandlerCounts) {
  NSProgress progress(1);
  int first = 0;
  int second = 0;
  progress.setCancellationHandler([&] { ++first; });
  progress.setCancellationHandler([&] { ++second; });
  progress.cancel();
  EXPECT_EQ(first, 0);
  EXPECT_EQ(second, 1);
  NSProgress withoutHandler(1);
  withoutHandler.setCancellationHandler([&] { ++first; });
  withoutHandler.setCancellationHandler(nullptr);
  withoutHandler.cancel();
  EXPECT_EQ(first, 0);
}

TEST(NSProgressTest, HandlerRunsOnceHoweverItsSettingAndTheCancellationsRace) {
  for (int round = 0; round < 200; ++round) {
    NSProgress progress(1);
    std::atomic<int> calls = 0;
    onThreads(3, [&](int thread) {
      if (thread == 0) {
        progress.setCancellationHandler([&] { ++calls; });
      } else {
        progress.cancel();
      }
    });
    EXPECT_EQ(calls, 1);
  }
}

TEST(NSProgressTest, AMirrorShowsThePresentValueAndEveryChange) {
  Witness witness;
  NSProgress progress(10);
  progress.setCompletedUnitCount(3);
  progress.mirror(witness.observer());
  EXPECT_EQ(witness.seen, (std::vector<Snapshot>{{10, 3}}));
  progress.setCompletedUnitCount(4);
  progress.setTotalUnitCount(20);
  EXPECT_EQ(witness.seen, (std::vector<Snapshot>{{10, 3}, {10, 4}, {20, 4}}));
}

TEST(NSProgressTest, AMirrorGoesWithItsProgress) {
  const auto kept = std::make_shared<int>(0);
  auto progress = std::make_unique<NSProgress>(10);
  progress->mirror([kept](const Snapshot&) {});
  EXPECT_GT(kept.use_count(), 1);
  progress.reset();
  EXPECT_EQ(kept.use_count(), 1);
}

TEST(NSProgressTest, AMirrorNeverGoesBackwards) {
  for (int round = 0; round < 50; ++round) {
    Witness witness;
    NSProgress progress(1000);
    onThreads(3, [&](int thread) {
      if (thread == 0) {
        progress.mirror(witness.observer());
      } else {
        for (int i = 0; i < 100; ++i) progress.addCompletedUnits(1);
      }
    });
    for (std::size_t i = 1; i < witness.seen.size(); ++i)
      EXPECT_LE(witness.seen[i - 1].completedUnitCount, witness.seen[i].completedUnitCount);
    EXPECT_EQ(witness.seen.back().completedUnitCount, 200);
  }
}

}  // namespace
}  // namespace kestrune::platform
