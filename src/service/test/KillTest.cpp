// kestrune-service is killed again and again while clients change the tree: whatever was confirmed
// is there, whatever was not has happened as a whole or not at all, and nothing else lies about.
//
// KESTRUNE_KILLS says how often (the build sets what it is without), KESTRUNE_SEED repeats the
// choices of a run, though not the moments of its kills.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "service/test/ChangingClient.h"
#include "service/test/StoreState.h"
#include "tests/console/ChildProgram.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;

constexpr int kClients = 6;
/// So many changes are confirmed, at most, between a start and the kill.
constexpr int kMostChanges = 60;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}

class KillTest : public ::testing::Test {
 protected:
  KillTest() : token_(files_.write("token", "kill-token")) {
    fs::permissions(token_, fs::perms::owner_read | fs::perms::owner_write);
    fs::create_directories(root() / "shared");
    expected_.tree["/shared"] = nullptr;
    std::cout << "seed " << seed_ << "\n";
    for (int i = 0; i < kClients; ++i) {
      clients_.emplace_back(i, static_cast<unsigned>(random_()));
      fs::create_directory(root() / clients_.back().folder().substr(1));
      expected_.tree[clients_.back().folder()] = nullptr;
    }
  }

  /// Starts the service, lets the clients change the tree, kills it and looks at what is left.
  void round() {
    if (below(8) == 0) killWhileStarting();
    startAndSeeItCleared();
    changeUntilKilled();
    interruptedKills_ += settle() ? 1 : 0;
  }

  fs::path root() const { return files_.path() / "tree"; }
  fs::path staging() const { return files_.path() / ".tree.kestrune-staging"; }

  void launch() {
    std::vector<std::string> arguments{"--root",      root(),         "--listen",
                                       "127.0.0.1:0", "--token-file", token_};
    // With and without waits for the disk, because they put the kill into different places.
    if (below(2) == 0) arguments.emplace_back("--no-sync");
    program_.emplace("kestrune-service", arguments);
  }

  void killWhileStarting() {
    launch();
    // There is nothing to wait for: the moment is what is tried out.
    std::this_thread::sleep_for(std::chrono::microseconds(below(20'000)));
    kill();
  }

  void kill() {
    program_->signal(SIGKILL);
    ASSERT_EQ(program_->finish(), -SIGKILL) << program_->errors();
  }

  void startAndSeeItCleared() {
    launch();
    const std::string ready = program_->readLine().value_or("");
    const auto colon = ready.rfind(':');
    ASSERT_NE(colon, std::string::npos) << program_->errors();
    port_ = static_cast<std::uint16_t>(std::atoi(ready.c_str() + colon + 1));
    if (!fs::is_empty(staging() / "drafts")) ADD_FAILURE() << "a draft outlived the restart";
    ASSERT_TRUE(support::waitUntil([&] { return fs::is_empty(staging() / "trash"); }));
    EXPECT_EQ(StoreState::onDisk(root(), staging()).differenceFrom(expected_), "")
        << "after a restart";
  }

  void changeUntilKilled() {
    Surroundings surroundings;
    surroundings.port = port_;
    surroundings.token = "kill-token";
    std::vector<std::thread> threads;
    for (ChangingClient& client : clients_)
      threads.emplace_back([&client, &surroundings] { client.run(surroundings); });
    const int enough = 1 + below(kMostChanges);
    const bool reached =
        support::waitUntil([&] { return surroundings.confirmed >= enough || surroundings.failed; },
                           std::chrono::seconds(30));
    surroundings.killed = true;
    kill();
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(reached) << "the clients got stuck";
    confirmed_ += surroundings.confirmed;
    killsWithDrafts_ += fs::is_empty(staging() / "drafts") ? 0 : 1;
  }

  /// Compares the disk with what the clients know. True if the kill interrupted a change.
  bool settle() {
    expected_ = StoreState::onDisk(root(), staging());
    StoreState left = expected_;
    bool interrupted = false;
    for (ChangingClient& client : clients_) {
      const auto open = client.settle(left);
      EXPECT_EQ(client.failure(), "");
      if (!open) continue;
      interrupted = true;
      ++(open->happened ? happened_ : unhappened_)[open->kind];
    }
    StoreState nothing;
    nothing.tree["/shared"] = nullptr;
    EXPECT_EQ(left.differenceFrom(nothing), "");
    return interrupted;
  }

  int below(int bound) { return std::uniform_int_distribution<int>(0, bound - 1)(random_); }

  static int sumOf(const std::map<ChangeKind, int>& counts) {
    int sum = 0;
    for (const auto& [kind, count] : counts) sum += count;
    return sum;
  }

  void report() const {
    std::cout << fmt::format("{} changes confirmed; {} kills met one that was open, {} a draft\n",
                             confirmed_, interruptedKills_, killsWithDrafts_);
    for (const ChangeKind kind : kAllChanges) {
      const auto count = [&](const auto& counts) {
        const auto found = counts.find(kind);
        return found == counts.end() ? 0 : found->second;
      };
      std::cout << fmt::format("{:22} interrupted: happened {}, did not happen {}\n", nameOf(kind),
                               count(happened_), count(unhappened_));
    }
  }

  const unsigned seed_ = numberFrom("KESTRUNE_SEED", std::random_device()());
  std::mt19937 random_{seed_};
  support::TemporaryDirectory files_;
  const std::string token_;
  std::vector<ChangingClient> clients_;
  /// What lay on the disk after the last kill.
  StoreState expected_;
  std::optional<ChildProgram> program_;
  std::uint16_t port_ = 0;

  int confirmed_ = 0;
  int interruptedKills_ = 0;
  int killsWithDrafts_ = 0;
  std::map<ChangeKind, int> happened_;
  std::map<ChangeKind, int> unhappened_;
};

TEST_F(KillTest, AKillAtAnyMomentLeavesEveryChangeWholeOrUndone) {
  const int kills = static_cast<int>(numberFrom("KESTRUNE_KILLS", KESTRUNE_KILLS));
  for (int i = 0; i < kills && !HasFailure(); ++i) {
    SCOPED_TRACE(fmt::format("seed {}, kill {}", seed_, i));
    round();
  }
  report();
  // Without these the test would prove little.
  EXPECT_GE(confirmed_, kills * kMostChanges / 4);
  EXPECT_GE(interruptedKills_, kills / 2);
  EXPECT_GE(killsWithDrafts_, kills / 10);
  EXPECT_GE(sumOf(happened_), kills / 40);
  constexpr int kManyKills = 100;
  for (const ChangeKind kind : kAllChanges)
    EXPECT_TRUE(kills < kManyKills || happened_[kind] + unhappened_[kind] > 0) << nameOf(kind);
  EXPECT_GE(sumOf(unhappened_), kills / 2);
}

}  // namespace
}  // namespace kestrune::service
