// Changes that the database does not take, as on a full disk.
#include <SQLiteCpp/SQLiteCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <span>
#include <string>

#include "host/basics/ErrorToErrno.h"
#include "host/volume/Sender.h"
#include "host/volume/test/HostHarness.h"

namespace kestrune::host::test {
namespace {

using std::chrono::seconds;
using testing::IsEmpty;
using testing::SizeIs;

class FullDatabaseTest : public testing::Test, public HostHarness {
 protected:
  void SetUp() override {
    // Mounted again with a database that can be told to be full.
    setSuccession({[this](Volume::Services& services) {
                     services.store.reset();
                     auto opened = openItems(replica() / "items.sqlite").database;
                     SQLite::Database& connection = opened->connection();
                     connection.createFunction("is_full", 0, false, &isFull_, &tellFull);
                     connection.exec(
                         "CREATE TEMP TRIGGER full BEFORE INSERT ON main.item WHEN is_full() "
                         "BEGIN SELECT RAISE(ABORT, 'full'); END");
                     services.store = std::make_shared<ItemStore>(std::move(opened));
                   },
                   [](FileSystem&) {}});
    restart();
    names();
    remote().putFile("/a", "first");
    announce();
    ASSERT_TRUE(waitForNames({"a"}));
  }
  // The errno of writing in the middle of it while nothing can be remembered.
  int writeWhileFull(const std::string& path) {
    const OpenFilePtr file = openForWriting(path);
    isFull_ = true;
    const std::string text = "xx";
    const Awaited<Done> written;
    fileSystem().write(file, 2, std::as_bytes(std::span(text)), written.reply());
    const int error = errnoOf(written.get());
    isFull_ = false;
    close(file);
    return error;
  }

 private:
  static void tellFull(sqlite3_context* context, int, sqlite3_value**) {
    const auto& isFull = *static_cast<std::atomic<bool>*>(sqlite3_user_data(context));
    sqlite3_result_int(context, isFull ? 1 : 0);
  }
  std::atomic<bool> isFull_ = false;
};

TEST_F(FullDatabaseTest, AWriteThatCouldNotBeRememberedIsNotSentAndTheNextOneIs) {
  for (const bool isHere : {false, true}) {
    if (isHere) EXPECT_EQ(readPath("/a"), "first");
    EXPECT_NE(writeWhileFull("/a"), 0);
    pass(seconds(20));
    EXPECT_THAT(remote().uploads(), IsEmpty()) << isHere;
    EXPECT_EQ(sender().countUnsent(), 0U) << isHere;
    EXPECT_EQ(readPath("/a"), "first") << isHere;
  }
  save("/a", "second");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "second");
  EXPECT_THAT(remote().uploads(), SizeIs(1));
}

TEST_F(FullDatabaseTest, WhatIsOnItsWayMeanwhileArrivesAndThereIsAnEnd) {
  readPath("/a");
  remote().hold(Ask::modify, "/a");
  save("/a", "second");
  ASSERT_TRUE(passUntil([this] { return remote().asked(Ask::modify, "/a") == 1; }));
  EXPECT_NE(writeWhileFull("/a"), 0);
  remote().stopHolding(Ask::modify, "/a");
  ASSERT_TRUE(waitUntilSent());
  pass(seconds(20));
  EXPECT_LE(remote().uploads().size(), 2U);
  EXPECT_EQ(remote().contents("/a"), "second");
  EXPECT_EQ(readPath("/a"), "second");
}

TEST_F(FullDatabaseTest, NothingOfItIsLeftAfterARestart) {
  EXPECT_NE(writeWhileFull("/a"), 0);
  pass(seconds(5));
  restart();
  names();
  EXPECT_EQ(sender().countUnsent(), 0U);
  EXPECT_EQ(readPath("/a"), "first");
  save("/a", "second");
  ASSERT_TRUE(waitUntilSent());
  EXPECT_EQ(remote().contents("/a"), "second");
}

}  // namespace
}  // namespace kestrune::host::test
