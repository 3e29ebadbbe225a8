#include "host/OpenCalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace kestrune::host {
namespace {

bool armed(std::uint64_t) { return true; }

class OpenCallsTest : public testing::Test {
 protected:
  OpenCalls::CallPtr begin() {
    return calls_.begin(&armed, [this](int error) { errors_.push_back(error); }).call;
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

TEST_F(OpenCallsTest, AnAnsweredCallCannotBeInterrupted) {
  const auto call = begin();
  EXPECT_TRUE(call->claim());
  calls_.interrupt(call->number());
  calls_.endAll(ENOTCONN);
  EXPECT_TRUE(errors_.empty());
}

TEST_F(OpenCallsTest, ACallInterruptedBeforeItBeganIsNotBegun) {
  const auto begun = calls_.begin([](std::uint64_t) { return false; }, [](int) { FAIL(); });
  EXPECT_EQ(begun.call, nullptr);
  EXPECT_EQ(begun.error, EINTR);
}

TEST_F(OpenCallsTest, TheEndAnswersOpenCallsAndThoseToCome) {
  const auto one = begin();
  const auto other = begin();
  calls_.endAll(ENOTCONN);
  EXPECT_EQ(errors_, (std::vector<int>{ENOTCONN, ENOTCONN}));
  const auto late = calls_.begin(&armed, [](int) { FAIL(); });
  EXPECT_EQ(late.call, nullptr);
  EXPECT_EQ(late.error, ENOTCONN);
}

TEST_F(OpenCallsTest, OfAllWhoRaceExactlyOneAnswers) {
  for (int round = 0; round < 500; ++round) {
    std::atomic<int> answers = 0;
    const auto call = calls_.begin(&armed, [&](int) { ++answers; }).call;
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
