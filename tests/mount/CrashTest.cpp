// Kills the host again and again while programs work in its folder and while it sends, and looks for anything lost.
//
// KESTRUNE_KILLS says how often, ten times without it; KESTRUNE_SEED says where the work begins, and a failure names it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "tests/mount/CrashWorker.h"
#include "tests/mount/LiveMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {
namespace {

namespace fs = std::filesystem;

constexpr int kWorkers = 3;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

class CrashTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    seed_ = numberFrom("KESTRUNE_SEED", std::random_device()());
    kills_ = numberFrom("KESTRUNE_KILLS", 10);
    std::cout << "seed " << seed_ << ", " << kills_ << " kills\n";
    random_.seed(seed_);
    service_ = std::make_unique<LiveService>();
    mount_ = std::make_unique<LiveMount>(*service_);
    for (int i = 0; i < kWorkers; ++i) {
      const std::string name = "w" + std::to_string(i);
      fs::create_directory(*mount_ / name);
      workers_.push_back(std::make_unique<CrashWorker>(*mount_ / name, random_()));
    }
  }

  void TearDown() override {
    if (HasFailure() && mount_)
      std::cout << "the host's log:\n" << support::contentsOf(mount_->logFile());
  }

  void sleepUpTo(unsigned milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random_() % milliseconds));
  }
  /// Has all work for a while; `atTheEnd` is done while they do.
  void workFor(unsigned milliseconds, const std::function<void()>& atTheEnd) {
    std::atomic<bool> stop = false;
    std::vector<CrashWorker::End> ends(kWorkers);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kWorkers; ++i)
      threads.emplace_back([&, i] { ends[i] = workers_[i]->work(stop); });
    sleepUpTo(milliseconds);
    atTheEnd();
    stop = true;
    for (auto& thread : threads) thread.join();
    // EIO is the kernel's answer to a request that the host was reading when it was killed.
    for (const auto& [error, what] : ends)
      EXPECT_TRUE(error == 0 || error == ENOTCONN || error == ECONNABORTED || error == EIO) << what;
  }
  void expectNothingLost() {
    for (int i = 0; i < kWorkers; ++i)
      EXPECT_EQ(workers_[static_cast<std::size_t>(i)]->check(), "") << "w" << i;
  }
  void expectAllAtTheStore() {
    EXPECT_EQ(waitUntilSent(*service_, *mount_, std::chrono::seconds(90)), "");
    std::map<std::string, std::string> promised;
    for (std::size_t i = 0; i < kWorkers; ++i) {
      const std::string folder = "w" + std::to_string(i) + "/";
      promised[folder] = "";
      for (const auto& [name, contents] : workers_[i]->model()) promised[folder + name] = contents;
    }
    EXPECT_EQ(differences(promised, snapshotOf(service_->root())), "");
    EXPECT_EQ(differences(promised, snapshotOf(mount_->mountPoint())), "");
  }
  std::size_t callCount() const {
    std::size_t count = 0;
    for (const auto& worker : workers_) count += worker->callCount();
    return count;
  }
  std::string where(unsigned kill) const {
    return "kill " + std::to_string(kill) + ", seed " + std::to_string(seed_);
  }

  unsigned seed_ = 0;
  unsigned kills_ = 0;
  std::mt19937 random_;
  std::unique_ptr<LiveService> service_;
  std::unique_ptr<LiveMount> mount_;
  std::vector<std::unique_ptr<CrashWorker>> workers_;
};

TEST_F(CrashTest, WhatWasAcknowledgedOutlivesAKilledHost) {
  for (unsigned kill = 1; kill <= kills_ && !HasFailure(); ++kill) {
    SCOPED_TRACE(where(kill));
    workFor(800, [this] { mount_->end(SIGKILL); });
    mount_->start();
    expectNothingLost();
    if (kill % 5 == 0) expectAllAtTheStore();
  }
  expectAllAtTheStore();
  EXPECT_GT(callCount(), 10U * kills_);
}

TEST_F(CrashTest, AHostKilledWhileItSendsLeavesNoConflictsAndSendsAll) {
  constexpr unsigned kInARow = 3;
  for (unsigned kill = 1; kill <= kills_ / kInARow + 1 && !HasFailure(); ++kill) {
    SCOPED_TRACE(where(kill));
    workFor(300, [] {});
    for (unsigned more = 0; more < kInARow;
         ++more) {  // also while what the last one left is looked at again
      sleepUpTo(700);
      mount_->end(SIGKILL);
      mount_->start();
    }
    expectNothingLost();
    if (kill % 2 == 0) expectAllAtTheStore();
  }
  expectAllAtTheStore();
  EXPECT_GT(callCount(), 3U * kills_);
}

// Reads a large file again and again while it is not here, and compares.
class Reader {
 public:
  Reader(const LiveMount& mount, std::string name, std::string contents)
      : mount_(mount), name_(std::move(name)), contents_(std::move(contents)) {}

  void read(const std::atomic<bool>& stop) {
    while (!stop) {
      const auto evicted = mount_.control("evict " + name_);
      evictions_ += evicted.status == 0 ? 1 : 0;
      const std::string wrong = readOnce();
      if (!wrong.empty()) wrong_ += "read " + std::to_string(reads_) + ": " + wrong + "\n";
      ++reads_;
    }
  }
  unsigned evictions() const { return evictions_; }
  unsigned reads() const { return reads_; }
  /// What was not as it is at the store, a line each.
  const std::string& wrong() const { return wrong_; }

 private:
  std::string readOnce() const {
    const int file = ::open((mount_ / name_).c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return "open: " + std::string(std::strerror(errno));
    std::string got(contents_.size(), '\0');
    std::size_t at = 0;
    ssize_t count = 1;
    while (count > 0 && at < got.size()) {
      count = ::read(file, got.data() + at, std::min<std::size_t>(got.size() - at, 128U << 10U));
      if (count > 0) at += static_cast<std::size_t>(count);
    }
    const std::string failure = count < 0 ? std::strerror(errno) : "";
    ::close(file);
    if (at < got.size()) return "ends at " + std::to_string(at) + " " + failure;
    return got == contents_ ? "" : "other bytes";
  }

  const LiveMount& mount_;
  const std::string name_;
  const std::string contents_;
  unsigned evictions_ = 0;
  unsigned reads_ = 0;
  std::string wrong_;
};

TEST_F(CrashTest, AKilledExtensionIsNoticedByNobody) {
  std::string contents(24U << 20U, '\0');
  for (char& byte : contents) byte = static_cast<char>(random_());
  std::ofstream(service_->root() / "large", std::ios::binary) << contents;
  Reader reader(*mount_, "large", contents);
  ASSERT_TRUE(
      support::waitUntil([&] { return fs::exists(*mount_ / "large"); }, std::chrono::seconds(20)));

  std::atomic<bool> stop = false;
  std::vector<CrashWorker::End> ends(kWorkers);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kWorkers; ++i)
    threads.emplace_back([&, i] { ends[i] = workers_[i]->work(stop); });
  threads.emplace_back([&] { reader.read(stop); });
  unsigned killed = 0;
  while (killed < kills_) {
    sleepUpTo(2500);  // seldomer than the host gives up
    if (const int extension = mount_->extension();
        extension != 0 && ::kill(extension, SIGKILL) == 0)
      ++killed;
  }
  stop = true;
  for (auto& thread : threads) thread.join();

  for (const auto& [error, what] : ends) EXPECT_EQ(error, 0) << what;
  EXPECT_EQ(reader.wrong(), "");
  EXPECT_GT(reader.evictions(), killed / 4);  // it was read from the store
  expectNothingLost();
  fs::remove(*mount_ / "large");
  expectAllAtTheStore();
  EXPECT_GT(callCount(), 10U * killed);
  std::cout << reader.reads() << " reads, " << reader.evictions() << " of them cold, "
            << callCount() << " calls\n";
}

}  // namespace
}  // namespace kestrune::mounttest
