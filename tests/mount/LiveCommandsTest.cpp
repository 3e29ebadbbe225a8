// The commands of `kestrune` to a real folder: why something is here, and the end of the mount.

#include <chrono>

#include "platform/values/Json.h"
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
  /// Something could not be sent. A host that knows that the store does not answer waits unless it is told to try.
  bool waitUntilFailed() {
    return waitUntil([this] {
      tell("sync .");
      return tell("pending").find("failed") != std::string::npos;
    });
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

TEST_F(LiveCommandsTest, JsonHasTheKeysThatAreDocumented) {
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  service().end(SIGTERM);
  std::ofstream(mount() / "docs/new.txt") << "unsent";
  ASSERT_TRUE(waitUntilFailed());
  const std::string page =
      contentsOf(std::string(KESTRUNE_SOURCE_DIR) + "/docs/formats/json-output.md");
  const auto keysOf = [&](const platform::Json& object) {
    std::string keys;
    for (const auto& [key, value] : object.items()) {
      keys += (keys.empty() ? "" : " ") + key;
      EXPECT_THAT(page, HasSubstr("`" + key + "`"));
    }
    return keys;
  };
  const auto ask = [&](const std::string& command, int status = 0) {
    return platform::decodeJson(tell(command + " --json 2>/dev/null", status));
  };
  constexpr const char* kChange =
      "attempts bytes change nextAttemptSeconds path reason since underWay";
  EXPECT_EQ(keysOf(ask("pending")), "changes count");
  EXPECT_EQ(keysOf(ask("pending docs")), "changes count path");
  EXPECT_EQ(keysOf(ask("pending")["changes"][0]), kChange);
  EXPECT_EQ(keysOf(ask("sync docs")), "changes count path");
  EXPECT_EQ(keysOf(ask("unpin docs/a.txt")), "path result");
  EXPECT_EQ(keysOf(ask("link missing", 1)), "error path");
  EXPECT_EQ(keysOf(ask("state docs/a.txt")["result"]), "bytesHere folder pinned sizeBytes");
  EXPECT_EQ(keysOf(ask("state docs/new.txt")["result"]),
            "bytesHere folder pending pinned sizeBytes");
  EXPECT_EQ(keysOf(ask("why docs/a.txt")["result"]),
            "atStore bytesHere cause folder lastUsed pinned sizeBytes storeError");
  EXPECT_EQ(keysOf(ask("why docs/a.txt")["result"]["cause"]), "at kind program");
  EXPECT_EQ(keysOf(ask("keep-deleted")), "count");
  auto status = ask("status");
  status.erase("lastSignal");  // there if the service's events were heard already
  EXPECT_EQ(keysOf(status),
            "bytesHere conflicts domain downloads extension failingChanges heldDeletions itemsHere "
            "knownItems "
            "mountPoint passthrough pendingChanges process replica restarts standstillMilliseconds "
            "storeError storeReachable uploads version");
  EXPECT_EQ(keysOf(status["heldDeletions"]), "count paths");
  EXPECT_EQ(keysOf(status["conflicts"]), "count paths");
  EXPECT_EQ(keysOf(status["extension"]), "confinement deaths process starts");
  const auto doctor = ask("doctor", 1);
  EXPECT_EQ(keysOf(doctor), "findings problems warnings");
  for (const auto& finding : doctor["findings"]) {
    keysOf(finding);
    EXPECT_THAT(page, HasSubstr("`" + finding["about"].get<std::string>() + "`"));
  }
  EXPECT_EQ(keysOf(ask("report -o '" + (outside() / "r.tar.gz").string() + "'")),
            "file parts withNames");
  EXPECT_EQ(keysOf(ask("restart")), "mountPoint restarts standstillMilliseconds version");
  EXPECT_EQ(keysOf(ask("invalidate")), "file token");
  EXPECT_EQ(keysOf(ask("unmount --force")), "mountPoint pending replica");
  service().start();
  EXPECT_EQ(keysOf(ask("configure --url " + service().address() + " --token-file '" +
                       service().tokenFile().string() + "'")),
            "apiURL checked file");
  EXPECT_EQ(keysOf(ask("ls /docs/a.txt")), "folder modified name sizeBytes");
}

TEST_F(LiveCommandsTest, PathsOfTheStoreAreCompleted) {
  std::filesystem::create_directory(service().root() / "docs/sub folder");
  EXPECT_EQ(tell("complete-path /do"), "/docs/\n");
  EXPECT_EQ(tell("complete-path /docs/"), "/docs/a.txt\n/docs/b.txt\n/docs/sub folder/\n");
  EXPECT_EQ(tell("complete-path docs/a"), "docs/a.txt\n");
  EXPECT_EQ(tell("complete-path ''"), "docs/\n");
  EXPECT_EQ(tell("complete-path /docs/a.txt/x"), "");
  EXPECT_EQ(tell("complete-path /nowhere/x"), "");
  service().signal(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(tell("complete-path /docs/"), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(3));
  service().signal(SIGCONT);
}

TEST_F(LiveCommandsTest, StatusIsOfTheMountThatAPathLiesIn) {
  const std::string place = mount().mountPoint().string();
  EXPECT_THAT(tell("status --domain none", 1), HasSubstr("No host of the domain 'none'"));
  for (const char* path : {".", "docs/a.txt"})
    EXPECT_THAT(tell(std::string("status --domain none ") + path),
                HasSubstr("Mounted at " + place));
  EXPECT_THAT(tell("status /", 1), HasSubstr("'/'"));
}

TEST_F(LiveCommandsTest, TwoMountsOfOneDomainAreToldApart) {
  LiveMount other(service());
  other.end(SIGTERM);
  other.shareSessionOf(mount());
  other.start();
  EXPECT_THAT(tell("status"), HasSubstr("Mounted at " + mount().mountPoint().string()));
  EXPECT_THAT(other.control("status").output,
              HasSubstr("Mounted at " + other.mountPoint().string()));
  EXPECT_EQ(other.control("download docs/a.txt").status, 0);
  EXPECT_THAT(tell("why docs/a.txt"), HasSubstr("not here."));
  EXPECT_EQ(other.control("unmount .").status, 0);
  EXPECT_EQ(other.host().waitForEnd(), 0);
  EXPECT_THAT(tell("status"), HasSubstr("Mounted at " + mount().mountPoint().string()));
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
  ASSERT_TRUE(waitUntilFailed());
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
