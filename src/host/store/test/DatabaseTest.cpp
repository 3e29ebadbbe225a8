#include "host/store/Database.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

using testing::HasSubstr;

const Schema kFirst{4711, {"CREATE TABLE items (id INTEGER PRIMARY KEY, name TEXT NOT NULL)"}};
const Schema kSecond{4711,
                     {kFirst.steps[0],
                      "ALTER TABLE items ADD COLUMN size INTEGER NOT NULL DEFAULT 0; CREATE INDEX "
                      "names ON items (name)"}};

struct DatabaseTest : testing::Test {
  std::filesystem::path file() const { return directory.path() / "store.sqlite"; }

  /// How opening fails.
  StoreError::Case failure(const Schema& schema) const {
    try {
      const Database database(file(), schema);
    } catch (const StoreError& error) {
      return error.which();
    }
    ADD_FAILURE() << "it opened";
    return StoreError::Case::failed;
  }

  void overwrite(std::streamoff at, const std::string& bytes) const {
    std::fstream stream(file(), std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(at);
    stream << bytes;
  }

  support::TemporaryDirectory directory;
};

std::int64_t number(Database& database, const std::string& query) {
  return database.connection().execAndGet(query).getInt64();
}

TEST_F(DatabaseTest, IsMadeWithTheSchemaForItsUserAlone) {
  Database database(file(), kFirst);
  database.connection().exec("INSERT INTO items (name) VALUES ('a')");
  for (const char* suffix : {"", "-wal"}) {
    struct stat attributes {};
    ASSERT_EQ(::stat((file().string() + suffix).c_str(), &attributes), 0) << suffix;
    EXPECT_EQ(attributes.st_mode & 0777U, 0600U) << suffix;
  }
  EXPECT_EQ(number(database, "PRAGMA user_version"), 1);
}

TEST_F(DatabaseTest, KeepsWhatWasCommitted) {
  Database(file(), kFirst).connection().exec("INSERT INTO items (name) VALUES ('a')");
  Database again(file(), kFirst);
  EXPECT_EQ(number(again, "SELECT count(*) FROM items WHERE name = 'a'"), 1);
}

TEST_F(DatabaseTest, IsBroughtToTheLastVersionWithItsRows) {
  Database(file(), kFirst).connection().exec("INSERT INTO items (name) VALUES ('a')");
  Database database(file(), kSecond);
  EXPECT_EQ(number(database, "PRAGMA user_version"), 2);
  EXPECT_EQ(number(database, "SELECT size FROM items WHERE name = 'a'"), 0);
}

TEST_F(DatabaseTest, AStepThatFailsLeavesTheVersionBefore) {
  const Schema broken{4711, {kFirst.steps[0], "CREATE TABLE more (x); CREATE TABLE items (y)"}};
  EXPECT_EQ(failure(broken), StoreError::Case::failed);
  Database database(file(), kFirst);
  EXPECT_EQ(number(database, "PRAGMA user_version"), 1);
  EXPECT_EQ(number(database, "SELECT count(*) FROM sqlite_schema WHERE name = 'more'"), 0);
}

TEST_F(DatabaseTest, ANewerOneIsRefusedAndLeftAsItIs) {
  Database(file(), kSecond);
  EXPECT_EQ(failure(kFirst), StoreError::Case::newer);
  Database database(file(), kSecond);
  EXPECT_EQ(number(database, "PRAGMA user_version"), 2);
}

TEST_F(DatabaseTest, AnotherProgramsIsRefused) {
  Database(file(), kFirst);
  EXPECT_EQ(failure({4712, kFirst.steps}), StoreError::Case::foreign);
}

TEST_F(DatabaseTest, WhatIsNoDatabaseIsDamaged) {
  directory.write("store.sqlite", std::string(5000, 'x'));
  EXPECT_EQ(failure(kFirst), StoreError::Case::damaged);
}

TEST_F(DatabaseTest, ADamagedPageIsFound) {
  {
    Database database(file(), kFirst);
    for (int i = 0; i < 500; ++i)
      database.connection().exec("INSERT INTO items (name) VALUES (hex(randomblob(50)))");
  }
  ASSERT_GT(std::filesystem::file_size(file()), 16'384U);
  overwrite(8192, std::string(4096, '\xFF'));
  EXPECT_EQ(failure(kFirst), StoreError::Case::damaged);
}

TEST_F(DatabaseTest, ATruncatedOneIsDamaged) {
  {
    Database database(file(), kFirst);
    for (int i = 0; i < 500; ++i)
      database.connection().exec("INSERT INTO items (name) VALUES (hex(randomblob(50)))");
  }
  std::filesystem::resize_file(file(), 8192);
  EXPECT_EQ(failure(kFirst), StoreError::Case::damaged);
}

TEST_F(DatabaseTest, SettingAsideMakesRoomAndKeepsTheRest) {
  directory.write("store.sqlite", "damaged");
  directory.write("store.sqlite-wal", "log");
  const auto aside = Database::setAside(file());
  EXPECT_EQ(support::contentsOf(aside), "damaged");
  EXPECT_EQ(support::contentsOf(aside.string() + "-wal"), "log");
  EXPECT_THAT(aside.filename().string(), HasSubstr("store.sqlite.damaged-"));
  EXPECT_EQ(directory.entryCount(), 2U);
  Database database(file(), kFirst);
}

TEST_F(DatabaseTest, AFolderThatIsMissingIsSaid) {
  try {
    const Database database(directory.path() / "missing" / "store", kFirst);
    ADD_FAILURE();
  } catch (const StoreError& error) {
    EXPECT_EQ(error.which(), StoreError::Case::failed);
    EXPECT_THAT(error.localizedDescription(), HasSubstr("No such file or directory"));
  }
}

TEST_F(DatabaseTest, ALinkIsNotFollowed) {
  const auto target = directory.write("target", "");
  std::filesystem::create_symlink(target, file());
  EXPECT_EQ(failure(kFirst), StoreError::Case::failed);
  EXPECT_EQ(support::contentsOf(target), "");
}

TEST_F(DatabaseTest, CommitsSurviveWhatIsAsked) {
  Database database(file(), kFirst);
  EXPECT_EQ(number(database, "PRAGMA synchronous"), 2);
  database.setSurvives(Database::Survives::processEnd);
  EXPECT_EQ(number(database, "PRAGMA synchronous"), 1);
  database.setSurvives(Database::Survives::powerCut);
  EXPECT_EQ(number(database, "PRAGMA synchronous"), 2);
}

}  // namespace
}  // namespace kestrune::host
