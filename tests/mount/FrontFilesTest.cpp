// Files in the mount: reading and writing in every way that programs do.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/mount/FrontMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

using support::waitUntil;

using FrontFilesTest = FrontTest;

TEST_F(FrontFilesTest, EveryWayToOpenDoesWhatItSays) {
  put(at("a"), "hello");
  EXPECT_EQ(errnoOf([&] { return ::write(FileNumber(at("a"), O_RDONLY), "x", 1); }), EBADF);
  EXPECT_EQ(errnoOf([&] { return ::open(at("missing").c_str(), O_RDWR); }), ENOENT);
  {
    const FileNumber one(at("a"), O_WRONLY | O_APPEND);
    const FileNumber other(at("a"), O_WRONLY | O_APPEND);
    EXPECT_EQ(::write(one, " big", 4), 4);
    EXPECT_EQ(::write(other, " world", 6), 6);
    EXPECT_EQ(::write(one, "!", 1), 1);
  }
  EXPECT_EQ(bytesOf(at("a")), "hello big world!");
  const int changes = asked("setAttributes");
  const FileNumber emptied(at("a"), O_RDWR | O_TRUNC);
  EXPECT_EQ(asked("setAttributes"), changes);  // at once with the open
  EXPECT_EQ(statusOf(at("a")).st_size, 0);
  EXPECT_EQ(bytesOf(emptied, 0, 10), "");
}

TEST_F(FrontFilesTest, WritesAnywhereExtendWithZeros) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT);
  EXPECT_EQ(::pwrite(file, "end", 3, 10'000), 3);
  EXPECT_EQ(::pwrite(file, "start", 5, 0), 5);
  EXPECT_EQ(statusOf(at("a")).st_size, 10'003);
  EXPECT_EQ(bytesOf(file, 0, 7), std::string("start\0\0", 7));
  EXPECT_EQ(bytesOf(file, 9'999, 10), std::string("\0end", 4));
  EXPECT_EQ(bytesOf(file, 20'000, 10), "");
}

TEST_F(FrontFilesTest, LargeWritesComeInLargePieces) {
  constexpr std::size_t kSize = 16U << 20U;
  put(at("a"), std::string(kSize, 'x'));
  EXPECT_LE(asked("write"), 16 + 1);
  EXPECT_TRUE(bytesOf(at("a")) == std::string(kSize, 'x'));
}

TEST_F(FrontFilesTest, LengthsAreChangedByNameAndByNumber) {
  put(at("a"), "hello");
  EXPECT_EQ(::truncate(at("a").c_str(), 3), 0);
  EXPECT_EQ(bytesOf(at("a")), "hel");
  const FileNumber file(at("a"), O_RDWR);
  EXPECT_EQ(::ftruncate(file, 6), 0);
  EXPECT_EQ(bytesOf(file, 0, 10), std::string("hel\0\0\0", 6));
  EXPECT_EQ(statusOf(at("a")).st_size, 6);
}

TEST_F(FrontFilesTest, RoomIsReserved) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT);
  EXPECT_EQ(::fallocate(file, 0, 0, 8192), 0);
  EXPECT_EQ(statusOf(at("a")).st_size, 8192);
  EXPECT_EQ(::fallocate(file, FALLOC_FL_KEEP_SIZE, 0, 100'000), 0);
  EXPECT_EQ(statusOf(at("a")).st_size, 8192);
  for (const int mode : {FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, FALLOC_FL_ZERO_RANGE,
                         FALLOC_FL_COLLAPSE_RANGE}) {
    EXPECT_EQ(errnoOf([&] { return ::fallocate(file, mode, 0, 4096); }), EOPNOTSUPP) << mode;
  }
  EXPECT_EQ(::posix_fallocate(file, 0, 20'000), 0);
  EXPECT_EQ(statusOf(at("a")).st_size, 20'000);
}

TEST_F(FrontFilesTest, WhatIsNotThereIsNoHole) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT);
  EXPECT_EQ(::ftruncate(file, 1 << 20), 0);
  EXPECT_EQ(::lseek(file, 0, SEEK_DATA), 0);
  EXPECT_EQ(::lseek(file, 0, SEEK_HOLE), 1 << 20);
}

TEST_F(FrontFilesTest, WhoReadsANewFileSeesWhatIsAddedToIt) {
  const FileNumber writer(at("a"), O_WRONLY | O_CREAT | O_EXCL);
  EXPECT_EQ(::write(writer, "one", 3), 3);
  const FileNumber reader(at("a"), O_RDONLY);
  EXPECT_EQ(bytesOf(reader, 0, 100), "one");
  void* mapped = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, reader, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  const char* text = static_cast<const char*>(mapped);
  EXPECT_EQ(std::string(text, 3), "one");
  EXPECT_EQ(::write(writer, "two", 3), 3);
  EXPECT_EQ(bytesOf(reader, 0, 100), "onetwo");
  EXPECT_EQ(std::string(text, 6), "onetwo");
  EXPECT_EQ(::pwrite(writer, "O", 1, 0), 1);
  EXPECT_EQ(bytesOf(reader, 0, 100), "Onetwo");
  EXPECT_EQ(std::string(text, 6), "Onetwo");
  EXPECT_EQ(::munmap(mapped, 4096), 0);
  EXPECT_EQ(::ftruncate(writer, 2), 0);
  EXPECT_EQ(bytesOf(reader, 0, 100), "On");
  EXPECT_EQ(::pwrite(writer, "!", 1, 5000), 1);
  EXPECT_EQ(bytesOf(reader, 0, 4), std::string("On\0\0", 4));
  EXPECT_EQ(statusOf(at("a")).st_size, 5001);
}

TEST_F(FrontFilesTest, MappedBytesAreWritten) {
  put(at("a"), std::string(10'000, 'a'));
  {
    const FileNumber file(at("a"), O_RDWR);
    auto* const map =
        static_cast<char*>(::mmap(nullptr, 10'000, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    ASSERT_NE(map, MAP_FAILED);
    map[0] = 'b';
    map[9'999] = 'c';
    EXPECT_EQ(::msync(map, 10'000, MS_SYNC), 0);
    EXPECT_GE(asked("write"), 2);
    EXPECT_EQ(bytesOf(FileNumber(at("a"), O_RDONLY), 9'999, 1), "c");
    map[5'000] = 'd';  // not synced, written when it is unmapped
    EXPECT_EQ(::pwrite(file, "e", 1, 5'001), 1);
    EXPECT_EQ(map[5'001], 'e');
    ::munmap(map, 10'000);
  }
  const std::string all = bytesOf(at("a"));
  EXPECT_EQ(all[0], 'b');
  EXPECT_EQ(all.substr(5'000, 2), "de");
  EXPECT_EQ(all[9'999], 'c');
}

TEST_F(FrontFilesTest, TheDispatcherHearsOfClosingAndSyncing) {
  {
    const FileNumber file(at("a"), O_RDWR | O_CREAT);
    EXPECT_EQ(::fsync(file), 0);
    EXPECT_EQ(asked("sync"), 1);
    EXPECT_EQ(::fdatasync(file), 0);
    EXPECT_EQ(asked("sync"), 2);
    const int copy = ::dup(file);
    EXPECT_EQ(::close(copy), 0);
    EXPECT_EQ(asked("flush"), 1);
    EXPECT_EQ(asked("release"), 0);
  }
  EXPECT_EQ(asked("flush"), 2);
  static_cast<void>(FileNumber(at("a"), O_RDONLY));
  EXPECT_EQ(asked("flush"), 2);  // nothing to say about a reader
  EXPECT_TRUE(waitUntil([&] { return asked("release") == 2; }));
}

TEST_F(FrontFilesTest, WhatWasReadIsReadAgainFromTheKernelsMemory) {
  say("sayWhole", false);
  put(at("a"), std::string(100'000, 'x'));
  static_cast<void>(bytesOf(at("a")));
  const int before = asked("present");
  EXPECT_TRUE(bytesOf(at("a")) == std::string(100'000, 'x'));
  // At the end of the file it may ask once more.
  EXPECT_LE(asked("present"), before + 1);
}

TEST_F(FrontFilesTest, ASignalEndsAWriteThatIsBlocked) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT);
  say("hold", "write");
  {
    InterruptedCall call([&] { return errnoOf([&] { return ::pwrite(file, "hello", 5, 0); }); });
    waitUntilAsked("write", 0);
    call.interrupt();
    EXPECT_TRUE(waitUntil([&] { return call.done(); }, std::chrono::seconds(3)));
    if (!call.done()) say("letGo", "write");
    EXPECT_TRUE(waitUntil([&] { return call.done(); }));
    EXPECT_EQ(call.result(), EINTR);
  }
  EXPECT_EQ(bytesOf(file, 0, 10), "");
  // It comes about after all, and shows.
  say("letGo", "write");
  EXPECT_TRUE(waitUntil([&] { return bytesOf(file, 0, 10) == "hello"; }));
  EXPECT_EQ(::pwrite(file, "J", 1, 0), 1);
  EXPECT_EQ(bytesOf(file, 0, 10), "Jello");
}

TEST_F(FrontFilesTest, ASignalEndsAnOpenThatIsBlocked) {
  put(at("a"), "hello");
  for (const int flags : {O_RDONLY, O_RDWR}) {
    const char* const operation = flags == O_RDONLY ? "open" : "openForWriting";
    const int before = asked(operation);
    say("hold", operation);
    {
      InterruptedCall call([&] { return errnoOf([&] { return ::open(at("a").c_str(), flags); }); });
      waitUntilAsked(operation, before);
      call.interrupt();
      EXPECT_TRUE(waitUntil([&] { return call.done(); }, std::chrono::seconds(3)));
      if (!call.done()) say("letGo", operation);
      EXPECT_TRUE(waitUntil([&] { return call.done(); }));
      EXPECT_EQ(call.result(), EINTR);
    }
    say("letGo", operation);
    EXPECT_TRUE(waitUntil([&] { return say("openFiles").get<int>() == 0; }));
  }
  EXPECT_EQ(bytesOf(at("a")), "hello");
}

TEST_F(FrontFilesTest, AProgramThatIsKilledInAWriteIsGone) {
  put(at("a"), "hello");
  say("hold", "write");
  const int before = asked("write");
  Child child({"dd", "if=/dev/zero", "of=" + at("a").string(), "bs=4096", "count=1", "conv=notrunc",
               "status=none"});
  waitUntilAsked("write", before);
  child.signal(SIGKILL);
  EXPECT_TRUE(child.waitForEnd(std::chrono::seconds(4)).has_value());
  say("letGo", "write");
}

}  // namespace
}  // namespace kestrune::mounttest
