// When what was saved is sent: that no moment is missed, and that what failed earlier does not hold up what is new.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "host/volume/Sender.h"
#include "host/volume/test/HostHarness.h"
#include "platform/values/NSError.h"

namespace kestrune::host::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class SendingTimesTest : public testing::Test, public HostHarness {
 protected:
  void SetUp() override { names(); }
  // A file of the store that is here.
  void putHere(const std::string& path) {
    remote().putFile(path, "first");
    announce();
    ASSERT_TRUE(passUntil([&] { return lookup(kRootNode, path.substr(1)).value().node != 0; }));
    readPath(path);
    pass(seconds(5));
  }
  std::chrono::nanoseconds timeUntilThere(const std::string& path, const std::string& text) {
    const auto from = timers().now();
    EXPECT_TRUE(passUntil([&] { return remote().contents(path) == text; }, seconds(400)));
    return timers().now() - from;
  }
};

// A save becomes due while a look that came a moment too early for it is still under way.
TEST_F(SendingTimesTest, WhateverTimeALookTakesNothingIsForgotten) {
  for (int nth = 1; nth <= 8; ++nth) {
    const std::string path = "/" + std::to_string(nth);
    putHere(path);
    const OpenFilePtr file = openForWriting(path, true);
    ASSERT_TRUE(timers().waitForTimer(Sender::kQuiet));
    skip(milliseconds(10));
    write(file, "saved");
    close(file);  // due 10 ms later now, when the timer has gone off
    std::this_thread::sleep_for(milliseconds(100));
    skip(Sender::kQuiet - milliseconds(20));
    timers().advance(milliseconds(15), nth, milliseconds(10));
    EXPECT_TRUE(waitUntilSent()) << nth;
    EXPECT_EQ(remote().contents(path), "saved") << nth;
  }
}

// Of a refusal before anything was read, the next save is no other edit; it is tried all the same.
TEST_F(SendingTimesTest, ASaveAfterRefusalsDoesNotWaitForTheirPause) {
  for (const Ask refused : {Ask::item, Ask::modify}) {
    const std::string path = refused == Ask::item ? "/item" : "/modify";
    putHere(path);
    remote().failWith(refused, path, platform::NSPOSIXError(EIO, "refuse").share());
    save(path, "second");
    pass(seconds(35));
    remote().failWith(refused, path, nullptr);
    save(path, "third");
    EXPECT_LT(timeUntilThere(path, "third"), seconds(2)) << path;
  }
}

TEST_F(SendingTimesTest, WhatIsWrittenWhileItFailsIsTriedSoon) {
  putHere("/a");
  remote().failWith(Ask::modify, "/a", platform::NSPOSIXError(EIO, "refuse").share());
  save("/a", "second");
  pass(seconds(35));
  remote().failWith(Ask::modify, "/a", nullptr);
  remote().hold(Ask::modify, "/a");
  const int before = remote().asked(Ask::modify, "/a");
  ASSERT_TRUE(passUntil([&] { return remote().asked(Ask::modify, "/a") > before; }, seconds(400)));
  save("/a", "third");
  remote().release(Ask::modify, "/a", platform::NSPOSIXError(EIO, "refuse").share());
  remote().stopHolding(Ask::modify, "/a");
  EXPECT_LT(timeUntilThere("/a", "third"), seconds(3));
}

TEST_F(SendingTimesTest, WhatIsRefusedAndNotTouchedWaitsLongerAndLonger) {
  putHere("/a");
  remote().failWith(Ask::item, "/a", platform::NSPOSIXError(EIO, "refuse").share());
  save("/a", "second");
  pass(seconds(66));
  EXPECT_LE(remote().asked(Ask::item, "/a"), 8);
  EXPECT_GE(remote().asked(Ask::item, "/a"), 5);
}

}  // namespace
}  // namespace kestrune::host::test
