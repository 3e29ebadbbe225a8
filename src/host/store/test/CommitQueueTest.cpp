#include "host/store/CommitQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <stdexcept>

#include "tests/support/Gate.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::host {
namespace {

using Survives = Database::Survives;

const Schema kSchema{4711, {"CREATE TABLE numbers (n INTEGER PRIMARY KEY)"}};

CommitQueue::Work insert(int n) {
  return [n](SQLite::Database& connection) {
    connection.exec("INSERT INTO numbers VALUES (" + std::to_string(n) + ")");
  };
}

struct CommitQueueTest : testing::Test {
  std::filesystem::path file() const { return directory.path() / "store.sqlite"; }

  std::unique_ptr<Database> open() {
    auto database = std::make_unique<Database>(file(), kSchema);
    sqlite3_commit_hook(
        database->connection().getHandle(),
        [](void* count) {
          ++*static_cast<std::atomic<int>*>(count);
          return 0;
        },
        &commits);
    return database;
  }

  std::vector<int> stored() const {
    Database database(file(), kSchema);
    SQLite::Statement query(database.connection(), "SELECT n FROM numbers ORDER BY n");
    std::vector<int> numbers;
    while (query.executeStep()) numbers.push_back(query.getColumn(0).getInt());
    return numbers;
  }

  support::TemporaryDirectory directory;
  std::atomic<int> commits = 0;
};

TEST_F(CommitQueueTest, WhatWasAcceptedIsThereAfterTheEnd) {
  std::vector<int> answered;
  {
    const auto database = open();
    CommitQueue queue(*database);
    for (int n = 0; n < 100; ++n) {
      queue.commit(insert(n), Survives::processEnd,
                   [&answered, n](const platform::NSErrorPtr& error) {
                     EXPECT_EQ(error, nullptr);
                     answered.push_back(n);
                   });
    }
  }
  std::vector<int> all(100);
  for (int n = 0; n < 100; ++n) all[static_cast<std::size_t>(n)] = n;
  EXPECT_EQ(answered, all);
  EXPECT_EQ(stored(), all);
}

TEST_F(CommitQueueTest, WhatComesDuringACommitGoesIntoTheNextTogether) {
  const support::Gate gate;
  {
    const auto database = open();
    CommitQueue queue(*database);
    std::atomic<bool> begun = false;
    queue.commit(
        [&](SQLite::Database& connection) {
          begun = true;
          EXPECT_GT(gate.take(1, std::chrono::seconds(30)), 0U);
          insert(0)(connection);
        },
        Survives::powerCut, [](const platform::NSErrorPtr&) {});
    ASSERT_TRUE(support::waitUntil([&] { return begun.load(); }));
    for (int n = 1; n <= 50; ++n)
      queue.commit(insert(n), Survives::processEnd, [](const platform::NSErrorPtr&) {});
    gate.open();
  }
  EXPECT_EQ(commits, 2);
  EXPECT_EQ(stored().size(), 51U);
}

TEST_F(CommitQueueTest, IsIdleWhenAllIsCommittedAndAnswered) {
  const support::Gate gate;
  const auto database = open();
  CommitQueue queue(*database);
  EXPECT_TRUE(support::waitUntil([&] { return queue.isIdle(); }));
  std::atomic<bool> isAnswering = false;
  queue.commit(insert(1), Survives::processEnd, [&](const platform::NSErrorPtr&) {
    isAnswering = true;
    EXPECT_GT(gate.take(1, std::chrono::seconds(30)), 0U);
  });
  EXPECT_FALSE(queue.isIdle());
  ASSERT_TRUE(support::waitUntil([&] { return isAnswering.load(); }));
  EXPECT_FALSE(queue.isIdle());
  gate.open();
  EXPECT_TRUE(support::waitUntil([&] { return queue.isIdle(); }));
}

TEST_F(CommitQueueTest, WhoFailsIsUndoneAlone) {
  platform::NSErrorPtr ofTheRule, ofTheWork;
  const support::Gate gate;
  {
    const auto database = open();
    CommitQueue queue(*database);
    queue.commit([&](SQLite::Database&) { (void)gate.take(1, std::chrono::seconds(30)); },
                 Survives::processEnd, [](const platform::NSErrorPtr&) {});
    queue.commit(insert(1), Survives::processEnd,
                 [](const platform::NSErrorPtr& error) { EXPECT_EQ(error, nullptr); });
    queue.commit(
        [](SQLite::Database& connection) {
          insert(2)(connection);
          insert(1)(connection);
        },
        Survives::processEnd, [&](platform::NSErrorPtr error) { ofTheRule = std::move(error); });
    queue.commit(
        [](SQLite::Database& connection) {
          insert(3)(connection);
          throw std::runtime_error("changed its mind");
        },
        Survives::processEnd, [&](platform::NSErrorPtr error) { ofTheWork = std::move(error); });
    queue.commit(insert(4), Survives::processEnd,
                 [](const platform::NSErrorPtr& error) { EXPECT_EQ(error, nullptr); });
    gate.open();
  }
  EXPECT_THAT(stored(), testing::ElementsAre(1, 4));
  ASSERT_NE(ofTheRule, nullptr);
  EXPECT_EQ(ofTheRule->domain(), StoreError::kDomain);
  EXPECT_THAT(ofTheRule->localizedDescription(), testing::HasSubstr("UNIQUE"));
  ASSERT_NE(ofTheWork, nullptr);
  EXPECT_EQ(ofTheWork->localizedDescription(), "changed its mind");
}

TEST_F(CommitQueueTest, AFullDiskFailsWhatWasToBeCommittedTogetherAndNothingLater) {
  std::vector<int> failed;
  std::atomic<int> answered = 0;
  {
    const auto database = open();
    CommitQueue queue(*database);
    const auto note = [&](int n) {
      return [&, n](const platform::NSErrorPtr& error) {
        if (error) failed.push_back(n);
        ++answered;
      };
    };
    const support::Gate gate;
    queue.commit([&](SQLite::Database&) { (void)gate.take(1, std::chrono::seconds(30)); },
                 Survives::processEnd, note(0));
    queue.commit(insert(1), Survives::processEnd, note(1));
    queue.commit(
        [](SQLite::Database& connection) {
          connection.exec("PRAGMA max_page_count = 3");
          connection.exec("CREATE TABLE filler (x)");
          for (int i = 0; i < 100; ++i)
            connection.exec("INSERT INTO filler VALUES (zeroblob(4000))");
        },
        Survives::processEnd, note(2));
    queue.commit(insert(3), Survives::processEnd, note(3));
    gate.open();
    ASSERT_TRUE(support::waitUntil([&] { return answered == 4; }));
    queue.commit(
        [](SQLite::Database& connection) { connection.exec("PRAGMA max_page_count = 1000"); },
        Survives::processEnd, note(4));
    queue.commit(insert(5), Survives::processEnd, note(5));
  }
  const auto numbers = stored();
  for (const int n : {1, 3, 5}) {
    const bool isThere = std::find(numbers.begin(), numbers.end(), n) != numbers.end();
    const bool didFail = std::find(failed.begin(), failed.end(), n) != failed.end();
    EXPECT_NE(isThere, didFail) << n;
  }
  EXPECT_THAT(failed, testing::Contains(2));
  EXPECT_THAT(numbers, testing::Contains(5));
}

// The process is killed at a random moment; every number whose commit was answered before is there.
TEST_F(CommitQueueTest, AnsweredCommitsSurviveAKill) {
  for (int round = 0; round < 10; ++round) {
    std::filesystem::remove(file());
    std::filesystem::remove(file().string() + "-wal");
    std::filesystem::remove(file().string() + "-shm");
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      Database database(file(), kSchema);
      CommitQueue queue(database);
      for (int n = 0;; ++n) {
        queue.commit(insert(n), Survives::processEnd,
                     [n, &ends](const platform::NSErrorPtr& error) {
                       if (!error && ::write(ends[1], &n, sizeof n) != sizeof n) ::_exit(1);
                     });
        if (n % 50 == 0) ::usleep(100);
      }
    }
    ::close(ends[1]);
    int last = -1;
    const int enough = 200 + round * 137;
    while (last < enough && ::read(ends[0], &last, sizeof last) == sizeof last) {
    }
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    int n = last;
    while (::read(ends[0], &n, sizeof n) == sizeof n) last = n;
    ::close(ends[0]);
    ASSERT_GE(last, enough);
    const auto numbers = stored();
    ASSERT_GT(numbers.size(), static_cast<std::size_t>(last));
    EXPECT_EQ(numbers[static_cast<std::size_t>(last)], last);
  }
}

}  // namespace
}  // namespace kestrune::host
