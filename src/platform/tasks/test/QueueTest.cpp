#include "platform/tasks/Queue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "platform/tasks/test/Event.h"

namespace kestrune::platform {
namespace {

TEST(SerialQueueTest, WorkRunsInOrder) {
  std::vector<int> seen;
  SerialQueue queue("test");
  for (int i = 0; i < 1000; ++i) queue.async([&seen, i] { seen.push_back(i); });
  queue.sync([&seen] { seen.push_back(1000); });
  std::vector<int> expected(1001);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen, expected);
}

TEST(SerialQueueTest, RestsOnceAfterWorkAndNotBeforeIt) {
  std::atomic<int> rests = 0;
  Event rested;
  SerialQueue queue("test", {std::chrono::milliseconds(20), [&] {
                               ++rests;
                               rested.set();
                             }});
  EXPECT_FALSE(rested.wait(std::chrono::milliseconds(60))) << "there was no work yet";
  queue.sync([&] { EXPECT_EQ(rests, 0); });
  EXPECT_TRUE(rested.wait());
  Event again;
  EXPECT_FALSE(again.wait(std::chrono::milliseconds(60)));
  EXPECT_EQ(rests, 1);
}

TEST(SerialQueueTest, RestsAgainAfterMoreWork) {
  std::atomic<int> rests = 0;
  std::array<Event, 2> rested;
  SerialQueue queue("test", {std::chrono::milliseconds(1), [&] {
                               const int before = rests++;
                               if (before < 2) rested[static_cast<std::size_t>(before)].set();
                             }});
  queue.async([] {});
  EXPECT_TRUE(rested[0].wait());
  queue.async([] {});
  EXPECT_TRUE(rested[1].wait());
}

TEST(SerialQueueTest, EachThreadsWorkStaysInOrderAndNeverOverlaps) {
  constexpr std::size_t kThreads = 4;
  constexpr int kPieces = 500;
  std::array<int, kThreads> last{};  // touched by work on the queue alone
  std::atomic<int> inside = 0;
  SerialQueue queue("test");
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int piece = 1; piece <= kPieces; ++piece) {
        queue.async([&, thread, piece] {
          EXPECT_EQ(inside.fetch_add(1), 0);
          EXPECT_EQ(last[thread], piece - 1);
          last[thread] = piece;
          inside.fetch_sub(1);
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue.sync([&] {
    for (const int piece : last) EXPECT_EQ(piece, kPieces);
  });
}

TEST(SerialQueueTest, AsyncReturnsWhileEarlierWorkIsStillRunning) {
  Event mayEnd;
  std::atomic<bool> second = false;
  SerialQueue queue("test");
  queue.async([&] { EXPECT_TRUE(mayEnd.wait()); });
  queue.async([&] { second = true; });
  EXPECT_FALSE(second);
  mayEnd.set();
  queue.sync([] {});
  EXPECT_TRUE(second);
}

TEST(SerialQueueTest, SyncWaitsForWhatWasQueuedBefore) {
  Event mayEnd;
  Event synced;
  std::atomic<int> done = 0;
  SerialQueue queue("test");
  queue.async([&] { EXPECT_TRUE(mayEnd.wait()); });
  for (int i = 0; i < 10; ++i) queue.async([&] { ++done; });
  std::thread waiter([&] {
    queue.sync([&] { EXPECT_EQ(done, 10); });
    synced.set();
  });
  EXPECT_FALSE(synced.isSet());
  mayEnd.set();
  EXPECT_TRUE(synced.wait());
  waiter.join();
}

TEST(SerialQueueTest, WorkRunsOnTheQueuesOwnNamedThread) {
  SerialQueue queue("kestrune.some.long.label");
  std::thread::id first;
  std::thread::id second;
  std::array<char, 32> name{};
  queue.sync([&] {
    first = std::this_thread::get_id();
    pthread_getname_np(pthread_self(), name.data(), name.size());
  });
  queue.sync([&] { second = std::this_thread::get_id(); });
  EXPECT_NE(first, std::this_thread::get_id());
  EXPECT_EQ(first, second);
  EXPECT_EQ(std::string(name.data()), "kestrune.some.l");
}

TEST(SerialQueueTest, WorkMayAddWork) {
  std::vector<int> seen;
  Event done;
  SerialQueue queue("test");
  queue.async([&] {
    queue.async([&] {
      seen.push_back(2);
      done.set();
    });
    seen.push_back(1);
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(seen, (std::vector<int>{1, 2}));
}

TEST(SerialQueueTest, DestructionRunsWhatIsStillQueued) {
  std::vector<int> seen;
  Event mayEnd;
  {
    SerialQueue queue("test");
    queue.async([&] { EXPECT_TRUE(mayEnd.wait()); });
    for (int i = 0; i < 100; ++i) queue.async([&seen, i] { seen.push_back(i); });
    queue.async([&seen, &queue] { queue.async([&seen] { seen.push_back(100); }); });
    mayEnd.set();
  }
  ASSERT_EQ(seen.size(), 101U);
  EXPECT_EQ(seen.back(), 100);
}

TEST(SerialQueueTest, UnusedQueueEnds) {
  for (int i = 0; i < 100; ++i) SerialQueue queue("test");
}

TEST(SerialQueueTest, WhatWorkHoldsIsReleasedBeforeTheNextRuns) {
  auto held = std::make_shared<int>(1);
  const std::weak_ptr<int> watched = held;
  Event mayEnd;
  SerialQueue queue("test");
  queue.async([&] { EXPECT_TRUE(mayEnd.wait()); });
  // These two are taken from the queue together.
  queue.async([held = std::move(held)] { EXPECT_EQ(*held, 1); });
  queue.async([&] { EXPECT_TRUE(watched.expired()); });
  mayEnd.set();
  queue.sync([] {});
}

TEST(SerialQueueTest, QueueThatFallsAsleepWakesForLaterWork) {
  SerialQueue queue("test");
  for (int i = 0; i < 2000; ++i) {
    bool ran = false;
    queue.sync([&] { ran = true; });
    ASSERT_TRUE(ran);
  }
}

TEST(SerialQueueDeathTest, ThrowingWorkEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        SerialQueue queue("test");
        queue.async([] { throw std::runtime_error("left the work"); });
        queue.sync([] {});
      },
      "left the work");
}

TEST(ConcurrentQueueTest, BlocksRunOnTheCallersThreadAndReturnTheirValue) {
  ConcurrentQueue queue("kestrune.test");
  EXPECT_EQ(queue.label(), "kestrune.test");
  const auto caller = std::this_thread::get_id();
  EXPECT_EQ(queue.sync([] { return std::this_thread::get_id(); }), caller);
  EXPECT_EQ(queue.syncBarrier([] { return std::this_thread::get_id(); }), caller);
  EXPECT_EQ(*queue.sync([] { return std::make_unique<int>(5); }), 5);
  bool ran = false;
  queue.sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(ConcurrentQueueTest, PlainBlocksRunSideBySide) {
  ConcurrentQueue queue("test");
  Event here;
  Event there;
  std::thread other([&] {
    queue.sync([&] {
      there.set();
      EXPECT_TRUE(here.wait());
    });
  });
  queue.sync([&] {
    here.set();
    EXPECT_TRUE(there.wait());
  });
  other.join();
}

TEST(ConcurrentQueueTest, NothingRunsBesideABarrier) {
  ConcurrentQueue queue("test");
  std::atomic<int> plain = 0;
  std::atomic<int> barriers = 0;
  int unguarded = 0;  // only barriers write it
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 500; ++i) {
        if ((i + thread) % 4 == 0) {
          queue.syncBarrier([&] {
            EXPECT_EQ(barriers.fetch_add(1), 0);
            EXPECT_EQ(plain, 0);
            ++unguarded;
            barriers.fetch_sub(1);
          });
        } else {
          queue.sync([&] {
            plain.fetch_add(1);
            EXPECT_EQ(barriers, 0);
            EXPECT_GE(unguarded, 0);
            plain.fetch_sub(1);
          });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(unguarded, 4 * 500 / 4);
}

TEST(ConcurrentQueueTest, BarrierWaitsForTheBlocksBeforeIt) {
  ConcurrentQueue queue("test");
  Event inside;
  Event mayEnd;
  std::atomic<bool> plainEnded = false;
  std::thread plain([&] {
    queue.sync([&] {
      inside.set();
      EXPECT_TRUE(mayEnd.wait());
      plainEnded = true;
    });
  });
  ASSERT_TRUE(inside.wait());
  std::thread barrier([&] { queue.syncBarrier([&] { EXPECT_TRUE(plainEnded); }); });
  mayEnd.set();
  barrier.join();
  plain.join();
}

TEST(ConcurrentQueueTest, WaitingBarrierHoldsBackTheBlocksAfterIt) {
  ConcurrentQueue queue("test");
  Event inside;
  Event mayEnd;
  std::atomic<bool> barrierEnded = false;
  std::thread plain([&] {
    queue.sync([&] {
      inside.set();
      EXPECT_TRUE(mayEnd.wait());
    });
  });
  ASSERT_TRUE(inside.wait());
  std::thread barrier([&] { queue.syncBarrier([&] { barrierEnded = true; }); });

  // Blocks pass until the barrier has begun to wait; then one of them is held back.
  bool heldBack = false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!heldBack && std::chrono::steady_clock::now() < deadline) {
    Event passed;
    std::atomic<bool> passedBarrier = false;
    std::thread later([&] {
      queue.sync([&] { passedBarrier = barrierEnded.load(); });
      passed.set();
    });
    heldBack = !passed.wait(std::chrono::milliseconds(100));
    if (heldBack) mayEnd.set();
    later.join();
    EXPECT_EQ(passedBarrier, heldBack) << "a block that was held back runs after the barrier";
  }
  EXPECT_TRUE(heldBack);
  mayEnd.set();
  barrier.join();
  plain.join();
}

TEST(ConcurrentQueueDeathTest, ThrowingBlocksEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ConcurrentQueue queue("test");
  EXPECT_DEATH(queue.sync([] { throw std::runtime_error("left the block"); }), "left the block");
  EXPECT_DEATH(queue.syncBarrier([] { throw std::runtime_error("left the barrier"); }),
               "left the barrier");
}

}  // namespace
}  // namespace kestrune::platform
