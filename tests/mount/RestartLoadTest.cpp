// Replaces the host again and again while programs work in its folder and others at the store: no call of theirs fails, nothing is lost,
// and what others do is seen.
//
// KESTRUNE_RESTARTS says how often, twenty times without it; KESTRUNE_SEED says where the work begins, and a failure names it.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
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

constexpr std::size_t kWorkers = 3;

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* text = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? otherwise : static_cast<unsigned>(std::stoul(text));
}

TEST(RestartLoadTest, WorkingProgramsNoticeNothing) {
  if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
  const unsigned seed = numberFrom("KESTRUNE_SEED", std::random_device()());
  const unsigned restarts = numberFrom("KESTRUNE_RESTARTS", 20);
  std::cout << "seed " << seed << ", " << restarts << " restarts\n";
  std::mt19937 random(seed);
  LiveService service;
  LiveMount mount(service);
  ASSERT_TRUE(support::waitUntil([&] { return mount.control("status").status == 0; }));
  std::vector<std::unique_ptr<CrashWorker>> workers;
  for (std::size_t i = 0; i < kWorkers; ++i) {
    const std::string name = "w" + std::to_string(i);
    fs::create_directory(mount / name);
    workers.push_back(std::make_unique<CrashWorker>(mount / name, random()));
  }
  std::atomic<bool> stop = false;
  std::vector<CrashWorker::End> ends(kWorkers);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kWorkers; ++i)
    threads.emplace_back([&, i] { ends[i] = workers[i]->work(stop); });
  std::map<std::string, std::string> promised = {{"others/", ""}};
  fs::create_directory(service.root() / "others");
  for (unsigned done = 0; done < restarts; ++done) {
    const std::string name = "others/f" + std::to_string(random() % 10);
    promised[name] = "written before restart " + std::to_string(done);
    std::ofstream(service.root() / name) << promised[name];
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
    const auto result = mount.control("restart");
    EXPECT_EQ(result.status, 0) << result.output;
    if (result.status != 0) break;
  }
  stop = true;
  for (auto& thread : threads) thread.join();
  for (std::size_t i = 0; i < kWorkers; ++i) {
    const std::string folder = "w" + std::to_string(i) + "/";
    EXPECT_EQ(ends[i].error, 0) << folder << ": " << ends[i].what;
    EXPECT_EQ(workers[i]->check(), "") << folder;
    EXPECT_GT(workers[i]->callCount(), restarts);
    promised[folder] = "";
    for (const auto& [name, contents] : workers[i]->model()) promised[folder + name] = contents;
  }
  EXPECT_EQ(waitUntilSent(service, mount, std::chrono::seconds(90)), "");
  EXPECT_EQ(differences(promised, snapshotOf(service.root())), "");
  EXPECT_EQ(differences(promised, snapshotOf(mount.mountPoint())), "");
  if (testing::Test::HasFailure()) {
    std::cout << "seed " << seed << ", the host's log:\n" << support::contentsOf(mount.logFile());
  }
}

}  // namespace
}  // namespace kestrune::mounttest
