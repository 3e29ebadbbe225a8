#include "host/basics/Mailbox.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <string>
#include <thread>
#include <vector>

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

template <class Letter>
bool isReadable(const Mailbox<Letter>& mailbox) {
  pollfd polled = {mailbox.descriptor(), POLLIN, 0};
  return ::poll(&polled, 1, 0) == 1;
}

TEST(MailboxTest, WakesUntilAllIsTakenInItsOrder) {
  Mailbox<std::string> mailbox;
  EXPECT_FALSE(isReadable(mailbox));
  mailbox.put("a");
  mailbox.put("b");
  EXPECT_TRUE(isReadable(mailbox));
  const auto delivery = mailbox.take();
  EXPECT_THAT(delivery.letters, ElementsAre("a", "b"));
  EXPECT_FALSE(delivery.isStopped);
  EXPECT_FALSE(isReadable(mailbox));
  EXPECT_THAT(mailbox.take().letters, IsEmpty());
}

TEST(MailboxTest, GivesAtTheEndWhatWasPutBeforeAndKeepsNothingMore) {
  Mailbox<std::string> mailbox;
  mailbox.put("before");
  mailbox.stop();
  mailbox.put("after");
  EXPECT_TRUE(isReadable(mailbox));
  const auto delivery = mailbox.take();
  EXPECT_THAT(delivery.letters, ElementsAre("before"));
  EXPECT_TRUE(delivery.isStopped);
  EXPECT_TRUE(mailbox.take().isStopped);
}

TEST(MailboxTest, LosesNothingThatIsPutWhileItIsEmptied) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  Mailbox<int> mailbox;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&mailbox] {
      for (int letter = 0; letter < kEach; ++letter) mailbox.put(letter);
    });
  }
  std::size_t taken = 0;
  while (taken < std::size_t{kThreads} * kEach) {
    pollfd polled = {mailbox.descriptor(), POLLIN, 0};
    ASSERT_EQ(::poll(&polled, 1, 20'000), 1) << "nobody woke for what was put";
    taken += mailbox.take().letters.size();
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace kestrune::host
