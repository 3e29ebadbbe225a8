// Names in the mount: how they come, go and move, through the system calls that programs use.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "tests/mount/FrontMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

using support::waitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

class FrontNamesTest : public FrontTest {
 protected:
  int renameError(const std::string& from, const std::string& to, unsigned flags = 0) {
    return errnoOf(
        [&] { return ::renameat2(AT_FDCWD, at(from).c_str(), AT_FDCWD, at(to).c_str(), flags); });
  }
};

TEST_F(FrontNamesTest, AFileIsMadeAndOpenedAtOnce) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT | O_EXCL, 0640);
  EXPECT_EQ(asked("create"), 1);
  EXPECT_EQ(asked("openForWriting"), 0);
  EXPECT_EQ(::write(file, "hello", 5), 5);
  EXPECT_EQ(bytesOf(file, 0, 10), "hello");
  EXPECT_EQ(statusOf(at("a")).st_mode, S_IFREG | 0644U);
  EXPECT_EQ(statusOf(at("a")).st_nlink, 1U);
  EXPECT_EQ(errnoOf([&] { return ::open(at("a").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644); }),
            EEXIST);
  EXPECT_EQ(bytesOf(FileNumber(at("a"), O_RDWR | O_CREAT), 0, 10), "hello");
  const FileNumber program(at("run"), O_WRONLY | O_CREAT, 0777);
  EXPECT_EQ(statusOf(at("run")).st_mode, S_IFREG | 0755U);
  EXPECT_THAT(namesIn(at("")), ElementsAre("a", "run"));
}

TEST_F(FrontNamesTest, ANameThatCameMeanwhileIsOpenedByWhoDoesNotInsistOnANewFile) {
  for (const std::string name : {"a", "b"})
    EXPECT_EQ(errnoOf([&] { return ::access(at(name).c_str(), F_OK); }), ENOENT);
  say("makeUnseen", "a", "old");
  say("makeUnseen", "b", "old");
  EXPECT_EQ(errnoOf([&] { return ::open(at("a").c_str(), O_RDWR | O_CREAT | O_EXCL, 0644); }),
            EEXIST);
  EXPECT_EQ(bytesOf(FileNumber(at("b"), O_RDWR | O_CREAT), 0, 10), "old");
}

TEST_F(FrontNamesTest, NodesAreRegularFilesOrNotMade) {
  EXPECT_EQ(::mknod(at("a").c_str(), S_IFREG | 0755, 0), 0);
  EXPECT_EQ(statusOf(at("a")).st_mode, S_IFREG | 0755U);
  EXPECT_EQ(errnoOf([&] { return ::mknod(at("a").c_str(), S_IFREG | 0755, 0); }), EEXIST);
  EXPECT_EQ(errnoOf([&] { return ::mkfifo(at("b").c_str(), 0644); }), EPERM);
  EXPECT_EQ(errnoOf([&] { return ::mknod(at("b").c_str(), S_IFCHR | 0644, makedev(1, 3)); }),
            EPERM);
  EXPECT_EQ(errnoOf([&] { return ::symlink("a", at("b").c_str()); }), EPERM);
  EXPECT_EQ(errnoOf([&] { return ::link(at("a").c_str(), at("b").c_str()); }), EPERM);
  EXPECT_THAT(namesIn(at("")), ElementsAre("a"));
}

TEST_F(FrontNamesTest, FoldersComeAndGo) {
  EXPECT_EQ(::mkdir(at("d").c_str(), 0700), 0);
  EXPECT_EQ(statusOf(at("d")).st_mode, S_IFDIR | 0755U);
  EXPECT_EQ(statusOf(at("d")).st_nlink, 1U);
  EXPECT_EQ(errnoOf([&] { return ::mkdir(at("d").c_str(), 0700); }), EEXIST);
  put(at("d/a"), "x");
  EXPECT_EQ(errnoOf([&] { return ::rmdir(at("d").c_str()); }), ENOTEMPTY);
  EXPECT_EQ(errnoOf([&] { return ::unlink(at("d").c_str()); }), EISDIR);
  EXPECT_EQ(errnoOf([&] { return ::rmdir(at("d/a").c_str()); }), ENOTDIR);
  EXPECT_EQ(::unlink(at("d/a").c_str()), 0);
  EXPECT_EQ(errnoOf([&] { return ::unlink(at("d/a").c_str()); }), ENOENT);
  EXPECT_EQ(::rmdir(at("d").c_str()), 0);
  EXPECT_THAT(namesIn(at("")), IsEmpty());
}

TEST_F(FrontNamesTest, NamesAreAsLongAsTheyMayBe) {
  const std::string longest(255, 'n');
  const std::string longer(256, 'n');
  put(at(longest), "x");
  EXPECT_THAT(namesIn(at("")), ElementsAre(longest));
  EXPECT_EQ(errnoOf([&] { return ::open(at(longer).c_str(), O_WRONLY | O_CREAT, 0644); }),
            ENAMETOOLONG);
  EXPECT_EQ(errnoOf([&] { return ::mkdir(at(longer).c_str(), 0755); }), ENAMETOOLONG);
  EXPECT_EQ(renameError(longest, longer), ENAMETOOLONG);
  EXPECT_EQ(errnoOf([&] { return ::access(at(longer).c_str(), F_OK); }), ENAMETOOLONG);
}

TEST_F(FrontNamesTest, ARenameReplacesOrNot) {
  put(at("a"), "a");
  put(at("b"), "b");
  const auto inode = statusOf(at("a")).st_ino;
  EXPECT_EQ(renameError("a", "b", RENAME_NOREPLACE), EEXIST);
  EXPECT_EQ(renameError("a", "c", RENAME_NOREPLACE), 0);
  EXPECT_EQ(renameError("c", "b"), 0);
  EXPECT_EQ(bytesOf(at("b")), "a");
  EXPECT_EQ(statusOf(at("b")).st_ino, inode);
  EXPECT_EQ(renameError("missing", "b"), ENOENT);
  EXPECT_THAT(namesIn(at("")), ElementsAre("b"));
}

TEST_F(FrontNamesTest, TwoNamesAreExchanged) {
  put(at("a"), "a");
  EXPECT_EQ(::mkdir(at("d").c_str(), 0755), 0);
  put(at("d/b"), "b");
  EXPECT_EQ(renameError("a", "d/b", RENAME_EXCHANGE), 0);
  EXPECT_EQ(bytesOf(at("a")), "b");
  EXPECT_EQ(bytesOf(at("d/b")), "a");
  EXPECT_EQ(renameError("a", "missing", RENAME_EXCHANGE), ENOENT);
  EXPECT_EQ(renameError("a", "c", RENAME_WHITEOUT), EINVAL);
  EXPECT_EQ(renameError("a", "c", RENAME_NOREPLACE | RENAME_EXCHANGE), EINVAL);
}

TEST_F(FrontNamesTest, FoldersMoveWithWhatIsInThemAndNotIntoThemselves) {
  EXPECT_EQ(::mkdir(at("d").c_str(), 0755), 0);
  EXPECT_EQ(::mkdir(at("e").c_str(), 0755), 0);
  put(at("d/a"), "x");
  EXPECT_EQ(renameError("d", "d/inside"), EINVAL);
  put(at("e/full"), "x");
  EXPECT_EQ(renameError("d", "e"), ENOTEMPTY);
  EXPECT_EQ(::unlink(at("e/full").c_str()), 0);
  const FileNumber open(at("d/a"), O_RDONLY);
  EXPECT_EQ(renameError("d", "e"), 0);
  EXPECT_EQ(bytesOf(at("e/a")), "x");
  EXPECT_EQ(bytesOf(open, 0, 5), "x");
  EXPECT_THAT(namesIn(at("")), ElementsAre("e"));
}

TEST_F(FrontNamesTest, WhatIsDeletedStaysForWhoHasItOpen) {
  put(at("a"), "hello");
  FileNumber file(at("a"), O_RDWR);
  EXPECT_EQ(::unlink(at("a").c_str()), 0);
  EXPECT_EQ(::pwrite(file, "J", 1, 0), 1);
  EXPECT_EQ(bytesOf(file, 0, 10), "Jello");
  struct stat status = {};
  EXPECT_EQ(::fstat(file, &status), 0);
  EXPECT_EQ(status.st_nlink, 0U);
  EXPECT_EQ(::ftruncate(file, 2), 0);
  EXPECT_EQ(::fsync(file), 0);
  put(at("a"), "new");
  EXPECT_EQ(bytesOf(file, 0, 10), "Je");
  EXPECT_EQ(bytesOf(at("a")), "new");
}

TEST_F(FrontNamesTest, TheKernelGivesBackWhatItRemembered) {
  for (int i = 0; i < 50; ++i) put(at("file" + std::to_string(i)), "x");
  EXPECT_EQ(namesIn(at("")).size(), 50U);
  EXPECT_GE(say("references").get<int>(), 50);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(::unlink(at("file" + std::to_string(i)).c_str()), 0);
  EXPECT_TRUE(waitUntil([&] { return say("references").get<int>() == 0; }));
}

TEST_F(FrontNamesTest, ListingsShowLocalChangesAtOnce) {
  for (int i = 0; i < 20; ++i) {
    put(at("file"), "x");
    EXPECT_THAT(namesIn(at("")), ElementsAre("file"));
    EXPECT_EQ(renameError("file", "other"), 0);
    EXPECT_THAT(namesIn(at("")), ElementsAre("other"));
    EXPECT_EQ(::unlink(at("other").c_str()), 0);
    EXPECT_THAT(namesIn(at("")), IsEmpty());
  }
}

TEST_F(FrontNamesTest, FoldersAreSynced) {
  const FileNumber folder(at(""), O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(::fsync(folder), 0);
  EXPECT_EQ(asked("syncFolder"), 1);
}

TEST_F(FrontNamesTest, TheSpaceIsTheDispatchers) {
  struct statvfs status = {};
  ASSERT_EQ(::statvfs(at("").c_str(), &status), 0);
  EXPECT_EQ(status.f_blocks * status.f_frsize, 1ULL << 40U);
  EXPECT_EQ(status.f_bavail * status.f_frsize, 3ULL << 30U);
  EXPECT_EQ(status.f_flag & ST_RDONLY, 0U);
  EXPECT_NE(status.f_flag & ST_NOSUID, 0U);
  EXPECT_NE(status.f_flag & ST_NODEV, 0U);
}

// What is interrupted, and what is asked of the dispatcher for it.
struct BlockedChange {
  std::string operation;
  std::function<int(const std::filesystem::path& folder)> call;
};

TEST_F(FrontNamesTest, ASignalEndsAChangeThatIsBlocked) {
  put(at("a"), "x");
  // In this order: each leaves what the next needs, though its program is told EINTR.
  const std::vector<BlockedChange> changes = {
      {"create", [](const auto& in) { return ::open((in / "n").c_str(), O_CREAT | O_RDWR, 0644); }},
      {"makeFolder", [](const auto& in) { return ::mkdir((in / "m").c_str(), 0755); }},
      {"rename", [](const auto& in) { return ::rename((in / "a").c_str(), (in / "b").c_str()); }},
      {"removeFile", [](const auto& in) { return ::unlink((in / "b").c_str()); }},
  };
  for (const auto& [operation, change] : changes) {
    const int before = asked(operation);
    say("hold", operation);
    {
      InterruptedCall call([&] { return errnoOf([&] { return change(at("")); }); });
      waitUntilAsked(operation, before);
      call.interrupt();
      // Not at once: programs with timers are signalled all the time.
      EXPECT_TRUE(support::staysTrue([&] { return !call.done(); }, std::chrono::milliseconds(500)))
          << operation;
      EXPECT_TRUE(waitUntil([&] { return call.done(); }, std::chrono::seconds(3))) << operation;
      if (!call.done()) say("letGo", operation);
      EXPECT_TRUE(waitUntil([&] { return call.done(); }));
      EXPECT_EQ(call.result(), EINTR) << operation;
    }
    say("letGo", operation);  // the work goes on; what it brings is given back
    if (operation == "rename")
      EXPECT_TRUE(waitUntil([&] { return ::access(at("b").c_str(), F_OK) == 0; }));
  }
  EXPECT_TRUE(waitUntil([&] { return say("openFiles").get<int>() == 0; }));
  EXPECT_THAT(namesIn(at("")), ElementsAre("m", "n"));
}

TEST_F(FrontNamesTest, WhatComesAboutAfterItsProgramGaveUpShows) {
  put(at("a"), "x");
  say("hold", "rename");
  {
    InterruptedCall call([&] { return renameError("a", "b"); });
    waitUntilAsked("rename", 0);
    call.interrupt();
    EXPECT_TRUE(waitUntil([&] { return call.done(); }, std::chrono::seconds(3)));
    EXPECT_EQ(call.result(), EINTR);
  }
  // The kernel learns what is not so any more in a moment.
  EXPECT_THAT(namesIn(at("")), ElementsAre("a"));
  EXPECT_EQ(bytesOf(at("a")), "x");
  say("letGo", "rename");
  EXPECT_TRUE(waitUntil([&] { return ::access(at("a").c_str(), F_OK) != 0; }));
  EXPECT_TRUE(waitUntil([&] { return ::access(at("b").c_str(), F_OK) == 0; }));
  EXPECT_TRUE(waitUntil([&] { return namesIn(at("")) == std::vector<std::string>{"b"}; }));
}

TEST_F(FrontNamesTest, ASignalDoesNoHarmToAChangeThatTakesAMoment) {
  say("hold", "makeFolder");
  InterruptedCall call([&] { return errnoOf([&] { return ::mkdir(at("d").c_str(), 0755); }); });
  waitUntilAsked("makeFolder", 0);
  call.interrupt();
  EXPECT_TRUE(support::staysTrue([&] { return !call.done(); }, std::chrono::milliseconds(100)));
  say("letGo", "makeFolder");
  EXPECT_TRUE(waitUntil([&] { return call.done(); }));
  EXPECT_EQ(call.result(), 0);
}

TEST_F(FrontNamesTest, AnEntryThatComesTooLateIsGivenBack) {
  EXPECT_EQ(::mkdir(at("d").c_str(), 0755), 0);
  say("hold", "create");
  {
    InterruptedCall call(
        [&] { return errnoOf([&] { return ::open(at("d/a").c_str(), O_CREAT | O_RDWR, 0644); }); });
    waitUntilAsked("create", 0);
    call.interrupt();
  }
  const auto before = say("references").get<int>();
  say("letGo", "create");
  EXPECT_TRUE(waitUntil([&] { return say("openFiles").get<int>() == 0; }));
  EXPECT_EQ(say("references").get<int>(), before);
  EXPECT_THAT(namesIn(at("d")), ElementsAre("a"));
}

}  // namespace
}  // namespace kestrune::mounttest
