// Who goes down waits for what is unsent: against a logind of the test's own on a private system's bus.
#include "desktop/ShutdownInhibitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "desktop/DesktopService.h"
#include "desktop/test/FakeLogind.h"
#include "desktop/test/PrivateBus.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/support/CapturingLogSink.h"

namespace kestrune::desktop::test {

namespace {

using host::FakeHostControl;
using testing::HasSubstr;

class SystemBusTest : public testing::Test {
 protected:
  void SetUp() override {
    if (PrivateBus::isMissing()) GTEST_SKIP() << "there is no dbus-daemon (package dbus)";
    bus_.emplace(WhichBus::system);
    bus_->start();
    connectLogind();
  }
  void connectLogind() {
    client_.emplace(WhichBus::system);
    logind_.emplace(client_->bus());
  }
  void disconnectLogind() {
    logind_.reset();
    client_.reset();
  }
  virtual void pass() { client_->takeSignalsFor(std::chrono::milliseconds(5)); }
  bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 4000 && !condition(); ++i) pass();
    return condition();
  }

  std::optional<PrivateBus> bus_;
  std::optional<BusClient> client_;
  std::optional<FakeLogind> logind_;
};

// ------------------------------------------------------------------------------------------- with the whole service

class ShutdownTest : public SystemBusTest {
 protected:
  void serve() {
    control_.setPending("/", {});
    service_.emplace(MountFacts{"/home/me/Kestrune", "main", "1"}, control_);
    if (client_) ASSERT_TRUE(waitUntil([this] { return control_.isWatched(); }));
  }
  void become(std::uint64_t pending) {
    control_.setPending("/", {pending, {}});
    control_.change({});
  }
  /// Waits until the host was asked how it is doing twice more, so that what was so before the call has been seen.
  bool waitUntilSeen() {
    const std::size_t looks = control_.callCount("pending / 100");
    return waitUntil([&] {
      control_.change({});
      return control_.callCount("pending / 100") >= looks + 2;
    });
  }
  bool waitUntilHeld(std::size_t count) {
    return waitUntil([&] { return logind_->held() == count; });
  }

  FakeHostControl control_;
  std::optional<DesktopService> service_;
};

TEST_F(ShutdownTest, WaitsWhileSomethingIsOnThisMachineAlone) {
  serve();
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_TRUE(logind_->requests.empty());

  become(2);
  ASSERT_TRUE(waitUntilHeld(1));
  const auto& request = logind_->requests.at(0);
  EXPECT_EQ(request.what, "shutdown");
  EXPECT_EQ(request.who, "Kestrune");
  EXPECT_EQ(request.why, "2 changes in /home/me/Kestrune are on this machine alone");
  EXPECT_EQ(request.mode, "delay");
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_EQ(logind_->requests.size(), 1U);
  EXPECT_EQ(logind_->held(), 1U);

  become(0);
  ASSERT_TRUE(waitUntilHeld(0));
  become(1);
  ASSERT_TRUE(waitUntilHeld(1));
  EXPECT_EQ(logind_->requests.size(), 2U);
  EXPECT_EQ(logind_->requests[1].why, "1 change in /home/me/Kestrune is on this machine alone");
}

TEST_F(ShutdownTest, EndsWithTheHost) {
  serve();
  become(1);
  ASSERT_TRUE(waitUntilHeld(1));
  service_.reset();
  EXPECT_EQ(logind_->held(), 0U);
}

TEST_F(ShutdownTest, SendsWhatItCanBeforeTheMachineGoesDown) {
  serve();
  become(3);
  ASSERT_TRUE(waitUntilHeld(1));
  EXPECT_EQ(control_.callCount("tryNow /"), 0U);
  logind_->prepareForShutdown(true);
  ASSERT_TRUE(waitUntil([this] { return control_.callCount("tryNow /") == 1; }));
  become(2);
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_EQ(logind_->held(), 1U);
  become(0);
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_TRUE(waitUntilHeld(0));
  // Each second counts: a machine waits for five in all.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
  become(1);
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_EQ(logind_->requests.size(), 1U);  // it would be refused

  logind_->prepareForShutdown(false);
  ASSERT_TRUE(waitUntilHeld(1));
  EXPECT_EQ(control_.callCount("tryNow /"), 1U);
}

TEST_F(ShutdownTest, SendsNothingWhereNothingWaits) {
  serve();
  ASSERT_TRUE(waitUntilSeen());
  logind_->prepareForShutdown(true);
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_EQ(control_.callCount("tryNow /"), 0U);
}

TEST_F(ShutdownTest, IsNotTroubledByARefusal) {
  const support::CapturingLogSink log;
  logind_->refuses = true;
  serve();
  become(1);
  ASSERT_TRUE(waitUntil([this] { return logind_->requests.size() == 1; }));
  ASSERT_TRUE(waitUntilSeen());
  EXPECT_EQ(logind_->requests.size(), 1U);
  EXPECT_THAT(log.messages(), testing::ElementsAre(HasSubstr("not for you")));
}

TEST_F(ShutdownTest, ComesBackWithTheBus) {
  serve();
  become(1);
  ASSERT_TRUE(waitUntilHeld(1));
  disconnectLogind();
  bus_->stop();
  bus_->start();
  connectLogind();
  ASSERT_TRUE(waitUntilHeld(1));
  become(0);
  ASSERT_TRUE(waitUntilHeld(0));
}

TEST_F(ShutdownTest, LetsGoWithoutTheBusToo) {
  serve();
  become(1);
  ASSERT_TRUE(waitUntilHeld(1));
  bus_->stop();
  become(0);
  for (int i = 0; i < 1000 && logind_->held() > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(logind_->held(), 0U);
}

TEST_F(ShutdownTest, DoesWithoutABus) {
  const support::CapturingLogSink log;
  disconnectLogind();
  bus_->stop();
  PrivateBus session;
  session.start();
  service_.emplace(MountFacts{"/home/me/Kestrune", "main", "1"}, control_);
  control_.setPending("/", {1, {}});
  BusClient client;
  client.waitForHosts(1);
  // It has looked for the bus more than once by then.
  client.takeSignalsFor(std::chrono::milliseconds(2500));
  EXPECT_THAT(log.messages(), testing::ElementsAre(HasSubstr("no system bus here")));
}

// ------------------------------------------------------------------------------------------- by itself

class ShutdownInhibitorTest : public SystemBusTest {
 protected:
  using Clock = ShutdownInhibitor::Clock;

  void SetUp() override {
    SystemBusTest::SetUp();
    if (IsSkipped()) return;
    connection_.reset(openBus(WhichBus::system));
    inhibitor_.emplace(connection_.get(),
                       ShutdownInhibitor::Setting{delay_, "/mnt/\xFF", [](bool) {}});
  }
  void pass() override {
    while (check(sd_bus_process(connection_.get(), nullptr), "process") > 0) {
    }
    SystemBusTest::pass();
  }
  bool waitForRequests(std::size_t count) {
    return waitUntil([&] { return logind_->requests.size() == count; });
  }
  void settle() {
    for (int i = 0; i < 20; ++i) pass();
  }

  ShutdownDelay delay_;
  BusPtr connection_;
  std::optional<ShutdownInhibitor> inhibitor_;
  const Clock::time_point begin_ = Clock::now();
};

TEST_F(ShutdownInhibitorTest, TellsAnotherCountNowAndThenWithoutAGap) {
  delay_.setWaiting(1);
  EXPECT_EQ(inhibitor_->tick(begin_), std::nullopt);
  ASSERT_TRUE(waitUntil([this] { return delay_.isHeld(); }));
  EXPECT_EQ(inhibitor_->tick(begin_ + std::chrono::hours(1)), std::nullopt);

  delay_.setWaiting(500);
  const auto renewal = begin_ + ShutdownInhibitor::kRenew;
  EXPECT_EQ(inhibitor_->tick(renewal - std::chrono::milliseconds(1)), renewal);
  settle();
  EXPECT_EQ(logind_->requests.size(), 1U);
  EXPECT_EQ(inhibitor_->tick(renewal), std::nullopt);
  ASSERT_TRUE(waitForRequests(2));
  EXPECT_EQ(logind_->requests[1].why, "500 changes in /mnt/\\xff are on this machine alone");
  settle();
  EXPECT_EQ(logind_->held(), 1U);
}

TEST_F(ShutdownInhibitorTest, AsksAgainALittleLaterWhereItWasRefused) {
  logind_->refuses = true;
  delay_.setWaiting(1);
  inhibitor_->tick(begin_);
  ASSERT_TRUE(waitForRequests(1));
  settle();
  const auto later = begin_ + ShutdownInhibitor::kRetry;
  EXPECT_EQ(inhibitor_->tick(begin_ + std::chrono::seconds(1)), later);
  logind_->refuses = false;
  inhibitor_->tick(later);
  ASSERT_TRUE(waitForRequests(2));
  ASSERT_TRUE(waitUntil([this] { return delay_.isHeld(); }));
}

TEST_F(ShutdownInhibitorTest, HoldsNothingThatComesTooLate) {
  delay_.setWaiting(1);
  inhibitor_->tick(begin_);
  delay_.setWaiting(0);
  ASSERT_TRUE(waitForRequests(1));
  settle();
  EXPECT_FALSE(delay_.isHeld());
  EXPECT_EQ(logind_->held(), 0U);
}

TEST_F(ShutdownInhibitorTest, AsksEachLogind) {
  delay_.setWaiting(1);
  inhibitor_->tick(begin_);
  ASSERT_TRUE(waitUntil([this] { return delay_.isHeld(); }));
  logind_.reset();
  settle();
  EXPECT_EQ(inhibitor_->tick(begin_), std::nullopt);
  logind_.emplace(client_->bus());
  settle();
  inhibitor_->tick(begin_);
  ASSERT_TRUE(waitForRequests(1));
  settle();
  EXPECT_EQ(logind_->held(), 1U);
}

}  // namespace

}  // namespace kestrune::desktop::test
