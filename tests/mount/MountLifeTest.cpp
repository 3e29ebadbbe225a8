// How a mount begins and ends, with programs in the middle of something.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <thread>

#include "tests/mount/MountedStore.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::waitUntil;

int readOneByte(const fs::path& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return errno;
  char byte = 0;
  const int error = ::read(file, &byte, 1) < 0 ? errno : 0;
  ::close(file);
  return error;
}

class MountLifeTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    store_ = std::make_unique<MountedStore>();
  }
  MountedStore& store() { return *store_; }
  // Waits until the host has ended by itself, in order.
  void expectOrderlyEnd() {
    const auto status = store().host().waitForEnd();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(WIFEXITED(*status));
    EXPECT_EQ(WEXITSTATUS(*status), 0);
    EXPECT_FALSE(store().isMounted());
  }

 private:
  std::unique_ptr<MountedStore> store_;
};

TEST_F(MountLifeTest, EverySignalToEndUnmounts) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    EXPECT_TRUE(store().isMounted());
    store().host().signal(signal);
    expectOrderlyEnd();
    store().mountAgain();
  }
}

TEST_F(MountLifeTest, AnUnmountFromOutsideEndsTheHost) {
  ASSERT_EQ(::umount2(store().mountPoint().c_str(), 0), 0);
  expectOrderlyEnd();
}

TEST_F(MountLifeTest, EndingAnswersProgramsThatWait) {
  store().say("putFile", "/a", "hello");
  store().say("putFolder", "/docs");
  store().say("hold", "contents", "/a");
  store().say("hold", "items", "/docs");
  std::atomic<int> readError = -1;
  std::atomic<int> listError = -1;
  std::thread reader([&] { readError = readOneByte(store() / "a"); });
  std::thread lister([&] {
    const int folder = ::open((store() / "docs").c_str(), O_RDONLY | O_DIRECTORY);
    listError = folder < 0 ? errno : 0;
  });
  EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
  EXPECT_TRUE(store().say("waitUntilAsked", "items", "/docs", 1).get<bool>());
  store().host().signal(SIGTERM);
  expectOrderlyEnd();
  reader.join();
  lister.join();
  EXPECT_EQ(readError, ENOTCONN);
  EXPECT_EQ(listError, ENOTCONN);
}

TEST_F(MountLifeTest, AForcedUnmountWithAProgramWaitingEndsTheHost) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  std::atomic<int> error = -1;
  std::thread reader([&] { error = readOneByte(store() / "a"); });
  EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
  ASSERT_EQ(::umount2(store().mountPoint().c_str(), MNT_FORCE | MNT_DETACH), 0);
  reader.join();
  EXPECT_NE(error, 0);
  expectOrderlyEnd();
}

TEST_F(MountLifeTest, ADeadHostsMountIsClearedByTheNext) {
  store().say("putFile", "/a", "hello");
  EXPECT_EQ(readOneByte(store() / "a"), 0);
  store().host().signal(SIGKILL);
  ASSERT_TRUE(store().host().waitForEnd().has_value());
  ASSERT_TRUE(store().isMounted());
  EXPECT_EQ(readOneByte(store() / "a"), ENOTCONN);
  store().mountAgain();
  store().say("putFile", "/b", "again");
  store().say("announce");  // the folder is remembered, and asked for changes alone
  EXPECT_TRUE(waitUntil([&] { return readOneByte(store() / "b") == 0; }));
  store().host().signal(SIGTERM);
  expectOrderlyEnd();
}

TEST_F(MountLifeTest, AKilledHostLeavesNoProgramWaiting) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  std::atomic<int> error = -1;
  std::thread reader([&] { error = readOneByte(store() / "a"); });
  EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
  store().host().signal(SIGKILL);
  reader.join();
  EXPECT_NE(error, 0);
}

TEST_F(MountLifeTest, ALiveMountIsNotMountedOver) {
  Child second(store().hostArguments());
  EXPECT_NE(second.readLine().find("mounted already"), std::string::npos);
  const auto status = second.waitForEnd();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(WEXITSTATUS(*status), 1);
  store().say("putFile", "/a", "hello");
  EXPECT_EQ(readOneByte(store() / "a"), 0);
}

TEST_F(MountLifeTest, FilesInTheMountPointAreNotHidden) {
  store().host().signal(SIGTERM);
  expectOrderlyEnd();
  std::ofstream(store() / "precious") << "x";
  Child second(store().hostArguments());
  EXPECT_NE(second.readLine().find("not empty"), std::string::npos);
}

TEST_F(MountLifeTest, TheHostsOwnFilesDoNotLieInItsMount) {
  store().host().signal(SIGTERM);
  expectOrderlyEnd();
  auto arguments = store().hostArguments();
  arguments[2] = (store() / "replica").string();
  Child second(arguments);
  EXPECT_NE(second.readLine().find("keep files in"), std::string::npos);
}

TEST_F(MountLifeTest, EndingUnderLoadLeavesNothingBehind) {
  store().say("putFolder", "/docs");
  store().say("putManyFiles", "/docs", 500);
  std::atomic<bool> stop = false;
  std::atomic<int> calls = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        std::error_code error;
        for (fs::directory_iterator at(store() / "docs", error), end; !error && at != end;
             at.increment(error)) {
          ++calls;
          static_cast<void>(readOneByte(at->path()));
        }
      }
    });
  }
  EXPECT_TRUE(waitUntil([&] { return calls > 500; }));
  for (int i = 0; i < 20; ++i) {
    store().say("overwrite", "/docs/file" + std::to_string(i), "new");
    store().say("announce");
  }
  store().host().signal(SIGTERM);
  const auto status = store().host().waitForEnd();
  stop = true;
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 0);
  EXPECT_FALSE(store().isMounted());
}

}  // namespace
}  // namespace kestrune::mounttest
