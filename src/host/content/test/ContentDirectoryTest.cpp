#include "host/content/ContentDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "host/content/test/ContentHarness.h"

namespace kestrune::host::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

class ContentDirectoryTest : public testing::Test {
 protected:
  ContentDirectory make() const { return ContentDirectory(replica_); }
  void writeTo(const LocalFilePtr& file, const std::string& text, std::int64_t offset = 0) {
    ASSERT_EQ(::pwrite(file->descriptor(), text.data(), text.size(), offset),
              static_cast<ssize_t>(text.size()));
  }
  support::TemporaryDirectory directory_;
  const fs::path replica_ = directory_.path() / "deep" / "replica";
};

TEST_F(ContentDirectoryTest, ItsFoldersArePrivate) {
  const auto contents = make();
  for (const char* folder : {"", "contents", "outgoing", "rescued", "tmp"}) {
    EXPECT_EQ(fs::status(replica_ / folder).permissions(), fs::perms::owner_all) << folder;
  }
  EXPECT_EQ(contents.temporaryDirectory(), replica_ / "tmp");
}

TEST_F(ContentDirectoryTest, ContentsStayAndWhatWasOnItsWayGoes) {
  directory_.write("outside/precious", "x");
  { const auto contents = make(); }
  directory_.write("deep/replica/contents/17", "kept");
  directory_.write("deep/replica/contents/17.log", "kept");
  directory_.write("deep/replica/contents/18.log", "of contents that are gone");
  directory_.write("deep/replica/outgoing/17-1", "old");
  directory_.write("deep/replica/rescued/2024-01-01/a", "kept");
  directory_.write("deep/replica/tmp/half/file", "old");
  fs::create_directory_symlink(directory_.path() / "outside", replica_ / "tmp" / "link");
  const auto contents = make();
  EXPECT_THAT(contents.numbers(), ElementsAre(17U));
  EXPECT_EQ(support::contentsOf(replica_ / "contents" / "17"), "kept");
  EXPECT_TRUE(fs::exists(replica_ / "contents" / "17.log"));
  EXPECT_FALSE(fs::exists(replica_ / "contents" / "18.log"));
  EXPECT_TRUE(fs::is_empty(replica_ / "outgoing"));
  EXPECT_TRUE(fs::is_empty(replica_ / "tmp"));
  EXPECT_TRUE(fs::exists(replica_ / "rescued" / "2024-01-01" / "a"));
  EXPECT_TRUE(fs::exists(directory_.path() / "outside" / "precious"));
}

TEST_F(ContentDirectoryTest, TwoHostsCannotShareIt) {
  const auto contents = make();
  EXPECT_EQ(thrownErrno([&] { const auto other = make(); }), EBUSY);
}

TEST_F(ContentDirectoryTest, ALockThatTheProcessHoldsGoesOn) {
  std::optional<ContentDirectory> first(std::in_place, replica_);
  const int held =
      ::fcntl(first->lockDescriptor(), F_DUPFD_CLOEXEC, 0);  // as an execution keeps it
  first.reset();
  EXPECT_EQ(thrownErrno([&] { const auto other = make(); }), EBUSY);
  const ContentDirectory next(replica_, held);
  EXPECT_EQ(next.lockDescriptor(), held);
  EXPECT_EQ(thrownErrno([&] { const auto other = make(); }), EBUSY);
}

TEST_F(ContentDirectoryTest, ALockOfAnotherDirectoryIsRefused) {
  const auto other = std::make_unique<ContentDirectory>(directory_.path() / "other");
  const int held = ::fcntl(other->lockDescriptor(), F_DUPFD_CLOEXEC, 0);
  EXPECT_EQ(thrownErrno([&] { const ContentDirectory wrong(replica_, held); }), ESTALE);
}

TEST_F(ContentDirectoryTest, ALinkInTheWayIsRefused) {
  fs::create_directories(directory_.path() / "deep");
  fs::create_directory_symlink(directory_.path(), replica_);
  EXPECT_NE(thrownErrno([&] { const auto contents = make(); }), 0);
}

TEST_F(ContentDirectoryTest, OnlyRegularFilesAreTakenOver) {
  auto contents = make();
  const auto tmp = contents.temporaryDirectory();
  const auto secret = directory_.write("secret", "x");
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "fifo", "missing"}) {
    fs::remove(tmp / "link");
    fs::create_symlink(secret, tmp / "link");
    EXPECT_NE(thrownErrno([&] { static_cast<void>(contents.takeOver(tmp / name, 5)); }), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(tmp / name))) << name;
  }
  EXPECT_EQ(contents.open(5), nullptr);
  EXPECT_TRUE(fs::exists(secret));
}

TEST_F(ContentDirectoryTest, WhatIsTakenOverCanBeWrittenToWhateverItsMode) {
  auto contents = make();
  const auto file = directory_.write("deep/replica/tmp/x", "hello");
  ASSERT_EQ(::chmod(file.c_str(), 0444), 0);
  const auto taken = contents.takeOver(file, 5);
  EXPECT_EQ(taken->sizeBytes(), 5);
  EXPECT_FALSE(fs::exists(file));
  writeTo(taken, "J");
  EXPECT_EQ(support::contentsOf(replica_ / "contents" / "5"), "Jello");
  EXPECT_EQ(fs::status(replica_ / "contents" / "5").permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(ContentDirectoryTest, WhatWasRemovedStaysForWhoHasItOpen) {
  auto contents = make();
  const auto made = contents.create(5);
  writeTo(made, "hello");
  contents.openLog(5, true);
  EXPECT_EQ(thrownErrno([&] { contents.create(5); }), EEXIST);
  contents.remove(5);
  EXPECT_EQ(contents.open(5), nullptr);
  EXPECT_EQ(contents.openLog(5, false), nullptr);
  EXPECT_THAT(contents.numbers(), IsEmpty());
  std::array<char, 8> bytes{};
  EXPECT_EQ(::pread(made->descriptor(), bytes.data(), bytes.size(), 0), 5);
}

TEST_F(ContentDirectoryTest, NumbersAreNamesThatAreWrittenAsNumbers) {
  const auto contents = make();
  for (const char* name : {"3", "12", "007", "-1", "4x", "99999999999999999999", "12.log"}) {
    directory_.write(fs::path("deep/replica/contents") / name, "");
  }
  EXPECT_THAT(contents.numbers(), ElementsAre(3U, 12U));
}

TEST_F(ContentDirectoryTest, ACopyKeepsHolesAndLeavesTheOldFileToItsOtherNames) {
  auto contents = make();
  const auto file = contents.create(5);
  constexpr std::int64_t size = 64 * kMiB;
  ASSERT_EQ(::ftruncate(file->descriptor(), size), 0);
  writeTo(file, "begin");
  writeTo(file, "middle", size / 2);
  const auto outgoing = contents.makeOutgoing(5, *file);
  const auto own = contents.replaceWithCopy(5, *file, size);
  writeTo(own, "other");
  EXPECT_EQ(fs::file_size(outgoing.path), static_cast<std::uintmax_t>(size));
  EXPECT_EQ(support::contentsOf(outgoing.path).substr(0, 5), "begin");
  const std::string copied = support::contentsOf(replica_ / "contents" / "5");
  EXPECT_EQ(copied.size(), static_cast<std::size_t>(size));
  EXPECT_EQ(copied.substr(0, 5), "other");
  EXPECT_EQ(copied.substr(size / 2, 6), "middle");
  struct stat status = {};
  ASSERT_EQ(::fstat(own->descriptor(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, kMiB);
  contents.removeOutgoing(outgoing.path);
  EXPECT_TRUE(fs::is_empty(replica_ / "outgoing"));
}

TEST_F(ContentDirectoryTest, RescuedContentsGetANameOfTheirOwn) {
  auto contents = make();
  std::vector<std::string> names;
  for (ContentNumber number = 1; number <= 3; ++number) {
    writeTo(contents.create(number), std::to_string(number));
    const auto path = contents.rescue(number, "report.txt");
    EXPECT_EQ(support::contentsOf(path), std::to_string(number));
    EXPECT_EQ(path.parent_path().parent_path(), replica_ / "rescued");
    names.push_back(path.filename());
  }
  EXPECT_THAT(names, ElementsAre("report.txt", "report 2.txt", "report 3.txt"));
  EXPECT_THAT(contents.numbers(), IsEmpty());
}

TEST_F(ContentDirectoryTest, NamesThatAreNoneOrTooLongRescueAllTheSame) {
  auto contents = make();
  writeTo(contents.create(1), "x");
  for (const char* name : {"", ".", "..", "../escape", "a/b"}) {
    EXPECT_EQ(thrownErrno([&] { contents.rescue(1, name); }), EINVAL) << name;
  }
  const std::string longest(255, 'n');
  EXPECT_EQ(contents.rescue(1, longest).filename(), longest);
  contents.create(2);
  EXPECT_EQ(contents.rescue(2, longest).filename(), "2");  // "nnn… 2" does not fit
}

TEST_F(ContentDirectoryTest, OldDaysAreForgottenAndOtherFoldersAreNot) {
  auto contents = make();
  directory_.write("deep/replica/rescued/2020-02-29/a", "x");
  directory_.write("deep/replica/rescued/not-a-day/a", "x");
  contents.create(1);
  const auto today = contents.rescue(1, "a");
  contents.forgetRescued(14);
  EXPECT_FALSE(fs::exists(replica_ / "rescued" / "2020-02-29"));
  EXPECT_TRUE(fs::exists(replica_ / "rescued" / "not-a-day" / "a"));
  EXPECT_TRUE(fs::exists(today));
}

TEST_F(ContentDirectoryTest, FreeSpaceIsThatOfTheDisk) {
  const auto contents = make();
  EXPECT_LE(contents.freeBytes(), fs::space(replica_).available + 100U * kMiB);
  EXPECT_GE(contents.freeBytes() + 100U * kMiB, fs::space(replica_).available);
}

}  // namespace
}  // namespace kestrune::host::test
