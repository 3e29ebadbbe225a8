// The host is replaced while programs have files open and wait for something.

#include <dirent.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/mount/LiveRestart.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;
using testing::HasSubstr;

std::string randomBytes(std::size_t count) {
  std::mt19937 random(1);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// An open file of the test's own.
class OpenFile {
 public:
  OpenFile(const fs::path& path, int flags)
      : number_(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    EXPECT_GE(number_, 0) << path << ": " << std::strerror(errno);
  }
  ~OpenFile() { ::close(number_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  int number() const { return number_; }
  std::string read(std::size_t from, std::size_t length) const {
    std::string bytes(length, '\0');
    const ssize_t got = ::pread(number_, bytes.data(), length, static_cast<off_t>(from));
    EXPECT_GE(got, 0) << std::strerror(errno);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }
  void write(std::size_t at, const std::string& bytes) const {
    EXPECT_EQ(::pwrite(number_, bytes.data(), bytes.size(), static_cast<off_t>(at)),
              static_cast<ssize_t>(bytes.size()))
        << std::strerror(errno);
  }
  struct stat status() const {
    struct stat status = {};
    EXPECT_EQ(::fstat(number_, &status), 0) << std::strerror(errno);
    return status;
  }

 private:
  const int number_;
};

ino_t inodeOf(const fs::path& path) {
  struct stat status = {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_ino;
}

// The names of one call of the system, with a buffer that has room for a few.
std::vector<std::string> someNames(int folder) {
  std::array<char, 512> buffer{};
  const auto got = ::syscall(SYS_getdents64, folder, buffer.data(), buffer.size());
  EXPECT_GE(got, 0) << std::strerror(errno);
  std::vector<std::string> names;
  for (long at = 0; at < got;) {
    const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
    names.emplace_back(&entry->d_name[0]);
    at += entry->d_reclen;
  }
  return names;
}

std::size_t descriptorCount(pid_t process) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry :
       fs::directory_iterator("/proc/" + std::to_string(process) + "/fd"))
    ++count;
  return count;
}

TEST_F(LiveRestartTest, NothingShowsThatTheHostIsAnother) {
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  const ino_t inode = inodeOf(mount() / "docs/a.txt");
  const ino_t folder = inodeOf(mount() / "docs");
  const ino_t unread = inodeOf(mount() / "docs/b.txt");
  for (int i = 0; i < 3; ++i) restart();
  EXPECT_EQ(inodeOf(mount() / "docs/a.txt"), inode);
  EXPECT_EQ(inodeOf(mount() / "docs"), folder);
  EXPECT_EQ(inodeOf(mount() / "docs/b.txt"), unread);
  EXPECT_EQ(contentsOf(mount() / "docs/a.txt"), "hello");
  EXPECT_EQ(contentsOf(mount() / "docs/b.txt"), "other");
  mount().end(SIGTERM);
  EXPECT_FALSE(mount().isServed());
}

TEST_F(LiveRestartTest, NoDescriptorIsLeftToTheNext) {
  restart();
  const std::size_t before = descriptorCount(mount().host().pid());
  for (int i = 0; i < 5; ++i) restart();
  // Connections to the service come and go.
  EXPECT_TRUE(waitUntil([&] { return descriptorCount(mount().host().pid()) <= before; },
                        std::chrono::seconds(5)))
      << descriptorCount(mount().host().pid()) << " instead of " << before;
}

TEST_F(LiveRestartTest, OpenFilesAreReadAndWrittenOn) {
  std::ofstream(mount() / "docs/edited.txt") << "0123456789";
  const OpenFile reader(mount() / "docs/a.txt", O_RDONLY);  // not read yet
  const OpenFile writer(mount() / "docs/edited.txt", O_RDWR);
  const OpenFile appender(mount() / "docs/b.txt", O_WRONLY | O_APPEND);
  const OpenFile fresh(mount() / "docs/fresh.txt", O_RDWR | O_CREAT);
  writer.write(2, "ab");
  fresh.write(0, "new");
  const ino_t inode = writer.status().st_ino;
  restart();
  EXPECT_EQ(reader.read(0, 100), "hello");
  EXPECT_EQ(writer.read(0, 100), "01ab456789");
  EXPECT_EQ(fresh.read(0, 100), "new");
  writer.write(4, "cd");
  fresh.write(3, " and more");
  EXPECT_EQ(::write(appender.number(), "!", 1), 1);
  EXPECT_EQ(::fsync(fresh.number()), 0);
  restart();
  EXPECT_EQ(writer.read(0, 100), "01abcd6789");
  EXPECT_EQ(writer.status().st_ino, inode);
  EXPECT_EQ(::ftruncate(writer.number(), 5), 0);
  EXPECT_EQ(fresh.status().st_size, 12);
  EXPECT_EQ(contentsOf(mount() / "docs/fresh.txt"), "new and more");
  EXPECT_EQ(contentsOf(mount() / "docs/edited.txt"), "01abc");
  EXPECT_EQ(contentsOf(mount() / "docs/b.txt"), "other!");
}

TEST_F(LiveRestartTest, WhatWasWrittenBeforeAndAfterGetsToTheStoreWhenItIsClosed) {
  {
    const OpenFile fresh(mount() / "fresh.txt", O_RDWR | O_CREAT);
    fresh.write(0, "before");
    restart();
    fresh.write(6, " and after");
  }
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
  EXPECT_EQ(contentsOf(service().root() / "fresh.txt"), "before and after");
}

TEST_F(LiveRestartTest, ARemovedFileGoesOnUntilItIsClosed) {
  const OpenFile made(mount() / "made", O_RDWR | O_CREAT);
  const OpenFile known(mount() / "docs/a.txt", O_RDWR);
  made.write(0, "one");
  known.write(0, "J");
  fs::remove(mount() / "made");
  fs::remove(mount() / "docs/a.txt");
  for (int i = 0; i < 2; ++i) {
    restart();
    EXPECT_EQ(made.read(0, 100), "one");
    EXPECT_EQ(known.read(0, 100), "Jello");
    EXPECT_EQ(made.status().st_nlink, 0U);
  }
  made.write(3, "two");
  known.write(5, "!");
  EXPECT_EQ(made.read(0, 100), "onetwo");
  EXPECT_EQ(known.read(0, 100), "Jello!");
  // The store is told of the removal meanwhile; both stay for who has them open.
  EXPECT_TRUE(waitUntil([this] { return !fs::exists(service().root() / "docs/a.txt"); }));
  restart();
  EXPECT_EQ(known.read(0, 100), "Jello!");
  EXPECT_FALSE(fs::exists(mount() / "made"));
}

TEST_F(LiveRestartTest, ARemovedFilesContentsGoWithItsLastUser) {
  {
    const OpenFile made(mount() / "made", O_RDWR | O_CREAT);
    made.write(0, "one");
    fs::remove(mount() / "made");
    restart();
    EXPECT_FALSE(fs::is_empty(mount().replica() / "contents"));
  }
  EXPECT_TRUE(waitUntil([this] { return fs::is_empty(mount().replica() / "contents"); }));
}

TEST_F(LiveRestartTest, WhoReadsAnOldVersionFinishesOnIt) {
  const std::string old = randomBytes(300'000);
  putAtStore("docs/large.bin", old);
  const OpenFile reader(mount() / "docs/large.bin", O_RDWR);  // not left to the kernel
  EXPECT_EQ(reader.read(0, 1'000'000), old);
  putAtStore("docs/large.bin", "changed");
  EXPECT_EQ(contentsOf(mount() / "docs/large.bin"), "changed");
  for (int i = 0; i < 2; ++i) {
    restart();
    ASSERT_EQ(::posix_fadvise(reader.number(), 0, 0, POSIX_FADV_DONTNEED), 0);
    EXPECT_EQ(reader.read(0, 1'000'000), old);
    EXPECT_EQ(contentsOf(mount() / "docs/large.bin"), "changed");
  }
}

TEST_F(LiveRestartTest, AFolderIsReadOnWhereItWas) {
  std::set<std::string> expected = {".", ".."};
  fs::create_directory(mount() / "many");
  for (int i = 0; i < 300; ++i) {
    const std::string name = "file " + std::to_string(i);
    std::ofstream(mount() / ("many/" + name)) << i;
    expected.insert(name);
  }
  const OpenFile folder(mount() / "many", O_RDONLY | O_DIRECTORY);
  std::multiset<std::string> found;
  for (int i = 0; i < 4; ++i)
    for (const auto& name : someNames(folder.number())) found.insert(name);
  EXPECT_LT(found.size(), 100U);
  restart();
  for (auto names = someNames(folder.number()); !names.empty(); names = someNames(folder.number()))
    found.insert(names.begin(), names.end());
  EXPECT_EQ(found.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), expected);
}

TEST_F(LiveRestartTest, AMappedFileIsReadAndWrittenOn) {
  const std::string bytes = randomBytes(1'000'000);
  std::ofstream(mount() / "mapped") << bytes;
  const OpenFile file(mount() / "mapped", O_RDWR);
  void* const map =
      ::mmap(nullptr, bytes.size(), PROT_READ | PROT_WRITE, MAP_SHARED, file.number(), 0);
  ASSERT_NE(map, MAP_FAILED);
  auto* const text = static_cast<char*>(map);
  EXPECT_EQ(text[10], bytes[10]);
  text[20] = 'x';
  restart();
  ASSERT_EQ(::posix_fadvise(file.number(), 0, 0, POSIX_FADV_DONTNEED), 0);
  EXPECT_EQ(text[700'000], bytes[700'000]);
  EXPECT_EQ(text[20], 'x');
  text[800'000] = 'y';
  ASSERT_EQ(::msync(map, bytes.size(), MS_SYNC), 0);
  ::munmap(map, bytes.size());
  std::string expected = bytes;
  expected[20] = 'x';
  expected[800'000] = 'y';
  EXPECT_EQ(contentsOf(mount() / "mapped"), expected);
}

TEST_F(LiveRestartTest, AFileThatTheKernelReadsIsReadOn) {
  const std::string bytes = randomBytes(1'000'000);
  putAtStore("docs/whole.bin", bytes);
  EXPECT_EQ(contentsOf(mount() / "docs/whole.bin"), bytes);
  auto reader = std::make_unique<OpenFile>(mount() / "docs/whole.bin", O_RDONLY);
  EXPECT_EQ(reader->read(0, 100), bytes.substr(0, 100));
  const bool isByKernel =
      mount().control("status").output.find("by the kernel itself") != std::string::npos;
  for (int i = 0; i < 3; ++i) {
    restart();
    const OpenFile second(mount() / "docs/whole.bin", O_RDONLY);
    EXPECT_EQ(reader->read(500'000, 600'000), bytes.substr(500'000));
    EXPECT_EQ(second.read(0, bytes.size()), bytes);
    if (isByKernel)
      EXPECT_THAT(mount().control("status").output, HasSubstr("by the kernel itself"));
  }
  // The kernel would refuse to have the node open in both ways.
  const OpenFile writer(mount() / "docs/whole.bin", O_RDWR);
  writer.write(0, "changed");
  EXPECT_EQ(reader->read(0, 7), "changed");
  reader.reset();
  EXPECT_EQ(writer.read(0, 7), "changed");
}

TEST_F(LiveRestartTest, CopiesThatRunMeanwhileEndWithTheRightBytes) {
  const std::string bytes = randomBytes(150'000'000);
  std::ofstream(outside() / "local.bin") << bytes;
  putAtStore("docs/cold.bin", bytes);
  Child out({"cp", mount() / "docs/cold.bin", outside() / "copied out"});
  Child in({"cp", outside() / "local.bin", mount() / "copied in"});
  for (int i = 0; i < 8; ++i) {
    restart();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
  }
  EXPECT_EQ(out.waitForEnd(std::chrono::seconds(60)), 0);
  EXPECT_EQ(in.waitForEnd(std::chrono::seconds(60)), 0);
  EXPECT_TRUE(contentsOf(outside() / "copied out") == bytes);
  EXPECT_TRUE(contentsOf(mount() / "copied in") == bytes);
  EXPECT_EQ(waitUntilSent(service(), mount()), "");
}

TEST_F(LiveRestartTest, WhoWaitsForTheStoreGoesOnWaiting) {
  fs::create_directory(service().root() / "unseen");
  std::ofstream(service().root() / "unseen/file") << "x";
  putAtStore("docs/cold.txt", "cold");
  ASSERT_TRUE(waitUntil([this] { return fs::exists(mount() / "unseen"); }));
  service().signal(SIGSTOP);
  Child reader({"cat", mount() / "docs/cold.txt"});
  Child looker({"stat", "-c", "%s", mount() / "unseen/file"});
  Child lister({"ls", mount() / "unseen"});
  EXPECT_FALSE(reader.waitForEnd(std::chrono::milliseconds(300)).has_value());
  for (int i = 0; i < 2; ++i) {
    const auto began = std::chrono::steady_clock::now();
    restart();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
  }
  EXPECT_FALSE(reader.waitForEnd(std::chrono::milliseconds(100)).has_value());
  service().signal(SIGCONT);
  EXPECT_EQ(reader.waitForEnd(), 0);
  EXPECT_EQ(looker.waitForEnd(), 0);
  EXPECT_EQ(lister.waitForEnd(), 0);
  EXPECT_EQ(lister.readLine(), "file");
}

TEST_F(LiveRestartTest, WhoWaitsForTheStoreCanBeInterruptedAfterwards) {
  putAtStore("docs/cold.txt", "cold");
  service().signal(SIGSTOP);
  Child reader({"cat", mount() / "docs/cold.txt"});
  EXPECT_FALSE(reader.waitForEnd(std::chrono::milliseconds(300)).has_value());
  restart();
  reader.signal(SIGINT);
  EXPECT_TRUE(reader.waitForEnd(std::chrono::seconds(2)).has_value());
  service().signal(SIGCONT);
}

TEST_F(LiveRestartTest, WhoIsStoppedMeanwhileGoesOnOrCanBeEnded) {
  fs::create_directory(service().root() / "unseen");
  std::ofstream(service().root() / "unseen/file") << "x";
  ASSERT_TRUE(waitUntil([this] { return fs::exists(mount() / "unseen"); }));
  service().signal(SIGSTOP);
  Child continued({"ls", mount() / "unseen"});
  Child killed({"ls", mount() / "unseen"});
  EXPECT_FALSE(continued.waitForEnd(std::chrono::milliseconds(300)).has_value());
  for (Child* child : {&continued, &killed}) child->signal(SIGSTOP);
  EXPECT_FALSE(killed.waitForEnd(std::chrono::milliseconds(200)).has_value());
  for (int i = 0; i < 2; ++i) restart();
  killed.signal(SIGKILL);  // of which the kernel does not tell any more
  EXPECT_TRUE(killed.waitForEnd(std::chrono::seconds(2)).has_value());
  continued.signal(SIGCONT);
  EXPECT_FALSE(continued.waitForEnd(std::chrono::milliseconds(300)).has_value());
  service().signal(SIGCONT);
  EXPECT_EQ(continued.waitForEnd(), 0);
}

TEST_F(LiveRestartTest, TheProgramThatLiesThereNowTakesOver) {
  const fs::path program = moveProgram();
  const OpenFile reader(mount() / "docs/a.txt", O_RDONLY);
  const pid_t process = mount().host().pid();
  fs::copy_file(program, outside() / "next");
  fs::rename(outside() / "next", program);
  restart();
  EXPECT_TRUE(fs::equivalent("/proc/" + std::to_string(process) + "/exe", program));
  EXPECT_EQ(reader.read(0, 100), "hello");
}

}  // namespace
}  // namespace kestrune::mounttest
