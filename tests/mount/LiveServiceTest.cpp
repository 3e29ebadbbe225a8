// A real folder whose service changes things, is away, or hangs.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/mount/LiveMount.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;
using testing::HasSubstr;
constexpr std::chrono::seconds kShown{2};

class LiveServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    service_ = std::make_unique<LiveService>();
    fs::create_directory(service_->root() / "docs");
    std::ofstream(service_->root() / "docs/here.txt") << "here";
    std::ofstream(service_->root() / "docs/there.txt") << "there";
    mount_ = std::make_unique<LiveMount>(*service_);
  }
  LiveService& service() { return *service_; }
  LiveMount& mount() { return *mount_; }
  void run(const std::string& script) {
    const auto result = runIn(mount().mountPoint(), script);
    ASSERT_EQ(result.status, 0) << script << "\n" << result.output;
  }

 private:
  std::unique_ptr<LiveService> service_;
  std::unique_ptr<LiveMount> mount_;
};

TEST_F(LiveServiceTest, ChangesMadeThroughTheServiceShowSoon) {
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "here");
  // The host has heard that it can listen for events once a first change came through.
  ASSERT_EQ(service().call("POST", "/files/mkdir", R"({"path":"/first"})").status, 0);
  EXPECT_TRUE(waitUntil([&] { return fs::exists(mount() / "first"); }));
  ASSERT_EQ(service().call("POST", "/files/mkdir", R"({"path":"/docs/new"})").status, 0);
  EXPECT_TRUE(waitUntil([&] { return fs::exists(mount() / "docs/new"); }, kShown));
  ASSERT_EQ(service()
                .call("POST", "/files/move", R"({"src":"/docs/here.txt","dst":"/moved.txt"})")
                .status,
            0);
  EXPECT_TRUE(waitUntil(
      [&] { return fs::exists(mount() / "moved.txt") && !fs::exists(mount() / "docs/here.txt"); },
      kShown));
  EXPECT_EQ(contentsOf(mount() / "moved.txt"), "here");
  ASSERT_EQ(service().call("DELETE", "/files?path=/docs/there.txt", "").status, 0);
  EXPECT_TRUE(waitUntil([&] { return !fs::exists(mount() / "docs/there.txt"); }, kShown));
}

TEST_F(LiveServiceTest, ChangesMadeBesideTheServiceShowSoon) {
  const fs::path store = service().root();
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "here");
  // The host listens for events once a first change came through.
  std::ofstream(store / "first") << "first";
  EXPECT_TRUE(waitUntil([&] { return fs::exists(mount() / "first"); }));
  std::ofstream(store / "docs/new.txt") << "new";
  EXPECT_TRUE(waitUntil([&] { return fs::exists(mount() / "docs/new.txt"); }, kShown));
  std::ofstream(store / "docs/here.txt", std::ios::app) << " and now";
  EXPECT_TRUE(
      waitUntil([&] { return contentsOf(mount() / "docs/here.txt") == "here and now"; }, kShown));
  fs::create_directories(store / "docs/deep/deeper");
  EXPECT_TRUE(waitUntil([&] { return fs::exists(mount() / "docs/deep/deeper"); }, kShown));
  fs::rename(store / "docs/there.txt", store / "docs/deep/deeper/moved.txt");
  const auto isMoved = [&] {
    return fs::exists(mount() / "docs/deep/deeper/moved.txt") &&
           !fs::exists(mount() / "docs/there.txt");
  };
  EXPECT_TRUE(waitUntil(isMoved, kShown));
  fs::remove_all(store / "docs/deep");
  EXPECT_TRUE(waitUntil([&] { return !fs::exists(mount() / "docs/deep"); }, kShown));
}

TEST_F(LiveServiceTest, WhatOneMachineWritesAnotherShows) {
  LiveMount other(service());
  EXPECT_EQ(snapshotOf(other.mountPoint()).size(), 3U);
  run("printf one >docs/new.txt");
  EXPECT_TRUE(waitUntil([&] { return fs::exists(other / "docs/new.txt"); }));
  EXPECT_EQ(contentsOf(other / "docs/new.txt"), "one");
  const auto result = runIn(other.mountPoint(), "printf ', and two' >>docs/new.txt");
  ASSERT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(waitUntil([&] { return contentsOf(mount() / "docs/new.txt") == "one, and two"; }));
  EXPECT_EQ(snapshotOf(mount().mountPoint()).size(), 4U);
}

TEST_F(LiveServiceTest, WorkGoesOnWithoutTheService) {
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "here");
  service().end(SIGTERM);
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "here");
  run("printf ' and now' >>docs/here.txt; mkdir away; printf a >away/a; mv away/a away/b; mv "
      "docs/there.txt docs/moved.txt");
  run("printf gone >away/gone; rm away/gone; sed -i s/here/changed/ docs/here.txt");
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "changed and now");
  EXPECT_EQ(contentsOf(service().root() / "docs/here.txt"), "here");
  service().start();
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
  const std::map<std::string, std::string> expected = {{"docs/", ""},
                                                       {"docs/here.txt", "changed and now"},
                                                       {"docs/moved.txt", "there"},
                                                       {"away/", ""},
                                                       {"away/b", "a"}};
  EXPECT_EQ(differences(expected, snapshotOf(service().root())), "");
}

TEST_F(LiveServiceTest, WhatWasWrittenWithoutTheServiceOutlivesTheHostToo) {
  EXPECT_TRUE(fs::exists(mount() / "docs/here.txt"));
  service().end(SIGTERM);
  run("printf new >docs/new.txt; mkdir folder; printf x >folder/x; rm docs/here.txt");
  mount().end(SIGTERM);
  mount().start();
  EXPECT_EQ(contentsOf(mount() / "docs/new.txt"), "new");
  EXPECT_FALSE(fs::exists(mount() / "docs/here.txt"));
  service().start();
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
  EXPECT_EQ(contentsOf(service().root() / "folder/x"), "x");
}

TEST_F(LiveServiceTest, WhatIsUnsentIsSentThoughTheDatabaseIsLost) {
  EXPECT_EQ(contentsOf(mount() / "docs/here.txt"), "here");
  service().end(SIGTERM);
  run("mkdir -p folder/deep; printf new >folder/deep/new.txt; printf ' and now' >>docs/here.txt; "
      "printf unseen >>docs/there.txt; printf x >x; mv folder moved");
  mount().end(SIGKILL);
  {
    std::ofstream damage(mount().replica() / "items.sqlite", std::ios::in | std::ios::out);
    damage.seekp(0);
    damage << std::string(8192, '!');
  }
  service().start();
  mount().start();
  const std::map<std::string, std::string> expected = {{"docs/", ""},
                                                       {"docs/here.txt", "here and now"},
                                                       {"docs/there.txt", "thereunseen"},
                                                       {"moved/", ""},
                                                       {"moved/deep/", ""},
                                                       {"moved/deep/new.txt", "new"},
                                                       {"x", "x"}};
  EXPECT_TRUE(waitUntil([&] { return differences(expected, snapshotOf(service().root())).empty(); },
                        std::chrono::seconds(20)))
      << differences(expected, snapshotOf(service().root()));
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
  EXPECT_EQ(differences(expected, snapshotOf(mount().mountPoint())), "");
}

TEST_F(LiveServiceTest, AReadFromAServiceThatHangsCanBeInterrupted) {
  EXPECT_TRUE(fs::exists(mount() / "docs/here.txt"));
  service().signal(SIGSTOP);
  for (const int signal : {SIGINT, SIGKILL}) {
    Child cat({"cat", mount() / "docs/here.txt"});
    EXPECT_FALSE(cat.waitForEnd(std::chrono::milliseconds(500)).has_value());
    cat.signal(signal);
    const auto status = cat.waitForEnd(std::chrono::seconds(2));
    EXPECT_TRUE(status.has_value()) << signal;
    if (status) EXPECT_EQ(WTERMSIG(*status), signal);
  }
  run("printf local >docs/local.txt && test \"$(cat docs/local.txt)\" = local");
  service().signal(SIGCONT);
  EXPECT_TRUE(waitUntil([&] { return contentsOf(mount() / "docs/here.txt") == "here"; },
                        std::chrono::seconds(20)));
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
}

TEST_F(LiveServiceTest, LinksOfSeveralFilesArePrintedAndCopiedTogether) {
  const fs::path tools = mount().mountPoint().parent_path() / "tools";
  fs::create_directory(tools);
  std::ofstream(tools / "xclip") << "#!/bin/sh\ncat > '" << (tools / "copied").string() << "'\n";
  fs::permissions(tools / "xclip", fs::perms::owner_all);
  mount().end(SIGTERM);
  const char* path = std::getenv("PATH");
  const support::ScopedEnvironment search("PATH", tools.string() + ":" + (path ? path : ""));
  const support::ScopedEnvironment display("DISPLAY", ":7");
  mount().start();
  ASSERT_TRUE(waitUntil([this] { return mount().control("status").status == 0; }));
  const auto result = mount().control("link docs/here.txt docs/missing docs");
  EXPECT_EQ(result.status, 1) << result.output;
  const std::string base = service().address() + "/open/docs";
  EXPECT_THAT(result.output, HasSubstr(base + "/here.txt\n" + base + "\n"));
  EXPECT_THAT(result.output, HasSubstr("docs/missing"));
  const auto isCopied = [&] {
    return fs::exists(tools / "copied") &&
           contentsOf(tools / "copied") == base + "/here.txt\n" + base;
  };
  EXPECT_TRUE(waitUntil(isCopied, kShown));
}

}  // namespace
}  // namespace kestrune::mounttest
