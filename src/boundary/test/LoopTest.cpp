#include "boundary/Loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "boundary/test/ProtocolHarness.h"
#include "platform/tasks/Task.h"

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

// A loop that watches a pipe, and calls something out for each byte.
class CallingLoop {
 public:
  explicit CallingLoop(std::function<void()> call) : call_(std::move(call)) {
    if (::pipe2(ends_, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    loop->run([this] {
      loop->watch(ends_[0], [this] {
        char byte = 0;
        if (::read(ends_[0], &byte, 1) == 1) ++seen;
        readyThread = std::this_thread::get_id();
        Loop::callOut(call_);
        loop->want(POLLIN);
      });
      loop->want(POLLIN);
    });
  }
  ~CallingLoop() {
    loop->run([this] { loop->unwatch(); });
    for (const int end : ends_) ::close(end);
  }
  void sendByte() const { EXPECT_EQ(::write(ends_[1], "a", 1), 1); }

  const std::shared_ptr<Loop> loop = Loop::make("calling");
  std::atomic<int> seen = 0;
  std::thread::id readyThread;

 private:
  int ends_[2] = {-1, -1};
  const std::function<void()> call_;
};

template <class Condition>
bool comesSoon(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kSoon;
  while (!condition() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return condition();
}

Task<void> noting(std::thread::id* thread) {
  *thread = std::this_thread::get_id();
  co_return;
}

TEST(Loop, WhatIsCalledOutRunsOnTheThreadThatCameOut) {
  struct Seen {
    std::thread::id thread;
    std::thread::id threadOfTask;
    bool isInside = true;
  };
  std::promise<Seen> called;
  std::atomic<bool> isLast = false;
  std::atomic<int> calls = 0;
  const CallingLoop calling([&] {
    if (isLast) {
      Seen seen{std::this_thread::get_id(), {}, Loop::isInside()};
      spawnDetached("note", noting(&seen.threadOfTask));
      called.set_value(seen);
    }
    ++calls;
  });
  // Until the other attendant waits too.
  for (int i = 1; i <= 20; ++i) {
    calling.sendByte();
    ASSERT_TRUE(comesSoon([&] { return calls == i; }));
  }
  isLast = true;
  calling.sendByte();
  const Seen seen = called.get_future().get();
  ASSERT_TRUE(comesSoon([&] { return calls == 21; }));
  EXPECT_EQ(seen.thread, calling.readyThread);
  EXPECT_EQ(seen.threadOfTask, seen.thread) << "a task begins there";
  EXPECT_FALSE(seen.isInside);
}

TEST(Loop, WhoIsSlowOutsideHoldsUpNobody) {
  std::promise<void> freed;
  const std::shared_future<void> isFree = freed.get_future().share();
  std::atomic<int> called = 0;
  std::atomic<int> ended = 0;
  const CallingLoop calling([&, isFree] {
    ++called;
    isFree.wait();
    ++ended;
  });
  // One of them on an attendant, the others on the executor, which has four threads at least.
  for (int i = 1; i <= 4; ++i) {
    calling.sendByte();
    EXPECT_TRUE(comesSoon([&] { return called == i; })) << i;
  }
  // Nobody is left to call anything, and the loop goes on all the same.
  for (int i = 5; i <= 200; ++i) {
    calling.sendByte();
    EXPECT_TRUE(comesSoon([&] { return calling.seen == i; })) << i;
  }
  bool ran = false;
  calling.loop->run([&] { ran = true; });
  EXPECT_TRUE(ran);
  freed.set_value();
  EXPECT_TRUE(comesSoon([&] { return ended == 200; }));
}

TEST(Loop, WhatIsCalledOutMayAskForMore) {
  std::atomic<int> more = 0;
  std::shared_ptr<Loop> loop;
  const CallingLoop calling([&] { loop->post([&] { Loop::callOut([&] { ++more; }); }); });
  loop = calling.loop;
  for (int i = 1; i <= 20; ++i) {
    calling.sendByte();
    ASSERT_TRUE(comesSoon([&] { return more == i; })) << i;
  }
}

TEST(Loop, WithoutAnythingToWatchItNeedsNoThreads) {
  const auto threads = [] {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream name(task.path() / "comm");
      std::string word;
      count += name >> word && word == "leaving" ? 1 : 0;
    }
    return count;
  };
  const auto loop = Loop::make("leaving");
  EXPECT_TRUE(comesSoon([&] { return threads() == 2; }));
  loop->run([&] { loop->unwatch(); });
  EXPECT_TRUE(comesSoon([&] { return threads() == 0; }));
  bool ran = false;
  loop->run([&] { ran = true; });
  EXPECT_TRUE(ran);
  // Work that whoever posts it cannot do.
  std::promise<void> ranToo;
  const auto other = Loop::make("other");
  other->run([&] { loop->post([&] { ranToo.set_value(); }); });
  EXPECT_EQ(ranToo.get_future().wait_for(kSoon), std::future_status::ready);
}

TEST(Loop, SoonIsSoonAlthoughNothingHappens) {
  const auto loop = Loop::make("test");
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::atomic<int> told = 0;
  loop->run([&] { loop->watch(ends[0], [&] { ++told; }); });
  for (int i = 1; i <= 3; ++i) {
    loop->run([&] {
      loop->wantSoon();
      loop->wantSoon();
    });
    EXPECT_TRUE(comesSoon([&] { return told == i; })) << i;
  }
  loop->run([&] { loop->unwatch(); });
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

TEST(Loop, WhatThrowsInTheLoopThrowsToWhoeverHadItRunAndToNobodyElse) {
  const auto loop = Loop::make("test");
  EXPECT_THROW(loop->run([] { throw std::out_of_range("too far"); }), std::out_of_range);
  EXPECT_FALSE(Loop::isInside());
  bool hasRun = false;
  loop->run([&] { hasRun = Loop::isInside(); });
  EXPECT_TRUE(hasRun);
}

}  // namespace
}  // namespace kestrune::boundary::test
