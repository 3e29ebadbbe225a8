#include "host/front/InheritedMount.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/values/NSError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

constexpr const char* kVariable = "KESTRUNE_HANDOVER";
constexpr int kSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;

int memoryWith(const std::string& bytes, int seals) {
  const int memory = ::memfd_create("test", MFD_ALLOW_SEALING);
  EXPECT_EQ(::write(memory, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(::fcntl(memory, F_ADD_SEALS, seals), 0);
  return memory;
}

TEST(InheritedMountTest, WithoutAWordThereIsNone) { EXPECT_FALSE(InheritedMount().exists()); }

TEST(InheritedMountTest, WhatIsReadIsClosedToOtherPrograms) {
  Handover handover;
  handover.head.device = ::dup(STDERR_FILENO);
  handover.head.mountPoint = "/nowhere";
  handover.replicaLock = ::dup(STDERR_FILENO);
  handover.restarts = 4;
  const int memory = memoryWith(handover.encode(), kSeals);
  const support::ScopedEnvironment word(kVariable, std::to_string(memory));
  InheritedMount inherited;
  ASSERT_TRUE(inherited.exists());
  EXPECT_EQ(std::getenv(kVariable), nullptr);
  EXPECT_EQ(inherited.read().restarts, 4U);
  for (const int descriptor : {memory, handover.head.device, handover.replicaLock})
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
  inherited.taken();
  EXPECT_FALSE(inherited.exists());
  EXPECT_LT(::fcntl(memory, F_GETFD), 0);
  ::close(handover.head.device);
  ::close(handover.replicaLock);
}

TEST(InheritedMountTest, AWordThatNamesSomethingElseIsNone) {
  const int open = memoryWith("KESTRUNE", F_SEAL_WRITE);
  for (const std::string& text :
       {std::string("0"), std::string("-1"), std::string("x"), std::string(""),
        std::string("99999"), std::to_string(open), std::to_string(open) + "x"}) {
    const support::ScopedEnvironment word(kVariable, text);
    EXPECT_FALSE(InheritedMount().exists()) << text;
    EXPECT_EQ(std::getenv(kVariable), nullptr);
  }
  ::close(open);
}

TEST(InheritedMountTest, AnUnreadableOneIsAnErrorOnceTold) {
  const int memory = memoryWith("something else", kSeals);
  const support::ScopedEnvironment word(kVariable, std::to_string(memory));
  InheritedMount inherited;
  ASSERT_TRUE(inherited.exists());
  EXPECT_THROW(inherited.read(), platform::NSPOSIXError);
  inherited.abandon();
  EXPECT_FALSE(inherited.exists());
}

TEST(InheritedMountTest, TheProgramIsKnownByThePathThatItWasStartedBy) {
  const support::TemporaryDirectory directory;
  const auto link = directory.path() / "link";
  std::filesystem::create_symlink("/proc/self/exe", link);
  std::filesystem::remove(link);
  const auto self = std::filesystem::read_symlink("/proc/self/exe");
  std::filesystem::create_symlink(self, link);
  EXPECT_EQ(presentProgram({link, "mount"}).file, link);
  EXPECT_EQ(presentProgram({link, "mount"}).arguments.at(1), "mount");
  // Whoever started it said something else.
  EXPECT_EQ(presentProgram({"a name of its own"}).file, self);
  EXPECT_EQ(presentProgram({}).file, self);
  const support::ScopedEnvironment search("PATH", "/nowhere:" + directory.path().string());
  EXPECT_EQ(presentProgram({"link"}).file, link);
}

}  // namespace
}  // namespace kestrune::host
