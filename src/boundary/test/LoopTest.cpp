#include "boundary/Loop.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "boundary/test/ProtocolHarness.h"

namespace kestrune::boundary::test {
namespace {

TEST(Loop, WhatOneThreadPostsRunsInItsOrderAndNeverTwoAtATime) {
  const auto loop = Loop::make("test");
  constexpr std::size_t kThreads = 4;
  constexpr int kEach = 5000;
  std::atomic<int> inside = 0;
  std::vector<std::vector<int>> seen(kThreads);
  std::vector<std::thread> threads;
  for (auto& order : seen) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        loop->post([&, i] {
          EXPECT_EQ(++inside, 1);
          EXPECT_TRUE(Loop::isInside());
          order.push_back(i);
          --inside;
        });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  loop->run([] {});
  for (const auto& order : seen) {
    ASSERT_EQ(order.size(), std::size_t{kEach});
    EXPECT_TRUE(std::ranges::is_sorted(order));
  }
  EXPECT_FALSE(Loop::isInside());
}

TEST(Loop, WhoFindsItEmptyRunsTheWorkItself) {
  const auto loop = Loop::make("test");
  std::thread::id where;
  loop->post([&] { where = std::this_thread::get_id(); });
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST(Loop, NobodyIsKeptInItByWhatOthersPost) {
  const auto loop = Loop::make("test");
  std::atomic<bool> goesOn = true;
  std::promise<void> begun;
  // Posts itself again as long as it may: some thread is always in the loop.
  std::function<void()> again = [&] {
    if (goesOn) loop->post([&] { again(); });
  };
  loop->post([&] { again(); });
  loop->post([&] { begun.set_value(); });  // returns, although there is always more to do
  begun.get_future().wait();
  goesOn = false;
  loop->run([] {});
}

TEST(Loop, WorkForAnotherLoopDoesNotRunWithinThisOne) {
  const auto one = Loop::make("one");
  const auto other = Loop::make("other");
  std::promise<bool> ranElsewhere;
  one->run([&] {
    const auto here = std::this_thread::get_id();
    other->post([&, here] { ranElsewhere.set_value(std::this_thread::get_id() != here); });
  });
  auto future = ranElsewhere.get_future();
  ASSERT_EQ(future.wait_for(kSoon), std::future_status::ready);
  EXPECT_TRUE(future.get());
}

TEST(Loop, PromisesGoOnWhoeverIsInIt) {
  const auto loop = Loop::make("test");
  kj::Own<kj::PromiseFulfiller<int>> fulfiller;
  std::promise<int> got;
  loop->post([&] {
    auto coming = kj::newPromiseAndFulfiller<int>();
    fulfiller = kj::mv(coming.fulfiller);
    coming.promise.then([&](int value) { got.set_value(value); }).detach([](kj::Exception&&) {});
  });
  std::thread([&] { loop->post([&] { fulfiller->fulfill(7); }); }).join();
  EXPECT_EQ(got.get_future().get(), 7);
  loop->run([&] { fulfiller = nullptr; });
}

TEST(Loop, ADescriptorIsToldOfOncePerWish) {
  const auto loop = Loop::make("test");
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::atomic<int> told = 0;
  loop->run([&] {
    loop->watch(ends[0], [&] { ++told; });
    loop->want(POLLIN);
  });
  ASSERT_EQ(::write(ends[1], "ab", 2), 2);
  const auto wait = [&](int times) {
    const auto deadline = std::chrono::steady_clock::now() + kSoon;
    while (told < times && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(told, times);
  };
  wait(1);
  loop->run([&] { loop->want(POLLIN); });
  wait(2);
  loop->run([&] {
    loop->want(POLLIN);
    loop->unwatch();
  });
  wait(2);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST(Loop, ItMayEndWithinItself) {
  std::promise<void> ended;
  auto loop = Loop::make("test");
  const auto* const seen = loop.get();
  auto held = loop->held(std::shared_ptr<void>(nullptr, [&](void*) { ended.set_value(); }));
  seen->post([last = std::exchange(loop, nullptr), held = std::move(held)]() mutable {
    last.reset();
    held.reset();
  });
  EXPECT_EQ(ended.get_future().wait_for(kSoon), std::future_status::ready);
}

}  // namespace
}  // namespace kestrune::boundary::test
