#include "host/control/ControlSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/control/test/FakeHostControl.h"
#include "platform/values/NSError.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class ControlSocketTest : public testing::Test {
 protected:
  fs::path file() const { return directory.path() / "control" / "main.sock"; }
  static mode_t modeOf(const fs::path& path) {
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
  }
  static platform::NSErrorPtr refusalAt(const fs::path& path) {
    try {
      const ControlSocket socket(path);
    } catch (const platform::NSError& error) {
      return error.share();
    }
    return nullptr;
  }
  support::TemporaryDirectory directory;
};

TEST_F(ControlSocketTest, IsTheUsersOwnAndGoesWithItsHost) {
  {
    const ControlSocket socket(file());
    EXPECT_EQ(modeOf(file()), 0600U);
    EXPECT_EQ(modeOf(file().parent_path()), 0700U);
    EXPECT_NO_THROW(ControlSocket::connect(file()));
  }
  EXPECT_FALSE(fs::exists(file()));
}

TEST_F(ControlSocketTest, AnOpenFolderIsMadePrivate) {
  fs::create_directory(file().parent_path());
  ASSERT_EQ(::chmod(file().parent_path().c_str(), 0777), 0);
  const ControlSocket socket(file());
  EXPECT_EQ(modeOf(file().parent_path()), 0700U);
}

TEST_F(ControlSocketTest, AFolderThatIsALinkIsRefused) {
  fs::create_directory(directory.path() / "elsewhere");
  fs::create_directory_symlink(directory.path() / "elsewhere", file().parent_path());
  EXPECT_NE(refusalAt(file()), nullptr);
}

TEST_F(ControlSocketTest, ASecondHostIsRefusedAndTheFirstGoesOn) {
  const ControlSocket first(file());
  const auto refusal = refusalAt(file());
  ASSERT_NE(refusal, nullptr);
  EXPECT_EQ(refusal->code(), EADDRINUSE);
  EXPECT_THAT(refusal->localizedDescription(), HasSubstr("another running host"));
  EXPECT_NO_THROW(ControlSocket::connect(file()));
  const ControlSocket other(directory.path() / "control" / "other.sock");
}

TEST_F(ControlSocketTest, TheSocketOfADeadHostIsReplaced) {
  const pid_t child = ::fork();
  if (child == 0) {
    const ControlSocket socket(file());
    ::_exit(fs::exists(file()) ? 0 : 1);  // without an end
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  ASSERT_TRUE(fs::exists(file()));
  EXPECT_THROW(ControlSocket::connect(file()), platform::NSPOSIXError);
  const ControlSocket socket(file());
  EXPECT_NO_THROW(ControlSocket::connect(file()));
}

TEST_F(ControlSocketTest, WhatIsNoSocketStays) {
  directory.write("control/main.sock", "somebody's file");
  const auto refusal = refusalAt(file());
  ASSERT_NE(refusal, nullptr);
  EXPECT_EQ(refusal->code(), EEXIST);
  EXPECT_EQ(support::contentsOf(file()), "somebody's file");
}

TEST_F(ControlSocketTest, APathTooLongForAnAddressWorks) {
  const fs::path folder = directory.path() / std::string(200, 'd');
  fs::create_directory(folder);
  const ControlSocket socket(folder / "control" / "main.sock");
  EXPECT_NO_THROW(ControlSocket::connect(folder / "control" / "main.sock"));
}

TEST_F(ControlSocketTest, AnotherUserIsTurnedAway) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const ControlSocket socket(file());
  // As if somebody had opened all of it up.
  for (fs::path at = file().parent_path(); at != at.root_path(); at = at.parent_path()) {
    struct stat status = {};
    ASSERT_EQ(::stat(at.c_str(), &status), 0);
    if ((status.st_mode & 05U) != 05U) ASSERT_EQ(::chmod(at.c_str(), 0755), 0) << at;
  }
  ASSERT_EQ(::chmod(file().c_str(), 0666), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    constexpr uid_t kNobody = 65534;
    if (::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(2);
    const std::string path = file().string();
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) ::_exit(3);
    std::memcpy(&address.sun_path[0], path.c_str(), path.size() + 1);
    const int connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const bool connected =
        ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::_exit(connected ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0) << "the other user did not get as far as the check";
  const auto accepted = socket.accept();
  ASSERT_TRUE(accepted.connection);
  EXPECT_FALSE(accepted.isPermitted);
}

TEST_F(ControlSocketTest, TheSameUserIsPermittedAndNobodyIsNobody) {
  const ControlSocket socket(file());
  EXPECT_FALSE(socket.accept().connection);
  const auto connection = ControlSocket::connect(file());
  const auto accepted = socket.accept();
  ASSERT_TRUE(accepted.connection);
  EXPECT_TRUE(accepted.isPermitted);
}

}  // namespace
}  // namespace kestrune::host
