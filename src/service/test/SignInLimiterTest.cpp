#include "service/SignInLimiter.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

namespace kestrune::service {
namespace {

using boost::asio::ip::make_address;

struct Limiter : ::testing::Test {
  int takeAll(const std::string& address) {
    int taken = 0;
    while (taken < 100 && limiter.take(make_address(address), now)) ++taken;
    return taken;
  }
  SignInLimiter limiter;
  SignInLimiter::Clock::time_point now = SignInLimiter::Clock::now();
};

TEST_F(Limiter, TenAtOnceThenOneForEachInterval) {
  EXPECT_EQ(takeAll("192.0.2.1"), SignInLimiter::kAtOnce);
  now += SignInLimiter::kInterval - std::chrono::milliseconds(1);
  EXPECT_EQ(takeAll("192.0.2.1"), 0);
  now += std::chrono::milliseconds(1);
  EXPECT_EQ(takeAll("192.0.2.1"), 1);
  now += std::chrono::hours(1);
  EXPECT_EQ(takeAll("192.0.2.1"), SignInLimiter::kAtOnce);
}

TEST_F(Limiter, OthersAreNotHeldUp) {
  takeAll("192.0.2.1");
  EXPECT_EQ(takeAll("192.0.2.2"), SignInLimiter::kAtOnce);
  EXPECT_EQ(takeAll("2001:db8::1"), SignInLimiter::kAtOnce);
}

TEST_F(Limiter, AHouseholdIsOne) {
  takeAll("2001:db8::1");
  EXPECT_EQ(takeAll("2001:db8::ffff:0:2"), 0);
  EXPECT_EQ(takeAll("2001:db8:0:1::1"), SignInLimiter::kAtOnce);
  takeAll("192.0.2.1");
  EXPECT_EQ(takeAll("::ffff:192.0.2.1"), 0);
}

TEST_F(Limiter, WhoKnowsTheTokenLosesNothing) {
  const auto address = make_address("192.0.2.1");
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(limiter.take(address, now));
    limiter.giveBack(address);
  }
  EXPECT_EQ(takeAll("192.0.2.1"), SignInLimiter::kAtOnce);
}

TEST_F(Limiter, ManyAddressesDoNotMakeItForgetWhoTriedMost) {
  takeAll("192.0.2.1");
  for (int i = 0; i < 20'000; ++i)
    limiter.take(make_address(fmt::format("10.0.{}.{}", i / 256, i % 256)), now);
  EXPECT_EQ(takeAll("192.0.2.1"), 0);
}

}  // namespace
}  // namespace kestrune::service
