#include "host/in/FileWatcher.h"

#include <gtest/gtest.h>

#include <atomic>

#include "platform/files/AtomicFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;

class FileWatcherTest : public testing::Test {
 protected:
  // Whether the watcher tells of what `action` does.
  template <class Action>
  bool tells(const Action& action) {
    const int before = changes_;
    action();
    return support::waitUntil([&] { return changes_ > before; });
  }
  FileWatcher watch() {
    return FileWatcher(file_, [this] { ++changes_; });
  }

  support::TemporaryDirectory directory_;
  const fs::path file_ = directory_.path() / "share" / "token";
  std::atomic<int> changes_ = 0;
};

TEST_F(FileWatcherTest, TellsOfEveryWayInWhichAFileChanges) {
  const auto watcher = watch();  // neither the file nor its folder is there yet
  EXPECT_TRUE(tells([&] { directory_.write("share/token", "1"); }));
  EXPECT_TRUE(tells([&] { platform::replaceFile(file_, "2", platform::Durability::atomic); }));
  EXPECT_TRUE(tells([&] { directory_.write("share/token", "3"); }));
  EXPECT_TRUE(tells([&] { fs::rename(file_, directory_.path() / "away"); }));
  EXPECT_TRUE(tells([&] { fs::rename(directory_.path() / "away", file_); }));
  EXPECT_TRUE(tells([&] { fs::remove(file_); }));
}

TEST_F(FileWatcherTest, SaysNothingOfOtherFiles) {
  const auto watcher = watch();
  directory_.write("share/other", "1");
  fs::remove(directory_.path() / "share" / "other");
  // Events come in order: once this one is here, the others have been seen and passed over.
  EXPECT_TRUE(tells([&] { platform::replaceFile(file_, "2", platform::Durability::atomic); }));
  EXPECT_EQ(changes_, 1);
}

TEST_F(FileWatcherTest, AFolderThatWentAndCameBackIsWatchedAgain) {
  const auto watcher = watch();
  EXPECT_TRUE(tells([&] { fs::remove_all(file_.parent_path()); }));
  // What may have been missed meanwhile is told when the watch is in place again.
  EXPECT_TRUE(tells([] {}));
  EXPECT_TRUE(tells([&] { directory_.write("share/token", "1"); }));
}

TEST_F(FileWatcherTest, EndsAtOnce) {
  for (int i = 0; i < 20; ++i) const auto watcher = watch();
}

}  // namespace
}  // namespace kestrune::host
