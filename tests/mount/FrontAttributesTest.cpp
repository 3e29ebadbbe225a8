// Modes, owners, times and extended attributes in the mount.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <ctime>

#include "tests/mount/FrontMount.h"

namespace kestrune::mounttest {
namespace {

class FrontAttributesTest : public FrontTest {
 protected:
  int chmodError(const std::string& name, mode_t mode) {
    return errnoOf([&] { return ::chmod(at(name).c_str(), mode); });
  }
  mode_t modeOf(const std::string& name) { return statusOf(at(name)).st_mode & 07777U; }
};

TEST_F(FrontAttributesTest, TheOwnersExecuteBitIsKept) {
  put(at("a"), "x");
  EXPECT_EQ(modeOf("a"), 0644U);
  EXPECT_EQ(chmodError("a", 0755), 0);
  EXPECT_EQ(modeOf("a"), 0755U);
  EXPECT_EQ(chmodError("a", 0644), 0);
  EXPECT_EQ(modeOf("a"), 0644U);
  EXPECT_EQ(chmodError("a", 0744), 0);
  EXPECT_EQ(modeOf("a"), 0755U);
  const FileNumber file(at("a"), O_RDWR);
  EXPECT_EQ(::fchmod(file, 0644), 0);
  EXPECT_EQ(modeOf("a"), 0644U);
}

TEST_F(FrontAttributesTest, AChmodThatCannotBeKeptSaysSo) {
  put(at("a"), "x");
  EXPECT_EQ(::mkdir(at("d").c_str(), 0755), 0);
  // Nobody else may enter this mount, so what is said of others is true in effect.
  for (const mode_t mode : {0600U, 0640U, 0660U, 0664U, 0666U, 0700U, 0777U})
    EXPECT_EQ(chmodError("a", mode), 0) << std::oct << mode;
  for (const mode_t mode : {0444U, 0400U, 0000U, 0244U, 04755U, 02755U, 01644U})
    EXPECT_EQ(chmodError("a", mode), EPERM) << std::oct << mode;
  for (const mode_t mode : {0755U, 0700U, 0775U, 0777U})
    EXPECT_EQ(chmodError("d", mode), 0) << std::oct << mode;
  for (const mode_t mode : {0555U, 0655U, 02755U, 01777U, 0500U})
    EXPECT_EQ(chmodError("d", mode), EPERM) << std::oct << mode;
  EXPECT_EQ(modeOf("d"), 0755U);
  EXPECT_EQ(modeOf("a"), 0755U);
}

TEST_F(FrontAttributesTest, OwnersStay) {
  put(at("a"), "x");
  const auto chownError = [&](uid_t user, gid_t group) {
    return errnoOf([&] { return ::chown(at("a").c_str(), user, group); });
  };
  EXPECT_EQ(chownError(::getuid(), ::getgid()), 0);
  EXPECT_EQ(chownError(static_cast<uid_t>(-1), ::getgid()), 0);
  EXPECT_EQ(chownError(static_cast<uid_t>(-1), static_cast<gid_t>(-1)), 0);
  EXPECT_EQ(chownError(::getuid() + 1, ::getgid()), EPERM);
  EXPECT_EQ(chownError(::getuid(), ::getgid() + 1), EPERM);
}

TEST_F(FrontAttributesTest, TimesAreKeptToTheNanosecond) {
  put(at("a"), "x");
  const std::array<timespec, 2> times = {timespec{1'000'000'000, 123'456'789},
                                         timespec{-1'000'000, 987'654'321}};
  ASSERT_EQ(::utimensat(AT_FDCWD, at("a").c_str(), times.data(), 0), 0);
  auto status = statusOf(at("a"));
  EXPECT_EQ(status.st_atim.tv_sec, 1'000'000'000);
  EXPECT_EQ(status.st_atim.tv_nsec, 123'456'789);
  EXPECT_EQ(status.st_mtim.tv_sec, -1'000'000);
  EXPECT_EQ(status.st_mtim.tv_nsec, 987'654'321);
  const std::array<timespec, 2> some = {timespec{0, UTIME_OMIT}, timespec{0, UTIME_NOW}};
  ASSERT_EQ(::utimensat(AT_FDCWD, at("a").c_str(), some.data(), 0), 0);
  status = statusOf(at("a"));
  EXPECT_EQ(status.st_atim.tv_nsec, 123'456'789);
  EXPECT_NEAR(static_cast<double>(status.st_mtim.tv_sec), static_cast<double>(::time(nullptr)), 60);
  ASSERT_EQ(::utimensat(AT_FDCWD, at("").c_str(), times.data(), 0), 0);
  EXPECT_EQ(statusOf(at("")).st_mtim.tv_nsec, 987'654'321);
}

TEST_F(FrontAttributesTest, AWriteMovesTheTime) {
  const FileNumber file(at("a"), O_RDWR | O_CREAT);
  const std::array<timespec, 2> times = {timespec{1'000'000'000, 0}, timespec{1'000'000'000, 0}};
  ASSERT_EQ(::futimens(file, times.data()), 0);
  EXPECT_EQ(statusOf(at("a")).st_mtim.tv_sec, 1'000'000'000);
  EXPECT_EQ(::write(file, "x", 1), 1);
  EXPECT_GT(statusOf(at("a")).st_mtim.tv_sec, 1'000'000'000);
  ASSERT_EQ(::futimens(file, times.data()), 0);
  // Closing is no change.
  static_cast<void>(FileNumber(at("a"), O_RDWR));
  EXPECT_EQ(statusOf(at("a")).st_mtim.tv_sec, 1'000'000'000);
}

// cp takes it for the size of its buffer.
TEST_F(FrontAttributesTest, ProgramsAreToldToReadInPiecesOf128KiB) {
  put(at("a"), "text");
  for (int time = 0; time < 2; ++time) EXPECT_EQ(statusOf(at("a")).st_blksize, 128 << 10);
}

TEST_F(FrontAttributesTest, WithoutExtendedAttributesTheKernelAsksForNone) {
  put(at("a"), "x");
  const auto path = at("a");
  char value = 0;
  EXPECT_EQ(errnoOf([&] { return ::getxattr(path.c_str(), "user.x", &value, 1); }), ENOTSUP);
  EXPECT_EQ(errnoOf([&] { return ::listxattr(path.c_str(), &value, 1); }), ENOTSUP);
  EXPECT_EQ(errnoOf([&] { return ::setxattr(path.c_str(), "user.x", "v", 1, 0); }), ENOTSUP);
  EXPECT_EQ(errnoOf([&] { return ::removexattr(path.c_str(), "user.x"); }), ENOTSUP);
  EXPECT_EQ(asked("extendedAttribute") + asked("setExtendedAttribute"), 0);
}

class FrontSharedTest : public FrontAttributesTest {
 protected:
  void SetUp() override {
    // Others are let in by root, or where the system's configuration says so.
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    FrontAttributesTest::SetUp();
  }
  std::vector<std::string> options() const override { return {"--allow-other"}; }
};

TEST_F(FrontSharedTest, WhereOthersMayEnterTheirRightsAreNotPretended) {
  put(at("a"), "x");
  EXPECT_EQ(::mkdir(at("d").c_str(), 0700), 0);
  for (const mode_t mode : {0644U, 0755U, 0744U}) EXPECT_EQ(chmodError("a", mode), 0);
  for (const mode_t mode : {0600U, 0640U, 0664U, 0666U, 0700U})
    EXPECT_EQ(chmodError("a", mode), EPERM) << std::oct << mode;
  EXPECT_EQ(chmodError("d", 0755), 0);
  for (const mode_t mode : {0700U, 0750U, 0775U, 0777U})
    EXPECT_EQ(chmodError("d", mode), EPERM) << std::oct << mode;
}

class FrontExtendedTest : public FrontTest {
 protected:
  std::vector<std::string> options() const override { return {"--xattr"}; }
  int setError(const char* name, const std::string& value, int flags = 0) {
    return errnoOf(
        [&] { return ::setxattr(at("a").c_str(), name, value.data(), value.size(), flags); });
  }
  int removeError(const char* name) {
    return errnoOf([&] { return ::removexattr(at("a").c_str(), name); });
  }
  // The value, or the errno as text.
  std::string valueOf(const char* name, std::size_t room = 100'000) {
    std::string value(room, '\0');
    const auto length = ::getxattr(at("a").c_str(), name, value.data(), room);
    if (length < 0) return "errno " + std::to_string(errno);
    value.resize(static_cast<std::size_t>(length));
    return value;
  }
};

TEST_F(FrontExtendedTest, ValuesAreSetReadAndRemoved) {
  put(at("a"), "x");
  EXPECT_EQ(setError("user.x", "value"), 0);
  EXPECT_EQ(valueOf("user.x"), "value");
  EXPECT_EQ(setError("user.x", "other", XATTR_CREATE), EEXIST);
  EXPECT_EQ(setError("user.y", "other", XATTR_REPLACE), ENODATA);
  EXPECT_EQ(setError("user.x", "other", XATTR_REPLACE), 0);
  EXPECT_EQ(setError("user.empty", "", XATTR_CREATE), 0);
  EXPECT_EQ(setError("user.large", std::string(60'000, 'v')), 0);
  EXPECT_EQ(valueOf("user.x"), "other");
  EXPECT_EQ(valueOf("user.empty"), "");
  EXPECT_TRUE(valueOf("user.large") == std::string(60'000, 'v'));
  EXPECT_EQ(removeError("user.x"), 0);
  EXPECT_EQ(removeError("user.x"), ENODATA);
  EXPECT_EQ(valueOf("user.x"), "errno " + std::to_string(ENODATA));
}

TEST_F(FrontExtendedTest, ProgramsMayAskHowMuchRoomTheyNeed) {
  put(at("a"), "x");
  EXPECT_EQ(setError("user.x", "value"), 0);
  EXPECT_EQ(::getxattr(at("a").c_str(), "user.x", nullptr, 0), 5);
  EXPECT_EQ(valueOf("user.x", 4), "errno " + std::to_string(ERANGE));
  EXPECT_EQ(valueOf("user.x", 5), "value");
  const std::string expected("user.kestrune.state\0user.x\0", 27);
  EXPECT_EQ(::listxattr(at("a").c_str(), nullptr, 0), 27);
  std::string names(27, '\0');
  EXPECT_EQ(errnoOf([&] { return ::listxattr(at("a").c_str(), names.data(), 26); }), ERANGE);
  EXPECT_EQ(::listxattr(at("a").c_str(), names.data(), 27), 27);
  EXPECT_EQ(names, expected);
}

TEST_F(FrontExtendedTest, OtherSpacesOfNamesAreNotSupported) {
  put(at("a"), "x");
  const int before = asked("extendedAttribute");
  // Others than root may not even try these.
  const int expected = ::geteuid() == 0 ? ENOTSUP : EPERM;
  EXPECT_EQ(setError("trusted.x", "v"), expected);
  EXPECT_EQ(removeError("trusted.x"), expected);
  EXPECT_EQ(setError("security.x", "v"), ENOTSUP);
  EXPECT_EQ(valueOf("security.selinux"), "errno " + std::to_string(ENOTSUP));
  EXPECT_EQ(asked("extendedAttribute"), before);
  EXPECT_EQ(setError("user.kestrune.state", "v"), EPERM);
  EXPECT_EQ(valueOf("user.kestrune.state"), "local");
}

}  // namespace
}  // namespace kestrune::mounttest
