#include "sandbox/SandboxRules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "platform/values/NSError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::sandbox {

namespace {

using std::filesystem::path;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class SandboxRulesTest : public testing::Test {
 protected:
  SandboxRulesTest() {
    for (const char* name : {"shared", "replica/tmp", "replica/outgoing", "shared/replica/tmp",
                             "shared/replica/outgoing"})
      std::filesystem::create_directories(root_ / name);
    std::filesystem::create_directory_symlink("shared", root_ / "link");
  }

  SandboxPaths paths(const char* replica = "replica") const {
    return {root_ / "shared",
            root_ / replica / "tmp",
            root_ / replica / "outgoing",
            directory_.write("program", ""),
            {}};
  }

  support::TemporaryDirectory directory_;
  const path root_ = std::filesystem::canonical(directory_.path());
};

std::optional<Access> accessOf(const SandboxRules& rules, const path& place) {
  for (const Place& known : rules.places) {
    if (known.path == place) return known.access;
  }
  return std::nullopt;
}

/// Whether the table reaches `wanted` by any of its places.
bool reaches(const SandboxRules& rules, const path& wanted) {
  return std::ranges::any_of(rules.places,
                             [&](const Place& place) { return isWithin(wanted, place.path); });
}

int failureOf(const SandboxPaths& paths) {
  try {
    rulesFor(paths);
  } catch (const platform::NSPOSIXError& error) {
    return static_cast<int>(error.code());
  }
  return 0;
}

TEST_F(SandboxRulesTest, HaveThePathsWithTheirRights) {
  const auto rules = rulesFor(paths());
  EXPECT_EQ(accessOf(rules, root_ / "shared"), Access::readWrite);
  EXPECT_EQ(accessOf(rules, root_ / "replica/tmp"), Access::readWrite);
  EXPECT_EQ(accessOf(rules, root_ / "replica/outgoing"), Access::read);
  EXPECT_EQ(accessOf(rules, root_ / "program"), Access::read);
  EXPECT_EQ(rules.program, root_ / "program");
  EXPECT_THAT(rules.covered, IsEmpty());
}

TEST_F(SandboxRulesTest, HaveTheSystemsLibrariesButNotItsSecrets) {
  const auto rules = rulesFor(paths());
  EXPECT_EQ(accessOf(rules, "/usr"), Access::read);
  EXPECT_EQ(accessOf(rules, "/dev/null"), Access::device);
  for (const char* secret : {"/", "/etc", "/etc/shadow", "/etc/ssl/private", "/root", "/home",
                             "/run", "/var", "/tmp", "/dev", "/dev/mem", "/sys", "/boot"})
    EXPECT_FALSE(reaches(rules, secret)) << secret;
  const auto isWritable = [](const Place& place) { return place.access == Access::readWrite; };
  EXPECT_EQ(std::ranges::count_if(rules.places, isWritable), 2);
}

TEST_F(SandboxRulesTest, NoPlaceIsALink) {
  for (const Place& place : rulesFor(paths()).places)
    EXPECT_EQ(std::filesystem::canonical(place.path), place.path);
}

TEST_F(SandboxRulesTest, PathsThroughALinkAreKnownByBothNames) {
  auto given = paths();
  given.shared = root_ / "link/";
  const auto rules = rulesFor(given);
  EXPECT_EQ(accessOf(rules, root_ / "shared"), Access::readWrite);
  EXPECT_EQ(accessOf(rules, root_ / "link"), std::nullopt);
  EXPECT_THAT(rules.links, Contains(Link{root_ / "link", root_ / "shared"}));
}

TEST_F(SandboxRulesTest, AReplicaInTheSharedDirectoryIsCoveredButForItsTwoPlaces) {
  auto given = paths("shared/replica");
  EXPECT_THAT(rulesFor(given).covered, ElementsAre(root_ / "shared/replica"));
  given.shared = root_ / "link";
  given.temporary = root_ / "link/replica/tmp";
  const auto rules = rulesFor(given);
  EXPECT_THAT(rules.covered, ElementsAre(root_ / "shared/replica"));
  EXPECT_EQ(accessOf(rules, root_ / "shared/replica/tmp"), Access::readWrite);
  EXPECT_EQ(accessOf(rules, root_ / "shared/replica/outgoing"), Access::read);
  EXPECT_THAT(rules.links, Contains(Link{root_ / "link", root_ / "shared"}));
  EXPECT_THAT(rules.links, Not(Contains(testing::Field(&Link::path, root_ / "link/replica/tmp"))));
}

TEST_F(SandboxRulesTest, PathsThatWouldOpenMoreAreRefused) {
  EXPECT_EQ(failureOf(paths()), 0);
  const auto with = [&](path SandboxPaths::*field, const path& value) {
    auto given = paths();
    given.*field = value;
    return failureOf(given);
  };
  EXPECT_EQ(with(&SandboxPaths::shared, "shared"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::shared, ""), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::shared, root_ / "replica/../shared"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::shared, root_ / "replica/tmp"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::temporary, root_), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::temporary, root_ / "shared/replica"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::outgoing, root_ / "replica/tmp"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::outgoing, root_ / "replica"), EINVAL);
  EXPECT_EQ(with(&SandboxPaths::outgoing, root_ / "nothing"), ENOENT);
  EXPECT_EQ(with(&SandboxPaths::program, root_ / "nothing"), ENOENT);
}

TEST_F(SandboxRulesTest, DifferWhenAFileWasReplaced) {
  auto given = paths();
  given.certificates = directory_.write("certificates", "one");
  const auto before = rulesFor(given);
  EXPECT_EQ(rulesFor(given), before);
  directory_.write("certificates", "one and another, in the same file");
  EXPECT_EQ(rulesFor(given), before);
  directory_.write("new", "two");
  std::filesystem::rename(root_ / "new", root_ / "certificates");
  EXPECT_NE(rulesFor(given), before);
}

TEST_F(SandboxRulesTest, ACertificateStoreThatIsNotThereIsLeftOut) {
  auto given = paths();
  given.certificates = root_ / "nothing";
  EXPECT_EQ(rulesFor(given), rulesFor(paths()));
}

TEST(IsWithinTest, ComparesWholeNames) {
  EXPECT_TRUE(isWithin("/a/b", "/a/b"));
  EXPECT_TRUE(isWithin("/a/b/c", "/a/b"));
  EXPECT_TRUE(isWithin("/a", "/"));
  EXPECT_FALSE(isWithin("/a/bc", "/a/b"));
  EXPECT_FALSE(isWithin("/a", "/a/b"));
}

}  // namespace

}  // namespace kestrune::sandbox
