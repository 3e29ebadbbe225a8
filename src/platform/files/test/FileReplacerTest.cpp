// Replacing one file in bursts: what readers see, and what lies beside the file meanwhile.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "platform/files/AtomicFile.h"
#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;

class FileReplacerTest : public testing::Test {
 protected:
  FileReplacerTest() { fs::create_directories(folder_); }
  ~FileReplacerTest() override { fs::remove_all(folder_); }

  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_)) found.insert(entry.path().filename());
    return found;
  }
  /// The file that lies beside the target.
  fs::path spare() const {
    for (const auto& name : names()) {
      if (name != "file") return folder_ / name;
    }
    return {};
  }
  static ino_t inodeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
  }

  const fs::path folder_ = fs::path(testing::TempDir()) / ("replacer-" + newUUIDString());
  const fs::path file_ = folder_ / "file";
};

TEST_F(FileReplacerTest, TwoFilesChangePlaces) {
  FileReplacer replacer;
  replacer.replace(file_, "first, and rather long");
  EXPECT_EQ(names(), std::set<std::string>{"file"}) << "nothing was replaced yet";
  replacer.replace(file_, "second");
  const ino_t first = inodeOf(spare());
  replacer.replace(file_, "third");
  EXPECT_EQ(inodeOf(file_), first);
  EXPECT_EQ(readFile(file_), "third") << "cut to its own length";
  EXPECT_EQ(names().size(), 2U);
}

TEST_F(FileReplacerTest, RestLeavesNothingBesideTheFile) {
  FileReplacer replacer;
  for (const char* text : {"1", "2", "3"}) replacer.replace(file_, text);
  EXPECT_EQ(names().size(), 2U);
  replacer.rest();
  EXPECT_EQ(names(), std::set<std::string>{"file"});
  replacer.rest();
  replacer.replace(file_, "4");
  EXPECT_EQ(readFile(file_), "4");
}

TEST_F(FileReplacerTest, TheDestructorLeavesNothingBesideTheFile) {
  {
    FileReplacer replacer;
    replacer.replace(file_, "1");
    replacer.replace(file_, "2");
    EXPECT_EQ(names().size(), 2U);
  }
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(FileReplacerTest, WhoHasAnOldFileOpenKeepsItsContents) {
  FileReplacer replacer;
  replacer.replace(file_, "old");
  const int reader = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  for (const char* text : {"1", "2", "3", "4"}) replacer.replace(file_, text);
  std::string seen(10, '\0');
  seen.resize(static_cast<std::size_t>(::pread(reader, seen.data(), seen.size(), 0)));
  EXPECT_EQ(seen, "old");
  ::close(reader);
}

TEST_F(FileReplacerTest, WhoHasAnOldFileMappedKeepsItsContents) {
  FileReplacer replacer;
  replacer.replace(file_, "old");
  const int reader = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  void* mapped = ::mmap(nullptr, 3, PROT_READ, MAP_SHARED, reader, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  ::close(reader);
  for (const char* text : {"111", "222", "333"}) replacer.replace(file_, text);
  EXPECT_EQ(std::string_view(static_cast<const char*>(mapped), 3), "old");
  ::munmap(mapped, 3);
}

TEST_F(FileReplacerTest, AnotherNameOfAnOldFileKeepsItsContents) {
  FileReplacer replacer;
  replacer.replace(file_, "old");
  fs::create_hard_link(file_, folder_ / "snapshot");
  for (const char* text : {"1", "2", "3"}) replacer.replace(file_, text);
  EXPECT_EQ(readFile(folder_ / "snapshot"), "old");
}

TEST_F(FileReplacerTest, ASpareThatIsGoneOrAnotherThingIsMadeAnew) {
  FileReplacer replacer;
  replacer.replace(file_, "1");
  replacer.replace(file_, "2");
  fs::remove(spare());
  replacer.replace(file_, "3");
  EXPECT_EQ(readFile(file_), "3");
  const fs::path victim = folder_ / "victim";
  replaceFile(victim, "untouched", Durability::atomic);
  const fs::path link = [&] {
    for (const auto& name : names()) {
      if (name.starts_with(".kestrune-")) return folder_ / name;
    }
    return fs::path();
  }();
  ASSERT_FALSE(link.empty());
  fs::remove(link);
  fs::create_symlink("victim", link);
  replacer.replace(file_, "4");
  EXPECT_EQ(readFile(file_), "4");
  EXPECT_EQ(readFile(victim), "untouched");
}

TEST_F(FileReplacerTest, ATargetThatIsNoFileIsReplacedOrRefusedAsEver) {
  FileReplacer replacer;
  replaceFile(folder_ / "victim", "untouched", Durability::atomic);
  fs::create_symlink("victim", file_);
  replacer.replace(file_, "new");
  EXPECT_FALSE(fs::is_symlink(file_));
  EXPECT_EQ(readFile(folder_ / "victim"), "untouched");
  fs::remove(file_);
  fs::create_directories(file_ / "inside");
  EXPECT_THROW(replacer.replace(file_, "new"), NSPOSIXError);
  EXPECT_TRUE(fs::is_directory(file_ / "inside"));
  EXPECT_EQ(names(), (std::set<std::string>{"file", "victim"}));
}

TEST_F(FileReplacerTest, TheFileIsForTheUserAlone) {
  FileReplacer replacer;
  for (int i = 0; i < 3; ++i) {
    replacer.replace(file_, "x");
    ::chmod(file_.c_str(), 0644);
  }
  replacer.replace(file_, "x");
  EXPECT_EQ(fs::status(file_).permissions(), fs::perms(0600));
}

TEST_F(FileReplacerTest, ReadersNeverSeeAMixture) {
  std::atomic<bool> ends = false;
  std::atomic<int> reads = 0;
  FileReplacer replacer;
  replacer.replace(file_, "0");
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!ends) {
        const std::string seen = readFile(file_);
        EXPECT_EQ(seen.find_first_not_of(seen.at(0)), std::string::npos);
        ++reads;
      }
    });
  }
  for (int i = 0; i < 2000 || reads < 2000; ++i) {
    replacer.replace(file_, std::string(1 + static_cast<std::size_t>(i * 37 % 9000),
                                        static_cast<char>('a' + i % 26)));
  }
  ends = true;
  for (auto& reader : readers) reader.join();
}

}  // namespace
}  // namespace kestrune::platform
