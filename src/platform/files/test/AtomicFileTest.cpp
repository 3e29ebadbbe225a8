#include "platform/files/AtomicFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <set>
#include <thread>

#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;

class AtomicFileTest : public testing::Test {
 protected:
  AtomicFileTest() : folder_(fs::path(testing::TempDir()) / ("atomic-" + newUUIDString())) {
    fs::create_directories(folder_);
  }
  ~AtomicFileTest() override { fs::remove_all(folder_); }

  fs::path at(const fs::path& name) const { return folder_ / name; }

  void write(const fs::path& path, std::string_view contents) const {
    std::ofstream(path, std::ios::binary)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
  }

  std::string contentsOf(const fs::path& path) const {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::set<std::string> names() const {
    std::set<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder_))
      found.insert(entry.path().filename().string());
    return found;
  }

  /// The errno of the NSPOSIXError that `action` throws, which must name `path`; 0 and a failure if
  /// it throws none.
  template <class Action>
  std::int64_t failure(const fs::path& path, const Action& action) const {
    try {
      action();
    } catch (const NSPOSIXError& error) {
      EXPECT_THAT(error.localizedDescription(), testing::HasSubstr(path.string()));
      return error.code();
    }
    ADD_FAILURE() << "nothing was thrown for " << path;
    return 0;
  }

  std::int64_t replaceFailure(const fs::path& path) const {
    return failure(path, [&] { replaceFile(path, "new", Durability::durable); });
  }
  std::int64_t readFailure(const fs::path& path, std::uint64_t limit = 1000) const {
    return failure(path, [&] { readFile(path, limit); });
  }

  const fs::path folder_;
};

TEST_F(AtomicFileTest, ContentsComeBackUnchanged) {
  std::string everyByte;
  for (int i = 0; i < 256; ++i) everyByte.push_back(static_cast<char>(i));
  for (const auto durability : {Durability::atomic, Durability::durable}) {
    for (const std::string& contents :
         {std::string(), std::string("x"), everyByte, std::string(4095, 'a'),
          std::string(4096, 'b'), std::string(4097, 'c'), std::string(3'000'000, 'd')}) {
      replaceFile(at("file"), contents, durability);
      EXPECT_EQ(contentsOf(at("file")), contents);
      EXPECT_EQ(readFile(at("file")), contents);
      EXPECT_EQ(names(), std::set<std::string>{"file"});
    }
  }
}

TEST_F(AtomicFileTest, NamesMayBeAnyBytes) {
  for (const std::string& name : {std::string(255, 'n'), std::string("\xFF\xFE"),
                                  std::string("a\nb"), std::string(" "), std::string("...")}) {
    replaceFile(at(name), name, Durability::atomic);
    EXPECT_EQ(readFile(at(name)), name);
  }
}

TEST_F(AtomicFileTest, ReplacedFileIsTheUsersAlone) {
  write(at("file"), "old");
  fs::permissions(at("file"), fs::perms(0644));
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{0777}}) {
    const mode_t before = ::umask(mask);
    replaceFile(at("file"), "new", Durability::atomic);
    ::umask(before);
    EXPECT_EQ(fs::status(at("file")).permissions(), fs::perms(0600)) << mask;
  }
}

TEST_F(AtomicFileTest, LinkIsReplacedNotFollowed) {
  write(at("target"), "old");
  fs::create_symlink("target", at("link"));
  replaceFile(at("link"), "new", Durability::atomic);
  EXPECT_FALSE(fs::is_symlink(fs::symlink_status(at("link"))));
  EXPECT_EQ(contentsOf(at("link")), "new");
  EXPECT_EQ(contentsOf(at("target")), "old");
}

TEST_F(AtomicFileTest, OtherNamesOfTheOldFileKeepItsContents) {
  write(at("file"), "old");
  fs::create_hard_link(at("file"), at("other"));
  replaceFile(at("file"), "new", Durability::atomic);
  EXPECT_EQ(contentsOf(at("other")), "old");
  EXPECT_EQ(contentsOf(at("file")), "new");
}

TEST_F(AtomicFileTest, RelativePathIsBelowTheWorkingDirectory) {
  fs::current_path(folder_);
  replaceFile("file", "new", Durability::durable);
  EXPECT_EQ(contentsOf(at("file")), "new");
  EXPECT_EQ(readFile("file"), "new");
}

TEST_F(AtomicFileTest, ReplacingWhatCannotBeReplacedLeavesNothingBehind) {
  fs::create_directory(at("folder"));
  write(at("file"), "old");
  EXPECT_EQ(replaceFailure(at("folder")), EISDIR);
  EXPECT_EQ(replaceFailure(at("missing/file")), ENOENT);
  EXPECT_EQ(replaceFailure(at("file/below")), ENOTDIR);
  EXPECT_EQ(replaceFailure(at(std::string(256, 'n'))), ENAMETOOLONG);
  EXPECT_EQ(replaceFailure(at(std::string("fi\0le", 5))), EINVAL);
  EXPECT_NE(replaceFailure(at("file/")), 0);
  EXPECT_NE(replaceFailure(at("new/")), 0);
  EXPECT_NE(replaceFailure(at(".")), 0);
  EXPECT_NE(replaceFailure(at("..")), 0);
  EXPECT_EQ(names(), (std::set<std::string>{"file", "folder"}));
  EXPECT_TRUE(fs::is_empty(at("folder")));
  EXPECT_EQ(contentsOf(at("file")), "old");
}

TEST_F(AtomicFileTest, WhatKilledProcessesLeftIsRemovedWhenItIsOld) {
  const std::string id = newUUIDString();
  const auto age = [&](const std::string& name, std::chrono::seconds seconds) {
    fs::last_write_time(at(name), fs::file_time_type::clock::now() - seconds);
  };
  for (const std::string& name : {".kestrune-" + id + ".tmp", std::string(".kestrune-young.tmp"),
                                  ".kestrune-" + id, id + ".tmp", std::string("config.json")}) {
    write(at(name), "x");
    age(name, std::chrono::seconds(61));
  }
  age(".kestrune-young.tmp", std::chrono::seconds(50));
  fs::create_directory(at(".kestrune-folder.tmp"));
  age(".kestrune-folder.tmp", std::chrono::seconds(61));
  removeAbandonedReplacements(folder_, std::chrono::seconds(60));
  EXPECT_THAT(names(),
              testing::UnorderedElementsAre(".kestrune-young.tmp", ".kestrune-" + id, id + ".tmp",
                                            "config.json", ".kestrune-folder.tmp"));
  removeAbandonedReplacements(at("missing"), std::chrono::seconds(60));
}

TEST_F(AtomicFileTest, EmptyPathIsRefused) {
  fs::current_path(folder_);
  EXPECT_EQ(replaceFailure(""), ENOENT);
  EXPECT_EQ(readFailure(""), ENOENT);
  EXPECT_TRUE(names().empty());
}

TEST_F(AtomicFileTest, WriteThatFailsHalfwayKeepsTheOldFile) {
  write(at("file"), "old");
  // The system refuses what goes beyond the limit after it took what lies below it, like a full
  // disk.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit limit{100'000, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(
      failure(at("file"),
              [&] { replaceFile(at("file"), std::string(100'001, 'x'), Durability::atomic); }),
      EFBIG);
  EXPECT_EQ(names(), std::set<std::string>{"file"});
  EXPECT_EQ(contentsOf(at("file")), "old");
  EXPECT_NO_THROW(replaceFile(at("file"), std::string(100'000, 'x'), Durability::atomic));
  ::setrlimit(RLIMIT_FSIZE, &before);
}

TEST_F(AtomicFileTest, ReadersSeeOneWholeFileWhileWritersRace) {
  const std::string contents[] = {std::string(50'000, 'a'), std::string(80'000, 'b')};
  replaceFile(at("file"), contents[0], Durability::atomic);
  std::atomic<bool> done = false;
  std::vector<std::thread> writers;
  writers.reserve(2);
  for (const std::string& mine : contents) {
    writers.emplace_back([&] {
      for (int i = 0; i < 100; ++i) replaceFile(at("file"), mine, Durability::atomic);
    });
  }
  std::thread reader([&] {
    while (!done) {
      const std::string seen = readFile(at("file"));
      EXPECT_TRUE(seen == contents[0] || seen == contents[1]) << seen.size();
    }
  });
  for (auto& writer : writers) writer.join();
  done = true;
  reader.join();
  EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_F(AtomicFileTest, LimitIsTheLargestSizeThatIsRead) {
  for (const std::uint64_t size : {0ULL, 1ULL, 4096ULL, 100'000ULL}) {
    const std::string contents(size, 'x');
    write(at("file"), contents);
    EXPECT_EQ(readFile(at("file"), size), contents);
    EXPECT_EQ(readFile(at("file"), std::numeric_limits<std::uint64_t>::max()), contents);
    if (size > 0) EXPECT_EQ(readFailure(at("file"), size - 1), EFBIG) << size;
  }
}

TEST_F(AtomicFileTest, HugeSparseFileIsRefusedUnread) {
  write(at("file"), "");
  fs::resize_file(at("file"), 1ULL << 40U);
  EXPECT_EQ(readFailure(at("file"), 64ULL << 20U), EFBIG);
}

TEST_F(AtomicFileTest, FilesWhoseSizeIsUnknownAreReadToTheirEnd) {
  // Files of procfs say that they are empty.
  ASSERT_EQ(fs::file_size("/proc/self/status"), 0U);
  EXPECT_THAT(readFile("/proc/self/status"), testing::HasSubstr("Pid:"));
  EXPECT_EQ(readFailure("/proc/self/status", 10), EFBIG);
}

TEST_F(AtomicFileTest, FileThatGrowsWhileItIsReadStaysWithinTheLimit) {
  write(at("file"), std::string(1000, 'x'));
  std::atomic<bool> written = false;
  std::thread writer([&] {
    std::ofstream file(at("file"), std::ios::app | std::ios::binary);
    const std::string more(10'000, 'x');
    for (int i = 0; i < 1000; ++i) file << more << std::flush;
    written = true;
  });
  constexpr std::uint64_t kLimit = 2'000'000;
  bool refused = false;
  bool last = false;
  while (!refused && !last) {
    last = written;
    try {
      const std::string seen = readFile(at("file"), kLimit);
      EXPECT_LE(seen.size(), kLimit);
      EXPECT_EQ(seen.find_first_not_of('x'), std::string::npos);
    } catch (const NSPOSIXError& error) {
      EXPECT_EQ(error.code(), EFBIG);
      refused = true;
    }
  }
  writer.join();
  EXPECT_TRUE(refused);
}

TEST_F(AtomicFileTest, OnlyRegularFilesAreRead) {
  fs::create_directory(at("folder"));
  EXPECT_EQ(readFailure(at("folder")), EISDIR);
  EXPECT_EQ(readFailure("/dev/null"), EINVAL);
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  EXPECT_EQ(readFailure(at("pipe")), EINVAL);
  const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  fs::current_path(folder_);  // a socket's path is short
  std::string_view("socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(readFailure(at("socket")), ENXIO);
  ::close(server);
  fs::create_symlink("loop", at("loop"));
  EXPECT_EQ(readFailure(at("loop")), ELOOP);
}

TEST_F(AtomicFileTest, MissingFilesAreAnError) {
  write(at("file"), "x");
  EXPECT_EQ(readFailure(at("missing")), ENOENT);
  EXPECT_EQ(readFailure(at("file/below")), ENOTDIR);
  EXPECT_EQ(readFailure(at("file/")), ENOTDIR);
  EXPECT_EQ(readFailure(at(std::string("file\0x", 6))), EINVAL);
}

TEST_F(AtomicFileTest, LinkIsFollowedWhenRead) {
  write(at("target"), "contents");
  fs::create_symlink("target", at("link"));
  EXPECT_EQ(readFile(at("link")), "contents");
}

TEST_F(AtomicFileTest, NoDescriptorIsLeftOpen) {
  const auto openDescriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  write(at("file"), "x");
  const auto before = openDescriptors();
  replaceFile(at("file"), "y", Durability::durable);
  replaceFailure(at("missing/file"));
  replaceFailure(at("."));
  readFile(at("file"));
  readFailure(at("file"), 0);
  readFailure(folder_);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kestrune::platform
