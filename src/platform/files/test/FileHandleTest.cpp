#include "platform/files/FileHandle.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/values/NSError.h"
#include "platform/values/UUID.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;

class FileHandleTest : public testing::Test {
 protected:
  FileHandleTest() : folder_(fs::path(testing::TempDir()) / ("handle-" + newUUIDString())) {
    fs::create_directories(folder_);
  }
  ~FileHandleTest() override { fs::remove_all(folder_); }

  fs::path at(const fs::path& name) const { return folder_ / name; }

  fs::path written(const fs::path& name, std::string_view contents) const {
    std::ofstream(at(name), std::ios::binary)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
    return at(name);
  }
  static std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  /// Up to `count` bytes from the handle's position on.
  static std::string readFrom(FileHandle& handle, std::size_t count) {
    std::string bytes(count, '?');
    bytes.resize(handle.read(bytes));
    return bytes;
  }
  static std::size_t openDescriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  /// The errno of the NSPOSIXError that `action` throws, which must name `path`; 0 and a failure if
  /// it throws none.
  template <class Action>
  static std::int64_t failure(const fs::path& path, const Action& action) {
    try {
      action();
    } catch (const NSPOSIXError& error) {
      EXPECT_THAT(error.localizedDescription(), testing::HasSubstr("'" + path.string() + "'"));
      return error.code();
    }
    ADD_FAILURE() << "nothing was thrown for " << path;
    return 0;
  }

  const fs::path folder_;
};

TEST_F(FileHandleTest, ReadsOnFromItsPositionUntilTheEnd) {
  FileHandle handle = FileHandle::forReading(written("file", "hello world"));
  EXPECT_EQ(readFrom(handle, 5), "hello");
  EXPECT_EQ(readFrom(handle, 0), "");
  EXPECT_EQ(readFrom(handle, 3), " wo");
  EXPECT_EQ(readFrom(handle, 100), "rld");
  EXPECT_EQ(readFrom(handle, 100), "");
}

TEST_F(FileHandleTest, SeeksAnywhereAtOrAfterTheBeginning) {
  FileHandle handle = FileHandle::forReading(written("file", "hello world"));
  handle.seek(6);
  EXPECT_EQ(readFrom(handle, 100), "world");
  handle.seek(0);
  EXPECT_EQ(readFrom(handle, 2), "he");
  handle.seek(11);
  EXPECT_EQ(readFrom(handle, 100), "");
  handle.seek(1'000'000'000'000);  // beyond the end, where nothing is
  EXPECT_EQ(readFrom(handle, 100), "");
  handle.seek(9);
  EXPECT_EQ(failure(at("file"), [&] { handle.seek(-1); }), EINVAL);
  EXPECT_EQ(readFrom(handle, 100), "ld") << "a failed seek moves nothing";
}

TEST_F(FileHandleTest, AnExistingFileIsNeededForReading) {
  EXPECT_EQ(failure(at("missing"), [&] { FileHandle::forReading(at("missing")); }), ENOENT);
  written("file", "x");
  EXPECT_EQ(failure(at("file") / "below", [&] { FileHandle::forReading(at("file") / "below"); }),
            ENOTDIR);
}

TEST_F(FileHandleTest, ADirectoryCannotBeRead) {
  FileHandle handle = FileHandle::forReading(folder_);
  EXPECT_EQ(failure(folder_, [&] { readFrom(handle, 10); }), EISDIR);
}

TEST_F(FileHandleTest, APipeWithoutAWriterIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
  FileHandle handle = FileHandle::forReading(at("pipe"));
  EXPECT_EQ(failure(at("pipe"), [&] { handle.seek(0); }), ESPIPE);
}

TEST_F(FileHandleTest, WritesOnFromItsPosition) {
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  EXPECT_EQ(contentsOf(at("new")), "");
  handle.write("hello");
  handle.write("");
  handle.write(" world");
  EXPECT_EQ(contentsOf(at("new")), "hello world");  // nothing waits in a buffer
  handle.seek(6);
  handle.write("there");
  handle.seek(13);
  handle.write("!");
  handle.close();
  EXPECT_EQ(contentsOf(at("new")), std::string("hello there\0\0!", 14));
}

TEST_F(FileHandleTest, WritesWhatLiesInSeveralPlacesInOrder) {
  const std::string large(200'000, 'l');
  const std::vector<std::string_view> pieces = {"a", "", large, "z"};
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  handle.write(pieces);
  handle.write(std::vector<std::string_view>());
  handle.close();
  EXPECT_EQ(contentsOf(at("new")), "a" + large + "z");
}

TEST_F(FileHandleTest, ANewFileIsTheUsersAlone) {
  const mode_t before = ::umask(0);
  FileHandle::forWritingNew(at("new"));
  ::umask(before);
  EXPECT_EQ(fs::status(at("new")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(FileHandleTest, ANewFileTakesNobodysPlace) {
  written("file", "old");
  fs::create_directory(at("folder"));
  fs::create_symlink(at("file"), at("link"));
  fs::create_symlink(at("nowhere"), at("dangling"));
  for (const char* name : {"file", "folder", "link", "dangling"}) {
    EXPECT_EQ(failure(at(name), [&] { FileHandle::forWritingNew(at(name)); }), EEXIST) << name;
  }
  EXPECT_EQ(contentsOf(at("file")), "old");
  EXPECT_FALSE(fs::exists(at("nowhere")));
  EXPECT_EQ(
      failure(at("missing") / "new", [&] { FileHandle::forWritingNew(at("missing") / "new"); }),
      ENOENT);
}

TEST_F(FileHandleTest, AHandleForOneDirectionRefusesTheOther) {
  FileHandle writer = FileHandle::forWritingNew(at("file"));
  EXPECT_EQ(failure(at("file"), [&] { readFrom(writer, 1); }), EBADF);
  FileHandle reader = FileHandle::forReading(at("file"));
  EXPECT_EQ(failure(at("file"), [&] { reader.write("x"); }), EBADF);
  EXPECT_EQ(failure(at("file"), [&] { reader.truncate(5); }), EINVAL);
}

TEST_F(FileHandleTest, ALargerLengthIsZerosThatTakeNoRoom) {
  constexpr std::int64_t kLength = 1 << 30;
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  handle.truncate(kLength);
  handle.seek(kLength - 3);
  handle.write("end");
  struct stat status {};
  ASSERT_EQ(::stat(at("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_size, kLength);
  EXPECT_LE(status.st_blocks * 512, 64 * 1024);
  FileHandle reader = FileHandle::forReading(at("new"));
  EXPECT_EQ(readFrom(reader, 100'000), std::string(100'000, '\0'));
  reader.seek(kLength - 4);
  EXPECT_EQ(readFrom(reader, 10), std::string("\0end", 4));
}

TEST_F(FileHandleTest, ASmallerLengthCutsOffAndLeavesThePosition) {
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  handle.write("hello");
  handle.truncate(2);
  EXPECT_EQ(contentsOf(at("new")), "he");
  handle.write("!");
  EXPECT_EQ(contentsOf(at("new")), std::string("he\0\0\0!", 6));
  handle.truncate(0);
  EXPECT_EQ(contentsOf(at("new")), "");
  EXPECT_EQ(failure(at("new"), [&] { handle.truncate(-1); }), EINVAL);
}

/// No file of the process grows beyond `bytes` while it lives, as on a full disk.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handlerBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    const rlimit limit{bytes, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handlerBefore_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handlerBefore_)(int);
  rlimit before_{};
};

TEST_F(FileHandleTest, AWriteThatFitsOnlyInPartFailsAndLeavesThatPart) {
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  {
    const FileSizeLimit limit(100'000);
    EXPECT_EQ(failure(at("new"), [&] { handle.write(std::string(150'000, 'x')); }), EFBIG);
    EXPECT_EQ(failure(at("new"), [&] { handle.truncate(100'001); }), EFBIG);
  }
  EXPECT_EQ(contentsOf(at("new")), std::string(100'000, 'x'));
  handle.write("y");  // the position is behind what was written
  EXPECT_EQ(fs::file_size(at("new")), 100'001U);
}

TEST_F(FileHandleTest, ClosesItsFileOnceAndWithItself) {
  const std::size_t before = openDescriptors();
  {
    FileHandle first = FileHandle::forWritingNew(at("new"));
    EXPECT_EQ(openDescriptors(), before + 1);
    FileHandle moved = std::move(first);
    EXPECT_EQ(openDescriptors(), before + 1);
    moved.write("x");
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(contentsOf(at("new")), "x");

  std::optional<FileHandle> closed(FileHandle::forReading(at("new")));
  closed->close();
  EXPECT_EQ(openDescriptors(), before);
  // The number is somebody else's now; the destructor leaves it alone.
  const FileHandle other = FileHandle::forReading(at("new"));
  EXPECT_EQ(openDescriptors(), before + 1);
  closed.reset();
  EXPECT_EQ(openDescriptors(), before + 1);
}

TEST_F(FileHandleTest, AFailedOpeningLeavesNothingOpen) {
  const std::size_t before = openDescriptors();
  failure(at("missing"), [&] { FileHandle::forReading(at("missing")); });
  failure(folder_, [&] { FileHandle::forWritingNew(folder_); });
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(FileHandleTest, AFailedCloseIsReported) {
  const int lowest = ::open("/dev/null", O_RDONLY);
  ASSERT_EQ(::close(lowest), 0);
  FileHandle handle = FileHandle::forWritingNew(at("new"));
  ASSERT_EQ(::close(lowest), 0);  // the handle's own, behind its back
  EXPECT_EQ(failure(at("new"), [&] { handle.close(); }), EBADF);
}

TEST_F(FileHandleTest, DescriptorsDoNotPassToOtherPrograms) {
  const int lowest = ::open("/dev/null", O_RDONLY);
  ASSERT_EQ(::close(lowest), 0);
  const FileHandle handle = FileHandle::forWritingNew(at("new"));
  EXPECT_NE(::fcntl(lowest, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(FileHandleTest, AttributesAreTheFilesSizeAndDateToTheMicrosecond) {
  written("file", "hello");
  fs::create_symlink(at("file"), at("link"));
  // Before 1970 too, rounded down.
  for (const std::int64_t seconds : {1'700'000'000, -5}) {
    const timespec times[2] = {{0, UTIME_NOW}, {seconds, 123'456'789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, at("file").c_str(), times, 0), 0);
    for (const char* name : {"file", "link"}) {
      const FileAttributes attributes = attributesOfFile(at(name));
      EXPECT_EQ(attributes.size, 5) << name;
      EXPECT_EQ(attributes.modified,
                Date(std::chrono::seconds(seconds) + std::chrono::microseconds(123'456)))
          << name;
    }
  }
}

TEST_F(FileHandleTest, AttributesOfNothingAreAnError) {
  fs::create_symlink(at("nowhere"), at("dangling"));
  fs::create_symlink(at("loop"), at("loop"));
  EXPECT_EQ(failure(at("missing"), [&] { attributesOfFile(at("missing")); }), ENOENT);
  EXPECT_EQ(failure(at("dangling"), [&] { attributesOfFile(at("dangling")); }), ENOENT);
  EXPECT_EQ(failure(at("loop"), [&] { attributesOfFile(at("loop")); }), ELOOP);
}

}  // namespace
}  // namespace kestrune::platform
