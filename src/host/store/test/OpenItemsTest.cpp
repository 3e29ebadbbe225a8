// What is opened, replaced, and left where it is.
#include "host/store/ItemTable.h"

#include <SQLiteCpp/Transaction.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <optional>

#include "host/store/ItemColumns.h"
#include "host/store/test/SampleRows.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct OpenItemsTest : testing::Test {
  OpenItemsTest() {
    const auto made = openItems(file());
    EXPECT_EQ(made.setAside, "");
    ItemTable table(made.database->connection());
    SQLite::Transaction transaction(made.database->connection());
    for (ItemId id = 2; id < 2000; ++id) table.put(sampleFile(id));
    transaction.commit();
  }

  std::filesystem::path file() const { return directory.path() / "items.sqlite"; }

  /// How opening fails.
  StoreError::Case failure() const {
    try {
      (void)openItems(file());
    } catch (const StoreError& error) {
      return error.which();
    }
    ADD_FAILURE() << "it opened";
    return StoreError::Case::damaged;
  }

  /// The database that cannot be used lies beside an empty one.
  void expectReplaced(std::uintmax_t bytes) const {
    const OpenedItems opened = openItems(file());
    EXPECT_NE(opened.setAside, "");
    EXPECT_NE(opened.reason, "");
    EXPECT_EQ(std::filesystem::file_size(opened.setAside), bytes);
    EXPECT_THAT(loaded(opened.database->connection()), IsEmpty());
    ItemTable(opened.database->connection()).put(sampleFile(2));
  }

  support::TemporaryDirectory directory;
};

TEST_F(OpenItemsTest, ASoundOneIsOpened) {
  const OpenedItems opened = openItems(file());
  EXPECT_EQ(opened.setAside, "");
  EXPECT_EQ(opened.reason, "");
  EXPECT_EQ(loaded(opened.database->connection()).size(), 1998U);
}

TEST_F(OpenItemsTest, GarbageIsReplaced) {
  directory.write("items.sqlite", std::string(70'000, 'x'));
  expectReplaced(70'000);
}

TEST_F(OpenItemsTest, ATruncatedOneIsReplaced) {
  for (const std::uintmax_t bytes : {50U, 4096U, 5000U, 8192U}) {
    SCOPED_TRACE(bytes);
    openItems(file()).database->connection().exec("PRAGMA wal_checkpoint(TRUNCATE)");
    std::filesystem::resize_file(file(), bytes);
    expectReplaced(bytes);
    const auto opened = openItems(file());
    ItemTable table(opened.database->connection());
    for (ItemId id = 2; id < 200; ++id) table.put(sampleFile(id));
  }
}

TEST_F(OpenItemsTest, ADamagedPageIsReplaced) {
  const auto bytes = std::filesystem::file_size(file());
  {
    std::fstream stream(file(), std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(static_cast<std::streamoff>(bytes / 2 / 4096 * 4096));
    stream << std::string(4096, '\xFF');
  }
  expectReplaced(bytes);
}

TEST_F(OpenItemsTest, WhatTurnsOutDamagedWhenItIsLoadedCanBeReplaced) {
  std::string reason;
  {
    const auto opened = openItems(file());
    opened.database->connection().exec("UPDATE item SET there_policy = 77 WHERE id = 1000");
    try {
      loaded(opened.database->connection());
    } catch (const StoreError& error) {
      EXPECT_EQ(error.which(), StoreError::Case::damaged);
      reason = error.localizedDescription();
    }
  }
  EXPECT_THAT(reason, HasSubstr("item 1000"));
  const auto replaced = replaceItems(file(), reason);
  EXPECT_EQ(replaced.reason, reason);
  EXPECT_TRUE(std::filesystem::exists(replaced.setAside));
  EXPECT_THAT(loaded(replaced.database->connection()), IsEmpty());
}

// What a host leaves that was killed while it made its first database.
TEST_F(OpenItemsTest, AFileOfNoBytesIsNew) {
  std::filesystem::resize_file(file(), 0);
  const auto opened = openItems(file());
  EXPECT_EQ(opened.setAside, "");
  EXPECT_THAT(loaded(opened.database->connection()), IsEmpty());
}

TEST_F(OpenItemsTest, AFolderInItsPlaceIsLeftThere) {
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  EXPECT_EQ(failure(), StoreError::Case::failed);
  EXPECT_TRUE(std::filesystem::is_directory(file()));
}

TEST_F(OpenItemsTest, ANewerOneIsLeftThere) {
  Schema later = itemSchema();
  later.steps.emplace_back("CREATE TABLE invented (x)");
  { const Database database(file(), later); }
  EXPECT_EQ(failure(), StoreError::Case::newer);
  Database database(file(), later);
  EXPECT_EQ(loaded(database.connection()).size(), 1998U);
}

TEST_F(OpenItemsTest, AnotherProgramsIsLeftThere) {
  std::filesystem::remove(file());
  const Schema other{4711, {"CREATE TABLE item (id)"}};
  { const Database database(file(), other); }
  EXPECT_EQ(failure(), StoreError::Case::foreign);
  const Database database(file(), other);
}

TEST_F(OpenItemsTest, WhatWasCommittedBeforeAKillIsThere) {
  const pid_t child = ::fork();
  if (child == 0) {
    const auto opened = openItems(file());
    ItemTable table(opened.database->connection());
    for (ItemId id = 2; id < 1000; ++id) table.remove(id);
    table.put(sampleFile(5000));
    SQLite::Transaction unfinished(opened.database->connection());
    table.remove(1999);
    ::kill(::getpid(), SIGKILL);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_GT(std::filesystem::file_size(file().string() + "-wal"), 0U);
  const auto opened = openItems(file());
  EXPECT_EQ(opened.setAside, "");
  const auto rows = loaded(opened.database->connection());
  EXPECT_EQ(rows.size(), 1001U);
  EXPECT_EQ(rows.back(), sampleFile(5000));
}

TEST_F(OpenItemsTest, WithoutRoomNothingIsMadeAndNothingIsLost) {
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small{2000, before.rlim_max};
  const auto bytes = support::contentsOf(file());
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  StoreError::Case ofNew{};
  try {
    (void)openItems(directory.path() / "new.sqlite");
    ADD_FAILURE() << "it was made";
  } catch (const StoreError& error) {
    ofNew = error.which();
  }
  // The old one may open or not, but it stays where it is.
  try {
    const auto opened = openItems(file());
    EXPECT_EQ(opened.setAside, "");
  } catch (const StoreError& error) {
    EXPECT_EQ(error.which(), StoreError::Case::failed);
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(ofNew, StoreError::Case::failed);
  EXPECT_EQ(loaded(openItems(file()).database->connection()).size(), 1998U);
  EXPECT_EQ(openItems(directory.path() / "new.sqlite").setAside, "");
}

}  // namespace
}  // namespace kestrune::host
