#include "platform/files/Directories.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace kestrune::platform {
namespace {

/// Sets the variable; null removes it. Each case runs in a process of its own.
void setVariable(const char* name, const char* value) {
  if (value == nullptr) {
    ::unsetenv(name);
  } else {
    ::setenv(name, value, 1);
  }
}

TEST(DirectoriesTest, ApplicationSupportFollowsTheEnvironment) {
  struct {
    const char* dataHome;
    const char* home;
    const char* expected;
  } const cases[] = {
      {"/data", "/home/u", "/data"},
      {"/data/", "/home/u", "/data/"},
      {"/d\u00E4ta \xFF", "/home/u", "/d\u00E4ta \xFF"},
      {nullptr, "/home/u", "/home/u/.local/share"},
      {"", "/home/u", "/home/u/.local/share"},
      {"relative", "/home/u", "/home/u/.local/share"},
      {"./relative", "/home/u", "/home/u/.local/share"},
      {"~/data", "/home/u", "/home/u/.local/share"},
      {nullptr, "/", "/.local/share"},
  };
  for (const auto& [dataHome, home, expected] : cases) {
    setVariable("XDG_DATA_HOME", dataHome);
    setVariable("HOME", home);
    EXPECT_EQ(applicationSupportDirectory(), expected);
  }
}

TEST(DirectoriesTest, ApplicationSupportIsNotCreated) {
  const auto missing = std::filesystem::path(testing::TempDir()) / "kestrune-never-made";
  setVariable("XDG_DATA_HOME", missing.c_str());
  EXPECT_EQ(applicationSupportDirectory(), missing);
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST(DirectoriesTest, WithoutHomeVariableTheAccountsHomeCounts) {
  setVariable("XDG_DATA_HOME", nullptr);
  for (const char* home : {static_cast<const char*>(nullptr), "", "relative"}) {
    setVariable("HOME", home);
    const auto directory = applicationSupportDirectory();
    EXPECT_TRUE(directory.is_absolute()) << directory;
    EXPECT_EQ(directory.parent_path().filename(), ".local") << directory;
  }
}

TEST(DirectoriesTest, WithoutAnyHomeTheProcessEnds) {
  if (::getuid() != 0) GTEST_SKIP() << "needs the right to become a user without an account";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        setVariable("XDG_DATA_HOME", nullptr);
        setVariable("HOME", nullptr);
        if (::setuid(1'234'567'890) == 0) applicationSupportDirectory();
      },
      "this user has no home directory");
}

TEST(DirectoriesTest, TemporaryDirectoryIsTheHostsThenTheUsersThenTmp) {
  setVariable("TMPDIR", nullptr);
  EXPECT_EQ(temporaryDirectory(), "/tmp");
  setVariable("TMPDIR", "");
  EXPECT_EQ(temporaryDirectory(), "/tmp");
  setVariable("TMPDIR", "relative");
  EXPECT_EQ(temporaryDirectory(), "/tmp");
  setVariable("TMPDIR", "/var/tmp/u");
  EXPECT_EQ(temporaryDirectory(), "/var/tmp/u");
  setTemporaryDirectory("/replica/tmp");
  EXPECT_EQ(temporaryDirectory(), "/replica/tmp");
  setTemporaryDirectory("/replica/other");
  EXPECT_EQ(temporaryDirectory(), "/replica/other");
}

}  // namespace
}  // namespace kestrune::platform
