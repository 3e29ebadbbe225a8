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

TEST_F(LiveCommandsTest, AReportHoldsNoNameAndNoTokenUnlessAskedFor) {
  const std::string name = "marker 'Akte' ü.txt";
  std::filesystem::create_directory(service().root() / "marker-folder");
  putAtStore("marker-folder/" + name, "contents");
  EXPECT_EQ(contentsOf(mount() / ("marker-folder/" + name)), "contents");
  service().end(SIGTERM);
  std::ofstream(mount() / "marker-folder/marker-new") << "unsent";
  std::filesystem::remove(mount() / ("marker-folder/" + name));
  std::ifstream(mount() / "docs/a.txt").get();
  ASSERT_TRUE(waitUntil([&] { return tell("pending").find("failed") != std::string::npos; }));
  const std::string place = (outside() / "it.tar.gz").string();
  const auto unpacked = [&](const std::string& options) {
    std::filesystem::remove(place);
    EXPECT_THAT(tell("report -o '" + place + "' " + options), HasSubstr("Wrote '" + place));
    EXPECT_EQ(std::filesystem::status(place).permissions(),
              static_cast<std::filesystem::perms>(0600));
    return runIn(outside(), "tar xzOf it.tar.gz").output + contentsOf(place);
  };
  const std::string told = unpacked("");
  for (const char* secret : {"marker", "Akte", "a.txt", "live-mount-token"})
    EXPECT_THAT(told, testing::Not(HasSubstr(secret)));
  EXPECT_THAT(told, testing::Not(HasSubstr(service().address().substr(7))));
  for (const char* part : {"kestrune 0", "\"problems\"", "\"pendingChanges\"", "\"count\":2",
                           "com.orvanta.kestrune.host:host", "\"token\":\"present\""})
    EXPECT_THAT(told, HasSubstr(part));
  const std::string named = unpacked("--with-names");
  EXPECT_THAT(named, HasSubstr("marker-folder\\/marker-new"));
  EXPECT_THAT(named, testing::Not(HasSubstr("live-mount-token")));
  EXPECT_THAT(tell("report -o '" + place + "'", 1), HasSubstr("already. Choose another name"));
}

}  // namespace
}  // namespace kestrune::mounttest
