// The general pasteboard while a console runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

#include "companion/console/ConsolePasteboard.h"
#include "companion/test/ConsoleHarness.h"
#include "platform/pasteboard/NSPasteboard.h"

namespace kestrune {
namespace {

using platform::NSPasteboard;
using testing::ElementsAre;

bool isTheConsoles(const std::shared_ptr<NSPasteboard>& pasteboard) {
  return dynamic_cast<ConsolePasteboard*>(pasteboard.get()) != nullptr;
}

TEST(ConsolePasteboardTest, AWritingIsALineWithItsTextAndItsThread) {
  ConsoleHarness console(std::make_shared<FakeExtension>());
  NSPasteboard::general()->replaceContents("https://h/open/a%20b\nhttps://h/open/c");
  std::thread([] { NSPasteboard::general()->replaceContents(""); }).join();
  EXPECT_THAT(
      console.finish(),
      ElementsAre(
          R"({"id":null,"event":"pasteboard","seq":1,"text":"https://h/open/a%20b\nhttps://h/open/c","thread":"main"})",
          R"({"id":null,"event":"pasteboard","seq":2,"text":"","thread":"task"})"));
}

TEST(ConsolePasteboardTest, TheSessionsOwnIsBackWhenTheConsoleHasEnded) {
  ConsoleHarness console(std::make_shared<FakeExtension>());
  EXPECT_TRUE(isTheConsoles(NSPasteboard::general()));
  console.finish();
  EXPECT_FALSE(isTheConsoles(NSPasteboard::general()));
}

}  // namespace
}  // namespace kestrune
