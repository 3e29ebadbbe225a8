#include "host/front/OpenCalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace kestrune::host {
namespace {

void armed(std::uint64_t) {}

class OpenCallsTest : public testing::Test {
 protected:
  OpenCalls::CallPtr begin() {
    return calls_.begin(&armed, [this](int error) { errors_.push_back(error); });
  }
  OpenCalls calls_;
  std::vector<int> errors_;
};

TEST_F(OpenCallsTest, AnInterruptAnswersAtOnceAndTheWorkNoMore) {
  const auto call = begin();
  calls_.interrupt(call->number());
  EXPECT_EQ(errors_, std::vector<int>{EINTR});
  EXPECT_FALSE(call->claim());
  calls_.interrupt(call->number());
  EXPECT_EQ(errors_.size(), 1U);
}

TEST_F(OpenCallsTest, ACallIsOpenUntilSomebodyAnswersIt) {
  const auto answered = begin();
  const auto interrupted = begin();
  EXPECT_TRUE(calls_.isOpen(answered->number()));
  EXPECT_TRUE(answered->claim());
  EXPECT_FALSE(calls_.isOpen(answered->number()));
  EXPECT_TRUE(calls_.isOpen(interrupted->number()));
  calls_.interrupt(interrupted->number());
  EXPECT_FALSE(calls_.isOpen(interrupted->number()));
}

TEST_F(OpenCallsTest, AnAnsweredCallCannotBeInterrupted) {
  const auto call = begin();
  EXPECT_TRUE(call->claim());
  calls_.interrupt(call->number());
  calls_.endAll(ENOTCONN);
  EXPECT_TRUE(errors_.empty());
}

TEST_F(OpenCallsTest, ACallIsClaimedOnce) {
  const auto call = begin();
  EXPECT_FALSE(call->isClaimed());
  EXPECT_TRUE(call->claim());
  EXPECT_TRUE(call->isClaimed());
  EXPECT_FALSE(call->claim());
}

TEST_F(OpenCallsTest, TheEndAnswersOpenCallsAndNoneBegins) {
  const auto one = begin();
  const auto other = begin();
  calls_.endAll(ENOTCONN);
  EXPECT_EQ(errors_, (std::vector<int>{ENOTCONN, ENOTCONN}));
  EXPECT_EQ(begin(), nullptr);
  EXPECT_EQ(errors_.size(), 2U);
}

TEST_F(OpenCallsTest, OfAllWhoRaceExactlyOneAnswers) {
  for (int round = 0; round < 500; ++round) {
    std::atomic<int> answers = 0;
    const auto call = calls_.begin(&armed, [&](int) { ++answers; });
    std::thread interrupting([&] { calls_.interrupt(call->number()); });
    std::thread answering([&] {
      if (call->claim()) ++answers;
    });
    interrupting.join();
    answering.join();
    ASSERT_EQ(answers, 1);
  }
}

}  // namespace
}  // namespace kestrune::host
