// A store that changes without saying so is found out, slowly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/volume/test/HostHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

class AuditorTest : public testing::Test, public HostHarness {
 protected:
  AuditorTest() { fileSystem().auditor()->begin(); }

  std::optional<AuditReport> last() { return fileSystem().auditor()->last(); }
  /// Until `count` folders have been compared.
  bool passUntilCompared(std::uint64_t count) {
    const auto isCompared = [&] { return last() && last()->comparedInAll == count; };
    for (std::uint64_t tries = 0; tries < 3 && !isCompared(); ++tries) {
      skip(Auditor::kEvery);
      passUntil(isCompared, seconds(2));
    }
    return isCompared();
  }
};

TEST_F(AuditorTest, WhatNobodySaidIsFoundAndCounted) {
  remote().putFile("/changed", "old");
  remote().putFile("/gone", "x");
  remote().putFile("/same", "y");
  names();
  remote().overwrite("/changed", "newer");
  remote().remove("/gone");
  remote().putFile("/new", "z");
  EXPECT_THAT(names(), UnorderedElementsAre("changed", "gone", "same"));
  ASSERT_TRUE(passUntilCompared(1));
  EXPECT_EQ(last()->differences, 3U);
  EXPECT_EQ(last()->path, "/");
  EXPECT_THAT(names(), UnorderedElementsAre("changed", "new", "same"));
  EXPECT_EQ(readPath("/changed"), "newer");
  ASSERT_TRUE(passUntilCompared(2));
  EXPECT_EQ(last()->differences, 0U);
  EXPECT_EQ(last()->differencesInAll, 3U);
}

TEST_F(AuditorTest, OneFolderAtATimeTheLongestUnseenFirst) {
  remote().putFolder("/a");
  remote().putFolder("/b");
  remote().putFolder("/never visited");
  names();
  names(find("/a").node);
  names(find("/b").node);
  std::vector<std::string> paths;
  for (std::uint64_t count = 1; count <= 4; ++count) {
    ASSERT_TRUE(passUntilCompared(count));
    paths.push_back(last()->path);
  }
  EXPECT_THAT(paths, ElementsAre("/", "/a", "/b", "/"));
  EXPECT_EQ(remote().asked(Ask::items, "/never visited"), 0);
}

TEST_F(AuditorTest, AFolderThatCannotBeListedDoesNotHoldUpTheOthers) {
  remote().putFolder("/a");
  names();
  names(find("/a").node);
  remote().failWith(Ask::items, "/", platform::NSPOSIXError(EIO, "list").share());
  ASSERT_TRUE(passUntilCompared(1));
  EXPECT_EQ(last()->path, "/a");
}

TEST_F(AuditorTest, WhatWasSentFromHereIsNoDifference) {
  names();
  save("/a", "hello");
  ASSERT_TRUE(waitUntilSent());
  ASSERT_TRUE(passUntilCompared(1));
  EXPECT_EQ(last()->differences, 0U);
}

}  // namespace
}  // namespace kestrune::host::test
