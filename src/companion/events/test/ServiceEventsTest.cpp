// The listener at the real service.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "api/KestruneAPI.h"
#include "companion/configuration/InvalidateCommand.h"
#include "companion/events/EventListener.h"
#include "tests/console/WholePrograms.h"
#include "tests/support/RunTask.h"
#include "tests/support/Waiting.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using support::waitUntil;

TEST_F(WholePrograms, AChangeAtTheServiceWritesATokenWithinASecond) {
  const auto token = [this] {
    return support::contentsOf(storage.shared() / "invalidation-token.txt");
  };
  EventListenerOptions options;
  options.refresh = 1h;
  const EventListener listener(options, [] { writeInvalidationToken(); });
  const auto exists = [this] {
    return std::filesystem::exists(storage.shared() / "invalidation-token.txt");
  };
  ASSERT_TRUE(waitUntil(exists));  // it is connected
  for (const char* folder : {"/one", "/two", "/three"}) {
    const std::string before = token();
    support::runTask(KestruneAPI::mkdir(folder));
    EXPECT_TRUE(waitUntil([&] { return token() != before; }, 1s)) << folder;
    std::this_thread::sleep_for(300ms);  // this change's own tokens have been written
  }
}

TEST_F(WholePrograms, AServiceThatComesBackIsHeardAgain) {
  const auto token = storage.shared() / "invalidation-token.txt";
  EventListenerOptions options;
  options.firstPause = 20ms;
  options.longestPause = 50ms;
  const EventListener listener(options, [] { writeInvalidationToken(); });
  ASSERT_TRUE(waitUntil([&] { return std::filesystem::exists(token); }));
  service->signal(SIGTERM);
  EXPECT_EQ(service->finish(), 0);
  const std::string before = support::contentsOf(token);
  start();
  configure(files.path() / "token");
  EXPECT_TRUE(waitUntil([&] { return support::contentsOf(token) != before; }));
}

}  // namespace
}  // namespace kestrune
