#include "host/Replica.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/values/NSError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

namespace fs = std::filesystem;
using platform::NSPOSIXError;

class ReplicaTest : public testing::Test {
 protected:
  template <class Action>
  static std::int64_t errnoOf(const Action& action) {
    try {
      action();
    } catch (const NSPOSIXError& error) {
      return error.code();
    }
    return 0;
  }
  support::TemporaryDirectory directory_;
  const fs::path replica_ = directory_.path() / "deep" / "replica";
};

TEST_F(ReplicaTest, ItsFoldersArePrivate) {
  const Replica replica(replica_);
  for (const auto& folder : {replica_, replica_ / "contents", replica_ / "tmp"}) {
    EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all) << folder;
  }
  EXPECT_EQ(replica.temporaryDirectory(), replica_ / "tmp");
}

TEST_F(ReplicaTest, WhatAnEarlierHostLeftIsRemovedAndNothingElse) {
  directory_.write("outside/precious", "x");
  { const Replica replica(replica_); }
  directory_.write("deep/replica/contents/17", "old");
  directory_.write("deep/replica/contents/stranger", "old");
  directory_.write("deep/replica/tmp/half/file", "old");
  fs::create_symlink(directory_.path() / "outside", replica_ / "contents" / "link");
  fs::create_directory_symlink(directory_.path() / "outside", replica_ / "tmp" / "link");
  const Replica replica(replica_);
  EXPECT_TRUE(fs::is_empty(replica_ / "contents"));
  EXPECT_TRUE(fs::is_empty(replica_ / "tmp"));
  EXPECT_TRUE(fs::exists(directory_.path() / "outside" / "precious"));
}

TEST_F(ReplicaTest, TwoHostsCannotShareIt) {
  const Replica replica(replica_);
  EXPECT_EQ(errnoOf([&] { const Replica other(replica_); }), EBUSY);
}

TEST_F(ReplicaTest, ALinkInTheWayIsRefused) {
  fs::create_directories(directory_.path() / "deep");
  fs::create_directory_symlink(directory_.path(), replica_);
  EXPECT_NE(errnoOf([&] { const Replica replica(replica_); }), 0);
}

TEST_F(ReplicaTest, OnlyRegularFilesAreTakenOver) {
  Replica replica(replica_);
  const auto tmp = replica.temporaryDirectory();
  const auto secret = directory_.write("secret", "x");
  fs::create_symlink(secret, tmp / "link");
  ASSERT_EQ(::mkfifo((tmp / "fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "fifo", "missing"}) {
    EXPECT_NE(errnoOf([&] { static_cast<void>(replica.takeOver(tmp / name, 5)); }), 0) << name;
    EXPECT_FALSE(fs::exists(fs::symlink_status(tmp / name))) << name;
  }
  EXPECT_EQ(replica.open(5), nullptr);
  EXPECT_TRUE(fs::exists(secret));
}

TEST_F(ReplicaTest, TakenOverContentsAreFoundByTheirNode) {
  Replica replica(replica_);
  const auto file = directory_.write("deep/replica/tmp/x", "hello");
  EXPECT_EQ(replica.takeOver(file, 5)->sizeBytes(), 5);
  EXPECT_FALSE(fs::exists(file));
  ASSERT_NE(replica.open(5), nullptr);
  EXPECT_EQ(replica.open(6), nullptr);
  const auto open = replica.open(5);
  replica.remove(5);
  EXPECT_EQ(replica.open(5), nullptr);
  std::array<char, 8> bytes{};
  EXPECT_EQ(::pread(open->descriptor(), bytes.data(), bytes.size(), 0), 5);
}

}  // namespace
}  // namespace kestrune::host
