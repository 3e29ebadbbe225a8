// The commands of `kestrune` to a real folder: why something is here, and the end of the mount.

#include "tests/mount/LiveRestart.h"

namespace kestrune::mounttest {
namespace {

using support::contentsOf;
using support::waitUntil;
using testing::HasSubstr;

class LiveCommandsTest : public LiveRestartTest {
 protected:
  std::string tell(const std::string& command, int status = 0) {
    const auto result = mount().control(command);
    EXPECT_EQ(result.status, status) << command << "\n" << result.output;
    return result.output;
  }
};

TEST_F(LiveCommandsTest, WhyNamesTheProgramThatRead) {
  EXPECT_THAT(tell("why docs/a.txt"), HasSubstr("not here.\n  Nothing has read it"));
  EXPECT_EQ(runIn(mount().mountPoint(), "cat docs/a.txt").output, "hello");
  const std::string text = tell("why docs/a.txt");
  EXPECT_THAT(text, HasSubstr("5 bytes, here"));
  EXPECT_THAT(text, HasSubstr("  cat read it when nothing of it was here, 20"));
  EXPECT_THAT(text, HasSubstr("may go: kestrune evict"));
  tell("evict docs/a.txt");
  EXPECT_THAT(tell("why docs/a.txt"), HasSubstr("not here."));
  tell("download docs/b.txt");
  EXPECT_THAT(tell("why docs/b.txt"), HasSubstr("kestrune download fetched it"));
  EXPECT_THAT(tell("why docs"), HasSubstr("A folder: it is at the store"));
  EXPECT_THAT(tell("why docs/missing", 1), HasSubstr("Cannot explain 'docs/missing'"));
}

TEST_F(LiveCommandsTest, UnmountEndsTheHostAlsoFromWithin) {
  EXPECT_THAT(tell("unmount"), HasSubstr("Unmounted '" + mount().mountPoint().string() + "'."));
  EXPECT_EQ(mount().host().waitForEnd(), 0);
  EXPECT_FALSE(std::filesystem::exists(mount() / "docs"));
  mount().start();
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
}

TEST_F(LiveCommandsTest, UnmountLosesNothingThatIsNotSent) {
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  service().end(SIGTERM);
  std::ofstream(mount() / "docs/mine.txt") << "unsent";
  const std::string refused = tell("unmount", 1);
  EXPECT_THAT(refused, HasSubstr("stays mounted, because 1 change is not at the store"));
  EXPECT_THAT(refused, HasSubstr("/docs/mine.txt"));
  EXPECT_TRUE(mount().isServed());
  EXPECT_THAT(tell("unmount --force ."), HasSubstr("1 change is not at the store; kept in '"));
  EXPECT_EQ(mount().host().waitForEnd(), 0);
  service().start();
  mount().start();
  const auto sent = service().root() / "docs/mine.txt";
  EXPECT_TRUE(
      waitUntil([&] { return std::filesystem::exists(sent) && contentsOf(sent) == "unsent"; }));
}

}  // namespace
}  // namespace kestrune::mounttest
