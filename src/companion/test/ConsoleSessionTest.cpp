// The calls that steer the console itself, its log lines, and the end of the input.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "companion/test/ConsoleHarness.h"

namespace kestrune {
namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

/// An extension whose items are answered by the test, by identifier.
struct ConsoleSession : testing::Test {
  ConsoleSession() {
    extension->onItem = [this](const std::string& identifier, auto handler) {
      asked.push_back(identifier);
      inTask([this, identifier, handler] {
        MutexLock lock(mutex);
        pending[identifier] = handler;
        arrived.notify_all();
      });
      return std::make_shared<NSProgress>(1);
    };
  }

  void answer(const std::string& identifier) {
    FakeExtension::ItemHandler handler;
    {
      MutexLock lock(mutex);
      while (!pending.contains(identifier)) lock.wait(arrived);
      handler = std::move(pending[identifier]);
      pending.erase(identifier);
    }
    handler(nullptr, nullptr);
  }

  static std::string item(const std::string& id, const std::string& identifier) {
    return R"({"id":)" + id + R"(,"op":"item","identifier":")" + identifier + R"("})";
  }

  Mutex mutex;
  std::condition_variable arrived;
  std::map<std::string, FakeExtension::ItemHandler> pending GUARDED_BY(mutex);
  std::vector<std::string> asked;  // read by tests when the console has ended
  std::shared_ptr<FakeExtension> extension = std::make_shared<FakeExtension>();
};

TEST_F(ConsoleSession, CallsRunSideBySide) {
  ConsoleHarness console(extension);
  console.send(item("1", "/a"));
  console.send(item("2", "/b"));
  answer("/b");
  console.lineWith(R"({"id":2,"event":"settled")");
  EXPECT_FALSE(console.hasLineWith(R"({"id":1,"event":"completion")"));
  answer("/a");
  EXPECT_THAT(console.finish().back(), StartsWith(R"({"id":1,"event":"settled")"));
}

TEST_F(ConsoleSession, WaitReadsNoLaterLineUntilTheCallHasSettled) {
  ConsoleHarness console(extension);
  console.send(item("1", "/a"));
  console.send(item("2", "/b"));
  console.send(R"({"id":"w","op":"wait","for":1})");
  console.send(item("3", "/c"));
  answer("/b");
  console.lineWith(R"({"id":2,"event":"settled")");
  EXPECT_FALSE(console.hasLineWith(R"("w")"));
  EXPECT_FALSE(console.hasLineWith(R"({"id":3)"));
  answer("/a");
  answer("/c");
  const auto lines = console.finish();
  const auto at = [&lines](std::string_view start) {
    return std::find_if(lines.begin(), lines.end(),
                        [&](const auto& line) { return line.starts_with(start); });
  };
  EXPECT_LT(at(R"({"id":1,"event":"settled")"), at(R"({"id":"w","event":"completion")"));
  EXPECT_LT(at(R"({"id":"w","event":"completion")"), at(R"({"id":3,"event":"returned")"));
  EXPECT_THAT(asked, ElementsAre("/a", "/b", "/c"));
}

TEST_F(ConsoleSession, WaitWithoutAnIdWaitsForEveryCall) {
  ConsoleHarness console(extension);
  console.send(item("1", "/a"));
  console.send(item("2", "/b"));
  console.send(R"({"id":"w","op":"wait"})");
  answer("/a");
  console.lineWith(R"({"id":1,"event":"settled")");
  EXPECT_FALSE(console.hasLineWith(R"("w")"));
  answer("/b");
  EXPECT_THAT(console.finish().back(), StartsWith(R"({"id":"w","event":"completion","seq":7})"));
}

TEST_F(ConsoleSession, WaitMeansAllOpenCallsOfAnId) {
  ConsoleHarness console(extension);
  console.send(item("null", "/a"));
  console.send(item("null", "/b"));
  console.send(R"({"id":"w","op":"wait","for":null})");
  answer("/a");
  console.lineWith(R"({"id":null,"event":"settled")");
  EXPECT_FALSE(console.hasLineWith(R"("w")"));
  answer("/b");
  EXPECT_THAT(console.finish().back(), StartsWith(R"({"id":"w","event":"completion")"));
}

TEST_F(ConsoleSession, WaitIsOverAtOnceForWhatIsNotOpen) {
  ConsoleHarness console(extension);
  console.send(item("1", "/a"));
  answer("/a");
  console.lineWith("settled");
  console.send(item("2", "/b"));
  console.send(R"({"id":"w","op":"wait","for":"unknown"})");
  console.send(R"({"id":"x","op":"wait","for":1})");
  console.send(R"({"id":"y","op":"wait","for":"y"})");
  console.lineWith(R"({"id":"y","event":"completion")");
  EXPECT_FALSE(console.hasLineWith(R"({"id":2,"event":"completion")"));
  answer("/b");
}

TEST_F(ConsoleSession, TheEndOfTheInputWaitsForOpenCalls) {
  ConsoleHarness console(extension);
  console.send(item("1", "/a"));
  console.closeInput();
  console.lineWith("returned");
  EXPECT_FALSE(console.hasEnded());
  answer("/a");
  EXPECT_THAT(console.finish().back(), HasSubstr("settled"));
}

TEST_F(ConsoleSession, ALastLineWithoutALineFeedIsACall) {
  ConsoleHarness console(extension);
  console.sendBytes(R"({"id":1,"op":"invalidate"})");
  EXPECT_THAT(console.finish(), ElementsAre(R"({"id":1,"event":"completion","seq":1})"));
  EXPECT_EQ(extension->invalidations, 1);
}

TEST_F(ConsoleSession, AnEmptyInputPrintsNothing) {
  EXPECT_THAT(ConsoleHarness(extension).finish(), ElementsAre());
}

TEST_F(ConsoleSession, TheDomainIsTheOneAskedFor) {
  Console::Settings settings;
  settings.domainIdentifier = "other";
  ConsoleHarness console(extension, settings);
  EXPECT_EQ(console.domain()->identifier(), "other");
  EXPECT_NE(NSFileProviderManager::forDomain(*console.domain()), nullptr);
  EXPECT_EQ(NSFileProviderManager::forDomain(NSFileProviderDomain("main", "")), nullptr);
  console.finish();
  EXPECT_EQ(NSFileProviderManager::forDomain(*console.domain()), nullptr);
}

TEST_F(ConsoleSession, AdvanceClockMovesTheExtensionsClock) {
  ConsoleHarness console(extension);
  const auto offset = [&console] {
    return std::chrono::duration<double>(console.clock()->now() - dateNow()).count();
  };
  EXPECT_NEAR(offset(), 0, 1);
  console.send(R"({"id":1,"op":"advanceClock","seconds":31})");
  console.lineWith(R"({"id":1,"event":"completion","seq":1})");
  EXPECT_NEAR(offset(), 31, 1);
  console.send(R"({"id":2,"op":"advanceClock","seconds":-10.5})");
  console.lineWith(R"({"id":2,"event":"completion")");
  EXPECT_NEAR(offset(), 20.5, 1);
  console.send(R"({"id":3,"op":"advanceClock","seconds":1e300})");
  EXPECT_THAT(console.lineWith(R"({"id":3)"), HasSubstr(R"("event":"invalid")"));
  EXPECT_NEAR(offset(), 20.5, 1);
}

TEST_F(ConsoleSession, LogLinesAreRedacted) {
  ConsoleHarness console(extension);
  Logger("com.example", "net")
      .write(LogLevel::error, "%{public}s asked %ld times for %s", "he", 3, "it");
  EXPECT_THAT(
      console.finish(),
      ElementsAre(
          R"({"id":null,"event":"log","seq":1,"subsystem":"com.example","category":"net","level":"error","format":"%{public}s asked %ld times for %s","message":"he asked 3 times for <private>"})"));
}

TEST_F(ConsoleSession, ShowPrivateAddsTheArguments) {
  Console::Settings settings;
  settings.showsPrivateArguments = true;
  ConsoleHarness console(extension, settings);
  Logger("s", "c").write(LogLevel::standard, "%s %{bool}d %ld %.*f", "secret\xFF", true, -7, 1,
                         0.5);
  EXPECT_THAT(
      console.finish().at(0),
      HasSubstr(
          R"("level":"default","format":"%s %{bool}d %ld %.*f","message":"<private> true -7 0.5","arguments":["secret�",true,-7,1,0.5]})"));
}

TEST_F(ConsoleSession, WhatIsLoggedWhileTheExtensionIsMadeIsPrinted) {
  std::vector<std::string> lines;
  const auto makeExtension = [](const auto&, const auto&) {
    Logger("s", "c").write(LogLevel::standard, "init");
    return std::make_shared<FakeExtension>();
  };
  {
    const Console console(
        {}, {[&](std::string_view line) { lines.emplace_back(line); }, makeExtension, [] {}});
  }
  EXPECT_THAT(lines, ElementsAre(HasSubstr(R"("message":"init")")));
}

}  // namespace
}  // namespace kestrune
