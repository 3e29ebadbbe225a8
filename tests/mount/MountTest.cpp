// The mount as programs see it: a host in a process of its own, and the kernel in between.

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <set>
#include <thread>

#include "tests/mount/MountedStore.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
  return names;
}

struct stat statusOf(const fs::path& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0)
    throw std::system_error(errno, std::generic_category(), path);
  return status;
}

// Runs `call` and returns the errno that it left, 0 for success.
template <class Call>
int errnoOf(const Call& call) {
  errno = 0;
  return call() < 0 ? errno : 0;
}

class OpenedFile {
 public:
  explicit OpenedFile(const fs::path& path) : number_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (number_ < 0) throw std::system_error(errno, std::generic_category(), path);
  }
  ~OpenedFile() { ::close(number_); }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;
  int number() const { return number_; }
  std::string bytes(std::size_t from, std::size_t length) const {
    std::string text(length, '\0');
    const ssize_t got = ::pread(number_, text.data(), length, static_cast<off_t>(from));
    if (got < 0) throw std::system_error(errno, std::generic_category(), "pread");
    text.resize(static_cast<std::size_t>(got));
    return text;
  }

 private:
  const int number_;
};

class MountTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    store_ = std::make_unique<MountedStore>();
  }
  MountedStore& store() { return *store_; }
  int asked(const char* what, const std::string& path) { return store().say("asked", what, path); }

 private:
  std::unique_ptr<MountedStore> store_;
};

TEST_F(MountTest, ListsExaminesAndReads) {
  store().say("putFolder", "/docs");
  store().say("putFile", "/docs/a.txt", "hello");
  EXPECT_THAT(namesIn(store().mountPoint()), ElementsAre("docs"));
  EXPECT_EQ(contentsOf(store() / "docs/a.txt"), "hello");
  const auto file = statusOf(store() / "docs/a.txt");
  EXPECT_EQ(file.st_mode, S_IFREG | 0644U);
  EXPECT_EQ(file.st_uid, ::getuid());
  EXPECT_EQ(file.st_nlink, 1U);
  EXPECT_EQ(file.st_size, 5);
  EXPECT_EQ(file.st_mtime, 1'700'000'000);
  EXPECT_EQ(statusOf(store() / "docs").st_mode, S_IFDIR | 0755U);
  EXPECT_EQ(errnoOf([&] { return ::access((store() / "missing").c_str(), F_OK); }), ENOENT);
}

TEST_F(MountTest, ShowsTenThousandEntriesOnceEach) {
  store().say("putFolder", "/many");
  store().say("putManyFiles", "/many", 10'000);
  for (int round = 0; round < 2; ++round) {
    const auto names = namesIn(store() / "many");
    EXPECT_EQ(names.size(), 10'000U);
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 10'000U);
  }
  std::set<ino_t> inodes;
  for (const auto& name : namesIn(store() / "many"))
    inodes.insert(statusOf(store() / ("many/" + name)).st_ino);
  EXPECT_EQ(inodes.size(), 10'000U);
  EXPECT_EQ(asked("items", "/many"), 1);
}

TEST_F(MountTest, OnlyReadingFetchesAndOnlyOnce) {
  store().say("putFile", "/a", std::string(100'000, 'a'));
  {
    const OpenedFile file(store() / "a");
    EXPECT_EQ(statusOf(store() / "a").st_blocks, 0);
    EXPECT_EQ(asked("contents", "/a"), 0);
  }
  for (int round = 0; round < 2; ++round)
    EXPECT_TRUE(contentsOf(store() / "a") == std::string(100'000, 'a'));
  EXPECT_EQ(asked("contents", "/a"), 1);
  EXPECT_TRUE(waitUntil([&] { return statusOf(store() / "a").st_blocks >= 196; }));
}

TEST_F(MountTest, ConcurrentReadersShareOneFetch) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  std::vector<std::thread> readers;
  std::atomic<int> right = 0;
  for (int i = 0; i < 8; ++i) {
    readers.emplace_back([&] {
      if (contentsOf(store() / "a") == "hello") ++right;
    });
  }
  EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
  EXPECT_EQ(right, 0);
  store().say("stopHolding", "contents", "/a");
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(right, 8);
  EXPECT_EQ(asked("contents", "/a"), 1);
}

TEST_F(MountTest, ABlockedReadKeepsNobodyElseFromAnything) {
  store().say("putFile", "/slow", "hello");
  store().say("putFile", "/quick", "x");
  store().say("hold", "contents", "/slow");
  std::thread reader([&] { static_cast<void>(contentsOf(store() / "slow")); });
  EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/slow", 1).get<bool>());
  EXPECT_EQ(contentsOf(store() / "quick"), "x");
  EXPECT_EQ(statusOf(store() / "slow").st_size, 5);
  EXPECT_EQ(namesIn(store().mountPoint()).size(), 2U);
  // Not even when the version changes meanwhile.
  store().say("overwrite", "/slow", "another version");
  store().announce();
  EXPECT_EQ(namesIn(store().mountPoint()).size(), 2U);
  store().say("stopHolding", "contents", "/slow");
  reader.join();
  EXPECT_TRUE(waitUntil([&] { return contentsOf(store() / "slow") == "another version"; }));
}

// A thread that makes one system call and is interrupted in it by a signal without a restart.
class InterruptedCall {
 public:
  explicit InterruptedCall(std::function<int()> call) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, nullptr);
    thread_ = std::thread([this, call = std::move(call)] {
      error_ = call();
      done_ = true;
    });
  }
  ~InterruptedCall() { thread_.join(); }
  InterruptedCall(const InterruptedCall&) = delete;
  InterruptedCall& operator=(const InterruptedCall&) = delete;
  void interrupt() { ::pthread_kill(thread_.native_handle(), SIGUSR1); }
  bool done() const { return done_; }
  int error() const { return error_; }

 private:
  std::thread thread_;
  std::atomic<int> error_ = 0;
  std::atomic<bool> done_ = false;
};

TEST_F(MountTest, ASignalInterruptsABlockedRead) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  const OpenedFile file(store() / "a");
  {
    InterruptedCall call([&] {
      char byte = 0;
      return errnoOf([&] { return ::read(file.number(), &byte, 1); });
    });
    EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
    EXPECT_FALSE(call.done());
    call.interrupt();
    EXPECT_TRUE(waitUntil([&] { return call.done(); }));
    if (!call.done()) store().say("stopHolding", "contents", "/a");
    EXPECT_TRUE(waitUntil([&] { return call.done(); }));
    EXPECT_EQ(call.error(), EINTR);
  }
  store().say("stopHolding", "contents", "/a");
  EXPECT_EQ(file.bytes(0, 10), "hello");
  EXPECT_EQ(asked("contents", "/a"), 1);
}

TEST_F(MountTest, ASignalDoesNoHarmToAProgramThatWaitsForAMappedPage) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  const OpenedFile file(store() / "a");
  void* const map = ::mmap(nullptr, 5, PROT_READ, MAP_PRIVATE, file.number(), 0);
  ASSERT_NE(map, MAP_FAILED);
  {
    // An error here would be a bus error, not an errno.
    InterruptedCall call([&] { return static_cast<volatile const char*>(map)[0]; });
    EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
    call.interrupt();
    EXPECT_TRUE(support::staysTrue([&] { return !call.done(); }, std::chrono::milliseconds(300)));
    store().say("stopHolding", "contents", "/a");
    EXPECT_TRUE(waitUntil([&] { return call.done(); }));
    EXPECT_EQ(call.error(), 'h');
  }
  ::munmap(map, 5);
}

TEST_F(MountTest, AProgramThatWaitsForAMappedPageCanBeKilled) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  const OpenedFile file(store() / "a");
  for (const bool harmlessSignalFirst : {false, true}) {
    const pid_t child = ::fork();
    if (child == 0) {
      struct sigaction action = {};
      action.sa_handler = [](int) {};
      ::sigaction(SIGUSR1, &action, nullptr);
      void* const map = ::mmap(nullptr, 5, PROT_READ, MAP_PRIVATE, file.number(), 0);
      ::_exit(static_cast<volatile const char*>(map)[0]);
    }
    EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
    int status = 0;
    const auto ended = [&] { return ::waitpid(child, &status, WNOHANG) == child; };
    EXPECT_TRUE(support::staysTrue([&] { return !ended(); }, std::chrono::milliseconds(100)));
    if (harmlessSignalFirst) {
      ::kill(child, SIGUSR1);
      EXPECT_TRUE(support::staysTrue([&] { return !ended(); }, std::chrono::milliseconds(200)));
    }
    ::kill(child, SIGTERM);
    ASSERT_TRUE(waitUntil(ended, std::chrono::seconds(3)));
    EXPECT_TRUE(WIFSIGNALED(status));
  }
}

TEST_F(MountTest, ASignalInterruptsABlockedListing) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "items", "/");
  {
    InterruptedCall call([&] {
      return errnoOf([&] { return ::open(store().mountPoint().c_str(), O_RDONLY | O_DIRECTORY); });
    });
    EXPECT_TRUE(store().say("waitUntilAsked", "items", "/", 1).get<bool>());
    EXPECT_FALSE(call.done());
    call.interrupt();
    EXPECT_TRUE(waitUntil([&] { return call.done(); }));
    EXPECT_EQ(call.error(), EINTR);
  }
  store().say("stopHolding", "items", "/");
  EXPECT_THAT(namesIn(store().mountPoint()), ElementsAre("a"));
}

TEST_F(MountTest, AProgramThatWaitsCanBeEndedAtOnce) {
  store().say("putFile", "/a", "hello");
  store().say("hold", "contents", "/a");
  for (const int signal : {SIGINT, SIGTERM, SIGKILL}) {
    Child cat({"cat", (store() / "a").string()});
    EXPECT_TRUE(store().say("waitUntilAsked", "contents", "/a", 1).get<bool>());
    EXPECT_FALSE(cat.waitForEnd(std::chrono::milliseconds(50)).has_value());
    cat.signal(signal);
    const auto status = cat.waitForEnd(std::chrono::seconds(2));
    ASSERT_TRUE(status.has_value()) << signal;
    EXPECT_EQ(WTERMSIG(*status), signal);
  }
}

TEST_F(MountTest, HostileItemsNeitherShowNorHarm) {
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  for (const auto& name :
       {std::string(".."), std::string("."), std::string(), std::string("a/b"),
        std::string("../../../tmp/escaped"), std::string("nul\0byte", 8), std::string(256, 'l')}) {
    store().say("putItem", "/", name);
  }
  store().say("putItem", "/", "negative", -5, std::numeric_limits<std::int64_t>::min() / 2'000'000);
  store().say("putItem", "/", "huge", kMost, kMost / 2'000'000);
  store().say("putItem", "/", std::string(255, 'n'));
  store().say("putItem", "/", "new\nline");
  store().say("putItem", "/", "twice");
  store().say("putItem", "/", "twice");
  EXPECT_THAT(
      namesIn(store().mountPoint()),
      UnorderedElementsAre("negative", "huge", std::string(255, 'n'), "new\nline", "twice"));
  EXPECT_EQ(statusOf(store() / "negative").st_size, 0);
  EXPECT_EQ(statusOf(store() / "huge").st_size, kMost);
  EXPECT_LT(statusOf(store() / "negative").st_mtime, -62'000'000'000);
  EXPECT_GT(statusOf(store() / "huge").st_mtime, 253'000'000'000);
  for (const auto& name : {std::string("negative"), std::string("huge"), std::string(255, 'n')}) {
    const OpenedFile file(store() / name);
    EXPECT_EQ(file.bytes(0, 1) + file.bytes(1, 1), name == "negative" ? file.bytes(0, 2) : "x")
        << name;
    EXPECT_TRUE(waitUntil([&] { return statusOf(store() / name).st_size == 1; })) << name;
    EXPECT_EQ(contentsOf(store() / name), "x");
  }
}

TEST_F(MountTest, ChangesShowWithoutWaitingForAnyTimeOut) {
  store().say("putFile", "/changes", "before");
  store().say("putFile", "/goes", "x");
  EXPECT_EQ(namesIn(store().mountPoint()).size(), 2U);
  EXPECT_EQ(contentsOf(store() / "changes"), "before");
  const OpenedFile stillOpen(store() / "changes");
  const auto inode = statusOf(store() / "changes").st_ino;
  const auto folderTime = statusOf(store().mountPoint()).st_mtim;
  EXPECT_EQ(errnoOf([&] { return ::access((store() / "comes").c_str(), F_OK); }), ENOENT);
  store().say("overwrite", "/changes", "after, and longer");
  store().say("remove", "/goes");
  store().say("putFile", "/comes", "x");
  store().announce();
  EXPECT_TRUE(waitUntil([&] { return ::access((store() / "comes").c_str(), F_OK) == 0; }));
  // Without opening it, which alone would have the kernel look again; and though the old version is still in use.
  EXPECT_TRUE(waitUntil([&] { return statusOf(store() / "changes").st_size == 17; }));
  EXPECT_THAT(namesIn(store().mountPoint()), UnorderedElementsAre("changes", "comes"));
  EXPECT_EQ(errnoOf([&] { return ::access((store() / "goes").c_str(), F_OK); }), ENOENT);
  EXPECT_EQ(contentsOf(store() / "changes"), "after, and longer");
  EXPECT_EQ(statusOf(store() / "changes").st_ino, inode);
  const auto newTime = statusOf(store().mountPoint()).st_mtim;
  EXPECT_TRUE(newTime.tv_sec != folderTime.tv_sec || newTime.tv_nsec != folderTime.tv_nsec);
}

TEST_F(MountTest, ANameThatNobodyLookedForShowsInAListingThatTheKernelKept) {
  store().say("putFile", "/a", "x");
  for (int round = 0; round < 2; ++round)
    EXPECT_THAT(namesIn(store().mountPoint()), ElementsAre("a"));
  store().say("putFile", "/b", "x");
  store().announce();
  EXPECT_TRUE(waitUntil([&] { return namesIn(store().mountPoint()).size() == 2; }));
}

TEST_F(MountTest, RenamesShowAndKeepTheInode) {
  store().say("putFolder", "/old");
  store().say("putFile", "/old/a", "x");
  const auto inode = statusOf(store() / "old/a").st_ino;
  store().say("rename", "/old", "/new");
  store().announce();
  EXPECT_TRUE(waitUntil([&] { return ::access((store() / "new").c_str(), F_OK) == 0; }));
  EXPECT_EQ(statusOf(store() / "new/a").st_ino, inode);
  EXPECT_EQ(errnoOf([&] { return ::access((store() / "old").c_str(), F_OK); }), ENOENT);
}

TEST_F(MountTest, TheBytesOfTwoVersionsAreNeverMixed) {
  constexpr std::size_t kSize = 4U << 20U;
  constexpr std::size_t kPart = 64U << 10U;
  store().say("putBigFile", "/a", kSize);
  const OpenedFile old(store() / "a");
  EXPECT_TRUE(old.bytes(0, kPart) == std::string(kPart, 'x'));
  store().say("overwrite", "/a", std::string(kSize, 'y'));
  store().announce();
  ASSERT_TRUE(waitUntil([&] { return OpenedFile(store() / "a").bytes(kSize - 1, 1) == "y"; }));
  // Now in turn, so that each fills the kernel's cache before the other reads.
  const OpenedFile fresh(store() / "a");
  for (std::size_t at = 0; at < kSize; at += kPart) {
    const auto& first = at / kPart % 2 == 0 ? old : fresh;
    const auto& second = at / kPart % 2 == 0 ? fresh : old;
    const std::string one = first.bytes(at, kPart);
    const std::string two = second.bytes(at, kPart);
    ASSERT_TRUE((&first == &old ? one : two) == std::string(kPart, 'x')) << at;
    ASSERT_TRUE((&first == &old ? two : one) == std::string(kPart, 'y')) << at;
  }
  void* const map = ::mmap(nullptr, kSize, PROT_READ, MAP_SHARED, old.number(), 0);
  ASSERT_NE(map, MAP_FAILED);
  EXPECT_EQ(std::string_view(static_cast<const char*>(map), kSize).find_first_not_of('x'),
            std::string_view::npos);
  ::munmap(map, kSize);
  EXPECT_EQ(asked("contents", "/a"), 2);
}

TEST_F(MountTest, TheSizeFollowsWhatIsServed) {
  std::string longer(300'000, 'l');
  longer += "the end";
  store().say("putFileListedAs", "/grew", longer, 10);
  store().say("putFileListedAs", "/shrank", "short", 500'000);
  store().say("putFileListedAs", "/empty", "not empty", 0);
  EXPECT_EQ(statusOf(store() / "grew").st_size, 10);
  EXPECT_TRUE(contentsOf(store() / "grew") == longer);
  EXPECT_TRUE(contentsOf(store() / "shrank") == "short");
  EXPECT_EQ(OpenedFile(store() / "empty").bytes(0, 100), "not empty");
  EXPECT_EQ(contentsOf(store() / "empty"), "not empty");
  EXPECT_EQ(static_cast<std::size_t>(statusOf(store() / "grew").st_size), longer.size());
  EXPECT_EQ(statusOf(store() / "shrank").st_size, 5);
}

TEST_F(MountTest, FailuresHaveTheirErrno) {
  store().say("putFile", "/a", "hello");
  store().say("putFolder", "/docs");
  store().say("failWithServerUnreachable", "contents", "/a");
  store().say("failWithServerUnreachable", "items", "/docs");
  const OpenedFile file(store() / "a");
  char byte = 0;
  EXPECT_EQ(errnoOf([&] { return ::pread(file.number(), &byte, 1, 0); }), EHOSTUNREACH);
  EXPECT_EQ(asked("contents", "/a"), 1);
  EXPECT_EQ(errnoOf([&] { return ::open((store() / "docs").c_str(), O_RDONLY | O_DIRECTORY); }),
            EHOSTUNREACH);
  EXPECT_EQ(errnoOf([&] { return ::access((store() / "docs/a").c_str(), F_OK); }), EHOSTUNREACH);
}

TEST_F(MountTest, ChangesAreTakenAndSeenAtOnce) {
  store().say("putFile", "/a", "hello");
  const std::string a = store() / "a";
  const auto inode = statusOf(a).st_ino;
  std::ofstream(a, std::ios::app) << ", world";
  EXPECT_EQ(contentsOf(a), "hello, world");
  EXPECT_EQ(errnoOf([&] { return ::mkdir((a + "3").c_str(), 0700); }), 0);
  EXPECT_EQ(errnoOf([&] { return ::rename(a.c_str(), (a + "3/b").c_str()); }), 0);
  EXPECT_EQ(statusOf(a + "3/b").st_ino, inode);
  EXPECT_EQ(errnoOf([&] { return ::truncate((a + "3/b").c_str(), 2); }), 0);
  EXPECT_EQ(contentsOf(a + "3/b"), "he");
  EXPECT_EQ(errnoOf([&] { return ::chmod((a + "3/b").c_str(), 0700); }), 0);
  EXPECT_EQ(statusOf(a + "3/b").st_mode, S_IFREG | 0755U);
  EXPECT_EQ(errnoOf([&] { return ::rmdir((a + "3").c_str()); }), ENOTEMPTY);
  EXPECT_EQ(errnoOf([&] { return ::unlink((a + "3/b").c_str()); }), 0);
  EXPECT_EQ(errnoOf([&] { return ::rmdir((a + "3").c_str()); }), 0);
  EXPECT_TRUE(namesIn(store().mountPoint()).empty());
}

TEST_F(MountTest, TheFileSystemDescribesItself) {
  store().say("putFile", "/a", "hello");
  struct statvfs status = {};
  ASSERT_EQ(::statvfs(store().mountPoint().c_str(), &status), 0);
  EXPECT_EQ(status.f_namemax, 255U);
  EXPECT_GT(status.f_bavail * status.f_frsize, 1ULL << 50U);
  EXPECT_EQ(status.f_flag & ST_RDONLY, 0U);
  EXPECT_NE(status.f_flag & ST_NOSUID, 0U);
  EXPECT_NE(status.f_flag & ST_NODEV, 0U);
  char value = 0;
  EXPECT_EQ(errnoOf([&] { return ::getxattr((store() / "a").c_str(), "user.x", &value, 1); }),
            ENOTSUP);
}

}  // namespace
}  // namespace kestrune::mounttest
