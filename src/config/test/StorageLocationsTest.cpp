#include "config/StorageLocations.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;

struct Location {
  fs::path (*compute)();
  std::string relative;
  /// The directory that computing it makes, below Application Support; empty for none.
  std::string made;
};

const Location kLocations[] = {
    {&storage::sharedDirectory, "Kestrune", "Kestrune"},
    {&storage::listingCacheDirectory, "Kestrune/listing-cache", "Kestrune/listing-cache"},
    {&storage::syncStatusFile, "Kestrune/sync-status.json", "Kestrune"},
    {&storage::invalidationTokenFile, "Kestrune/invalidation-token.txt", ""},
};

TEST(StorageLocations, EachLiesBelowApplicationSupportAndMakesItsOwnDirectory) {
  for (const auto& [compute, relative, made] : kLocations) {
    const support::IsolatedStorage isolated;
    const fs::path support = isolated.applicationSupport();
    ASSERT_FALSE(fs::exists(support));
    EXPECT_EQ(compute(), support / relative);
    EXPECT_EQ(fs::exists(support), !made.empty()) << relative;
    if (made.empty()) continue;
    EXPECT_TRUE(fs::is_directory(support / made)) << relative;
    EXPECT_TRUE(fs::is_empty(support / made)) << relative;
  }
}

TEST(StorageLocations, ComputingOneAgainIsHarmless) {
  const support::IsolatedStorage isolated;
  for (const auto& location : kLocations) {
    const fs::path first = location.compute();
    EXPECT_EQ(location.compute(), first);
  }
}

TEST(StorageLocations, NamesOfFilesInTheSharedDirectory) {
  EXPECT_EQ(storage::kConfigurationFile, "config.json");
  EXPECT_EQ(storage::kPinsFile, "pinned.json");
}

TEST(StorageLocations, DirectoriesAreTheUsersAlone) {
  const support::IsolatedStorage isolated;
  for (const auto& directory : {storage::sharedDirectory(), storage::listingCacheDirectory()}) {
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms::owner_all) << directory;
  }
}

TEST(StorageLocations, ModesThatTheUserChoseStay) {
  const support::IsolatedStorage isolated;
  const auto chosen = fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec;
  fs::permissions(storage::sharedDirectory(), chosen);
  EXPECT_EQ(fs::status(storage::sharedDirectory()).permissions(), chosen);
}

TEST(StorageLocations, DirectoriesThatCannotBeMadeAreNamedAllTheSame) {
  const support::IsolatedStorage isolated;
  isolated.blockShared();
  for (const auto& [compute, relative, made] : kLocations) {
    EXPECT_EQ(compute(), isolated.applicationSupport() / relative);
  }
}

TEST(StorageLocations, TheEnvironmentDecidesAtEachCall) {
  const support::IsolatedStorage first;
  EXPECT_EQ(storage::invalidationTokenFile().parent_path(), first.shared());
  const support::IsolatedStorage second;
  EXPECT_EQ(storage::invalidationTokenFile().parent_path(), second.shared());
}

TEST(StorageLocations, WithoutAVariableTheyLieInTheHomeDirectory) {
  const support::IsolatedStorage isolated;
  const support::ScopedEnvironment none("XDG_DATA_HOME", std::nullopt);
  const support::ScopedEnvironment home("HOME", isolated.temporary().string());
  EXPECT_EQ(storage::sharedDirectory(), isolated.temporary() / ".local/share/Kestrune");
  EXPECT_TRUE(fs::is_directory(isolated.temporary() / ".local/share/Kestrune"));
}

}  // namespace
}  // namespace kestrune
