#include "service/TreeWatch.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_future.hpp>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>

#include "tests/support/CapturingLogSink.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds kSoon{2000};
/// Many times what is announced together.
constexpr milliseconds kQuiet{100};

/// The inodes that the kernel says are watched by this process.
std::set<ino_t> watchedInodes() {
  std::set<ino_t> inodes;
  for (const auto& queue : fs::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream lines(queue.path());
    for (std::string line; std::getline(lines, line);) {
      const auto at = line.find(" ino:");
      if (line.starts_with("inotify ") && at != std::string::npos)
        inodes.insert(std::strtoull(line.c_str() + at + 5, nullptr, 16));
    }
  }
  return inodes;
}

ino_t inodeOf(const fs::path& path) {
  struct stat status {};
  ::lstat(path.c_str(), &status);
  return status.st_ino;
}

/// From now on this process has a limit of its own for watches. False if the kernel does not let it.
bool allowWatches(int count) {
  const std::string users = "0 " + std::to_string(::geteuid()) + " 1";
  if (::unshare(CLONE_NEWUSER) != 0) return false;
  std::ofstream("/proc/self/uid_map") << users;
  std::ofstream limit("/proc/sys/user/max_inotify_watches");
  limit << count << std::flush;
  return limit.good();
}

bool canAllowWatches() {
  const pid_t child = ::fork();
  if (child == 0) std::_Exit(allowWatches(1) ? 0 : 1);
  int status = -1;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

class TreeWatchTest : public ::testing::Test {
 protected:
  TreeWatchTest() {
    fs::create_directories(in("Docs/2024"));
    fs::create_directory(out("elsewhere"));
    write("Docs/a.txt");
  }

  /// Begins, and waits until every folder has its watch.
  void start(WatchPace pace = {}) {
    tree.emplace(files.path() / "root", platform::Durability::atomic);
    watch.emplace(*tree, changes, pace);
    ASSERT_TRUE(isTold(kSoon));
    settle();
  }
  fs::path in(const fs::path& relative) const { return files.path() / "root" / relative; }
  fs::path out(const fs::path& relative) const { return files.path() / relative; }
  void write(const fs::path& relative) const { files.write("root" / relative, "text"); }

  /// Whether something is announced within `limit`.
  bool isTold(milliseconds limit) {
    auto wake = boost::asio::co_spawn(context, listener->wait(limit), boost::asio::use_future);
    context.restart();
    context.run();
    return wake.get() == Changes::Wake::changed;
  }
  /// Waits until what has happened so far has been announced.
  void settle() {
    while (isTold(kQuiet)) continue;
  }
  /// Whether `action` is announced. What it causes later is waited for as well.
  bool tells(const std::function<void()>& action) {
    action();
    const bool told = isTold(kSoon);
    settle();
    return told;
  }
  bool isSilent(const std::function<void()>& action) {
    action();
    return !isTold(kQuiet);
  }
  /// Begins where the kernel allows fewer watches than there are folders. Returns what is wrong with what comes of it.
  std::string faultWithFewWatches() {
    const support::CapturingLogSink log;
    if (!allowWatches(2)) return "no limit";
    WatchPace pace;
    pace.unwatched = milliseconds(150);
    tree.emplace(files.path() / "root", platform::Durability::atomic);
    watch.emplace(*tree, changes, pace);
    for (int i = 0; i < 4; ++i) {
      if (!isTold(kSoon)) return "nothing is supposed";
    }
    if (log.messages().size() != 1) return "not one line";
    return log.contains("fs.inotify.max_user_watches") ? "" : log.messages()[0];
  }
  /// Whether the folders of the tree are watched, and nothing else.
  bool watchesItsFolders() const {
    std::set<ino_t> inodes = {inodeOf(in(""))};
    for (const auto& entry : fs::recursive_directory_iterator(in(""))) {
      if (entry.symlink_status().type() == fs::file_type::directory)
        inodes.insert(inodeOf(entry.path()));
    }
    return inodes == watchedInodes();
  }

  support::TemporaryDirectory files;
  std::optional<Tree> tree;
  Changes changes;
  boost::asio::io_context context;
  std::shared_ptr<Changes::Listener> listener = changes.listen(context.get_executor());
  std::optional<TreeWatch> watch;
};

TEST_F(TreeWatchTest, TellsOfWhatAListingShows) {
  WatchPace pace;
  pace.growth = milliseconds(20);
  start(pace);
  EXPECT_TRUE(tells([&] { write("Docs/2024/new.txt"); }));
  EXPECT_TRUE(tells([&] { std::ofstream(in("Docs/a.txt"), std::ios::app) << "more"; }));
  EXPECT_TRUE(tells([&] { fs::resize_file(in("Docs/a.txt"), 1); }));
  EXPECT_TRUE(tells([&] { fs::last_write_time(in("Docs/a.txt"), {}); }));
  EXPECT_TRUE(tells([&] { fs::create_hard_link(in("Docs/a.txt"), in("b.txt")); }));
  EXPECT_TRUE(tells([&] { fs::rename(in("b.txt"), in("c.txt")); }));
  EXPECT_TRUE(tells([&] { fs::rename(in("c.txt"), out("c.txt")); }));
  EXPECT_TRUE(tells([&] { fs::rename(out("c.txt"), in("c.txt")); }));
  EXPECT_TRUE(tells([&] { fs::remove(in("c.txt")); }));
  EXPECT_TRUE(tells([&] { fs::create_directory(in("Docs/2025")); }));
  EXPECT_TRUE(tells([&] { fs::last_write_time(in("Docs/2025"), {}); }));
  EXPECT_TRUE(tells([&] { fs::remove(in("Docs/2025")); }));
}

TEST_F(TreeWatchTest, SaysNothingOfWhatNoListingShows) {
  const std::string hidden = "line\nfeed";
  write(hidden);
  fs::create_directory_symlink(files.path() / "elsewhere", in("link"));
  start();
  EXPECT_TRUE(isSilent([&] { EXPECT_EQ(support::contentsOf(in("Docs/a.txt")), "text"); }));
  EXPECT_TRUE(isSilent([&] { EXPECT_FALSE(fs::is_empty(in("Docs"))); }));
  EXPECT_TRUE(isSilent([&] { write(hidden); }));
  EXPECT_TRUE(isSilent([&] { files.write("elsewhere/x", "text"); }));
  EXPECT_TRUE(isSilent([&] { files.write("root/link/y", "text"); }));
  settle();
  EXPECT_TRUE(tells([&] { fs::create_directory_symlink(out("elsewhere"), in("Docs/link")); }));
  EXPECT_TRUE(isSilent([&] { files.write("elsewhere/z", "text"); }));
  EXPECT_TRUE(watchesItsFolders());
}

TEST_F(TreeWatchTest, AFileThatGrowsIsToldMeanwhileButNotAllTheTime) {
  WatchPace pace;
  pace.growth = milliseconds(300);
  start(pace);
  std::ofstream log(in("Docs/a.txt"), std::ios::app);
  int told = 0;
  const auto end = std::chrono::steady_clock::now() + milliseconds(1000);
  while (std::chrono::steady_clock::now() < end) {
    log << "line" << std::endl;
    if (isTold(milliseconds(5))) ++told;
  }
  EXPECT_GE(told, 2);
  EXPECT_LE(told, 5);
  settle();
  EXPECT_TRUE(tells([&] { log.close(); }));
}

TEST_F(TreeWatchTest, NewFoldersAreWatchedWithAllThatIsInThem) {
  start();
  EXPECT_TRUE(tells([&] { fs::create_directories(in("a/b/c/d")); }));
  EXPECT_TRUE(tells([&] { write("a/b/c/d/file"); }));
  fs::create_directories(out("elsewhere/e/f"));
  EXPECT_TRUE(tells([&] { fs::rename(out("elsewhere"), in("a/b/in")); }));
  EXPECT_TRUE(tells([&] { write("a/b/in/e/f/file"); }));
  EXPECT_TRUE(watchesItsFolders());
}

TEST_F(TreeWatchTest, WhatIsMadeInANewFolderBeforeItIsWatchedIsTold) {
  WatchPace pace;
  pace.together = milliseconds(800);
  start(pace);
  fs::create_directory(in("new"));
  ASSERT_TRUE(support::staysTrue([&] { return !watchedInodes().contains(inodeOf(in("new"))); },
                                 milliseconds(20)));
  write("new/file");
  ASSERT_FALSE(watchedInodes().contains(inodeOf(in("new"))));
  EXPECT_TRUE(isTold(kSoon));
  EXPECT_TRUE(watchedInodes().contains(inodeOf(in("new"))));
}

TEST_F(TreeWatchTest, FoldersThatMoveAreWatchedWhereTheyAre) {
  start();
  EXPECT_TRUE(tells([&] { fs::rename(in("Docs"), in("Papers")); }));
  EXPECT_TRUE(tells([&] { write("Papers/2024/file"); }));
  // Found by the path that it has now.
  EXPECT_TRUE(tells([&] { fs::create_directory(in("Papers/2024/May")); }));
  EXPECT_TRUE(tells([&] { write("Papers/2024/May/file"); }));
  EXPECT_TRUE(tells([&] {
    fs::rename(in("Papers/2024"), in("2024"));
    fs::rename(in("Papers"), in("2024/Papers"));
    fs::rename(in("2024"), in("2025"));
  }));
  EXPECT_TRUE(watchesItsFolders());
  EXPECT_TRUE(tells([&] { fs::create_directory(in("2025/Papers/new")); }));
  EXPECT_TRUE(watchesItsFolders());
}

TEST_F(TreeWatchTest, FoldersThatGoAreForgotten) {
  start();
  EXPECT_TRUE(tells([&] { fs::rename(in("Docs"), out("gone")); }));
  EXPECT_TRUE(isSilent([&] { files.write("gone/2024/file", "text"); }));
  EXPECT_TRUE(watchesItsFolders());
  EXPECT_TRUE(tells([&] { fs::rename(out("gone"), in("Docs")); }));
  EXPECT_TRUE(watchesItsFolders());
  EXPECT_TRUE(tells([&] { fs::remove_all(in("Docs")); }));
  EXPECT_TRUE(watchesItsFolders());
}

TEST_F(TreeWatchTest, AFolderThatBecomesReadableIsWatchedThen) {
  if (::geteuid() == 0) GTEST_SKIP() << "everything is readable for root";
  ::chmod(in("Docs").c_str(), 0);
  start();
  EXPECT_TRUE(tells([&] { ::chmod(in("Docs").c_str(), 0700); }));
  EXPECT_TRUE(tells([&] { write("Docs/2024/file"); }));
}

TEST_F(TreeWatchTest, WhateverHappensTheFoldersOfTheTreeAreWatched) {
  start();
  const char* seedText = std::getenv("KESTRUNE_SEED");
  const auto seed = seedText ? static_cast<unsigned>(std::strtoul(seedText, nullptr, 10))
                             : std::random_device()();
  SCOPED_TRACE("KESTRUNE_SEED=" + std::to_string(seed));
  std::minstd_rand random(seed);
  const auto place = [&] {  // one of a few, so that they meet
    fs::path path = random() % 8 == 0 ? out("elsewhere") : in("");
    for (unsigned depth = random() % 3 + 1; depth > 0; --depth)
      path /= std::string(1, static_cast<char>('a' + random() % 3));
    return path;
  };
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 100; ++i) {
      std::error_code ignored;  // what does not fit fails
      switch (random() % 6) {
        case 0:
          fs::remove_all(place(), ignored);
          break;
        case 1:
        case 2:
          fs::create_directories(place(), ignored);
          break;
        default:
          fs::rename(place(), place(), ignored);
      }
    }
    settle();
    // The last folders may still be waiting for their watch; but nothing else is going to happen.
    ASSERT_TRUE(support::waitUntil([&] { return watchesItsFolders(); }, kSoon))
        << "round " << round;
  }
}

TEST_F(TreeWatchTest, WithTooManyFoldersChangesAreSupposed) {
  const support::CapturingLogSink log;
  WatchPace pace;
  pace.folders = 3;
  pace.unwatched = milliseconds(150);
  pace.anew = milliseconds(1000);
  fs::create_directories(in("more/and/more"));
  tree.emplace(files.path() / "root", platform::Durability::atomic);
  watch.emplace(*tree, changes, pace);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(isTold(kSoon));  // although nothing happens
  EXPECT_EQ(watchedInodes().size(), 3U);
  EXPECT_EQ(log.messages().size(), 1U);
  EXPECT_TRUE(log.contains("too many folders"));
  // Once they fit, they are watched again, and nothing is supposed any more.
  fs::remove_all(in("more"));
  EXPECT_TRUE(support::waitUntil([&] { return watchesItsFolders(); }));
  EXPECT_TRUE(support::waitUntil([&] { return !isTold(2 * pace.unwatched); }));
  EXPECT_TRUE(tells([&] { write("Docs/2024/file"); }));
  EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(TreeWatchTest, WithFewerWatchesThanFoldersToo) {
  if (!canAllowWatches()) GTEST_SKIP() << "no user namespaces here";
  const auto end = [this] {
    const std::string fault = faultWithFewWatches();
    std::cerr << fault << std::endl;
    std::_Exit(fault.empty() ? 0 : 1);
  };
  EXPECT_EXIT(end(), ::testing::ExitedWithCode(0), "");
}

TEST_F(TreeWatchTest, EventsThatTheKernelDroppedAreMadeUpFor) {
  const support::CapturingLogSink log;
  WatchPace pace;
  pace.together = milliseconds(1000);
  write("b");
  write("c");
  start(pace);
  int most = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
  if (most > 50'000) GTEST_SKIP() << "this machine queues too many events";
  const auto overflow = [&] {
    // While the watch waits for more, it takes nothing.
    for (int i = 0; i <= 2 * most; ++i) ::chmod(in(i % 2 == 0 ? "b" : "c").c_str(), 0600);
    fs::create_directories(in("late/folder"));
  };
  EXPECT_TRUE(tells(overflow));
  ASSERT_TRUE(support::waitUntil([&] { return log.contains("max_queued_events"); }));
  EXPECT_TRUE(support::waitUntil([&] { return watchesItsFolders(); }));
  settle();
  EXPECT_TRUE(tells([&] { write("late/folder/file"); }));
  EXPECT_TRUE(tells(overflow));
  EXPECT_EQ(log.messages().size(), 1U);
}

TEST_F(TreeWatchTest, EndsAtOnceAlsoWhileItWalks) {
  for (int i = 0; i < 300; ++i) fs::create_directories(in("many/" + std::to_string(i)));
  tree.emplace(files.path() / "root", platform::Durability::atomic);
  for (int i = 0; i < 20; ++i) {
    watch.emplace(*tree, changes);
    watch.reset();
  }
  EXPECT_TRUE(watchedInodes().empty());
}

}  // namespace
}  // namespace kestrune::service
