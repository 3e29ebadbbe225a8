// A connection that comes and goes, over a bus of the test's own.
#include "desktop/BusPresence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "desktop/test/PrivateBus.h"

namespace kestrune::desktop::test {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;

// Says something on the bus when it is told to.
class Speaker {
 public:
  explicit Speaker(sd_bus* bus) : bus_(bus) {}
  void speak() {
    check(sd_bus_emit_signal(bus_, kMountPath, kMountInterface, "Spoken", ""), "speak");
  }

 private:
  sd_bus* const bus_;
};

class BusPresenceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (PrivateBus::isMissing()) GTEST_SKIP() << "there is no dbus-daemon (package dbus)";
    bus_ = std::make_unique<PrivateBus>();
    bus_->start();
  }
  BusPresence<Speaker>::Setting setting() {
    return {&sd_bus_open_user,
            [this](sd_bus* bus) {
              ++made_;
              return std::make_unique<Speaker>(bus);
            },
            [this](const std::system_error&, bool wasThere) { lost_.push_back(wasThere); }};
  }
  // As its owner's loop does, for 5 s at most.
  static bool serveUntilThere(BusPresence<Speaker>& presence) {
    for (const auto end = Clock::now() + std::chrono::seconds(5);
         !presence.isThere() && Clock::now() < end;) {
      pollfd polled = presence.toPoll();
      ::poll(&polled, 1, 10);
      presence.serve(Clock::now());
    }
    return presence.isThere();
  }

  std::unique_ptr<PrivateBus> bus_;
  int made_ = 0;
  std::vector<bool> lost_;
};

TEST_F(BusPresenceTest, ABusThatIsFoundGoneByWhoSpeaksIsLookedForAgain) {
  BusPresence<Speaker> presence(setting());
  ASSERT_TRUE(serveUntilThere(presence));
  presence.use([](Speaker& speaker) { speaker.speak(); });
  EXPECT_TRUE(presence.isThere());
  bus_->stop();
  const auto before = Clock::now();
  presence.use([](Speaker& speaker) { speaker.speak(); });
  EXPECT_FALSE(presence.isThere());
  EXPECT_THAT(lost_, ElementsAre(true));
  EXPECT_EQ(presence.toPoll().fd, -1);
  ASSERT_TRUE(presence.due().has_value());
  EXPECT_GE(*presence.due(), before + BusPresence<Speaker>::kFirstPause);
  EXPECT_LE(*presence.due(), Clock::now() + BusPresence<Speaker>::kFirstPause);
  presence.use([](Speaker& speaker) { speaker.speak(); });  // nobody is there for it
  bus_->start();
  EXPECT_TRUE(serveUntilThere(presence));
  EXPECT_EQ(made_, 2);
  EXPECT_THAT(lost_, ElementsAre(true));
}

TEST_F(BusPresenceTest, ABusThatIsNotThereIsLookedForLessAndLessOften) {
  bus_->stop();
  BusPresence<Speaker> presence(setting());
  Clock::time_point due{};
  for (auto pause = BusPresence<Speaker>::kFirstPause; pause.count() < 1000; pause *= 2) {
    presence.serve(due);
    const auto expected = std::min(pause, BusPresence<Speaker>::kLongestPause);
    ASSERT_TRUE(presence.due().has_value());
    EXPECT_NEAR(std::chrono::duration<double>(*presence.due() - Clock::now()).count(),
                std::chrono::duration<double>(expected).count(), 0.5);
    due = *presence.due();
    presence.serve(due - std::chrono::milliseconds(1));  // too early: nothing is tried
    EXPECT_EQ(*presence.due(), due);
  }
  EXPECT_EQ(made_, 0);
  EXPECT_THAT(lost_, testing::Each(false));
}

}  // namespace
}  // namespace kestrune::desktop::test
