// A replacement of the host that does not come about: the old one goes on, or the folder is unmounted in order.

#include "tests/mount/LiveRestart.h"

#include <chrono>
#include <thread>

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;
using testing::HasSubstr;

class RestartFailureTest : public LiveRestartTest {};

TEST_F(RestartFailureTest, AChangeThatWaitsForTheStoreHasTheOldHostGoOn) {
  fs::create_directory(service().root() / "unseen");
  std::ofstream(service().root() / "unseen/file") << "x";
  putAtStore("docs/cold.txt", "cold");
  service().signal(SIGSTOP);
  Child remover({"rmdir", mount() / "unseen"});
  Child reader({"cat", mount() / "docs/cold.txt"});
  EXPECT_FALSE(remover.waitForEnd(std::chrono::milliseconds(300)).has_value());
  const auto began = std::chrono::steady_clock::now();
  const auto result = mount().control("restart");
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(9));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("goes on"));
  EXPECT_THAT(result.output, HasSubstr("waits for the store"));
  std::ofstream(mount() / "docs/written.txt") << "written";
  service().signal(SIGCONT);
  EXPECT_EQ(reader.waitForEnd(), 0);
  const auto status = remover.waitForEnd();
  ASSERT_TRUE(status.has_value());
  EXPECT_NE(*status, 0);  // it is not empty
  EXPECT_EQ(contentsOf(mount() / "unseen/file"), "x");
  restart();
  EXPECT_EQ(contentsOf(mount() / "docs/written.txt"), "written");
}

TEST_F(RestartFailureTest, WhatCannotBeExecutedLeavesTheOldHostServing) {
  const fs::path program = moveProgram();
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  service().signal(SIGSTOP);
  Child waiting({"cat", mount() / "docs/b.txt"});
  EXPECT_FALSE(waiting.waitForEnd(std::chrono::milliseconds(300)).has_value());
  fs::rename(program, outside() / "kept");
  const auto expectRefused = [this](const std::string& why) {
    const auto result = mount().control("restart");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("goes on"));
    EXPECT_THAT(result.output, HasSubstr(why));
  };
  expectRefused("No such file");
  std::ofstream(program) << "no program";
  expectRefused("Permission denied");
  fs::permissions(program, fs::perms::owner_all);
  expectRefused("Exec format error");
  std::ofstream(mount() / "docs/written.txt") << "written";
  service().signal(SIGCONT);
  EXPECT_EQ(waiting.waitForEnd(), 0);
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
  fs::rename(outside() / "kept", program);
  restart();
  EXPECT_EQ(contentsOf(mount() / "docs/written.txt"), "written");
}

TEST_F(RestartFailureTest, AProgramThatDoesNotGoOnLeavesNoDeadFolder) {
  const fs::path program = moveProgram();
  fs::copy_file(program, outside() / "kept");
  putScript(program, "exec '" + (outside() / "kept").string() + "' mount --no-such-option");
  std::ofstream(mount() / "docs/written.txt") << "written";
  const auto result = mount().control("restart");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, HasSubstr("not mounted any more"));
  expectUnmounted();
  fs::rename(outside() / "kept", program);
  mount().start();
  EXPECT_EQ(contentsOf(mount() / "docs/written.txt"), "written");
}

TEST_F(RestartFailureTest, ADamagedReplicaEndsTheMountInOrder) {
  const fs::path program = moveProgram();
  fs::copy_file(program, outside() / "kept");
  putScript(program, "dd if=/dev/zero of='" + (mount().replica() / "items.sqlite").string() +
                         "' bs=8192 count=1 conv=notrunc 2>/dev/null\nexec '" +
                         (outside() / "kept").string() + "' \"$@\"");
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  service().signal(SIGSTOP);
  std::ofstream(mount() / "docs/written.txt") << "written";
  const auto result = mount().control("restart");
  EXPECT_EQ(result.status, 1) << result.output;
  expectUnmounted();
  EXPECT_THAT(contentsOf(mount().logFile()), HasSubstr("damaged"));
  service().signal(SIGCONT);
  fs::rename(outside() / "kept", program);
  mount().start();
  EXPECT_TRUE(waitUntil([this] {
    return fs::exists(service().root() / "docs/written.txt") &&
           contentsOf(service().root() / "docs/written.txt") == "written";
  }));
}

TEST_F(RestartFailureTest, AnEndThatWasAskedForMeanwhileIsAnOrderlyOne) {
  for (int i = 0; i < 5; ++i) {
    std::thread asking([this] { static_cast<void>(mount().control("restart")); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30 + 10 * i));
    mount().host().signal(SIGTERM);
    const auto status = mount().host().waitForEnd();
    asking.join();
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(mount().isServed());
    mount().start();
  }
}

}  // namespace
}  // namespace kestrune::mounttest
