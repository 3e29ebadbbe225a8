#include "platform/pasteboard/NSPasteboard.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/pasteboard/SessionPasteboard.h"

namespace kestrune::platform {
namespace {

class Keeper final : public NSPasteboard {
 public:
  void replaceContents(const std::string& text) override { kept = text; }
  std::string kept;
};

bool isTheSessions(const std::shared_ptr<NSPasteboard>& pasteboard) {
  return dynamic_cast<SessionPasteboard*>(pasteboard.get()) != nullptr;
}

TEST(NSPasteboardTest, TheGeneralOneIsTheSessionsUnlessAnotherWasSet) {
  const auto session = NSPasteboard::general();
  EXPECT_TRUE(isTheSessions(session));
  EXPECT_EQ(NSPasteboard::general(), session);

  const auto keeper = std::make_shared<Keeper>();
  NSPasteboard::setGeneral(keeper);
  EXPECT_EQ(NSPasteboard::general(), keeper);
  NSPasteboard::general()->replaceContents("text");
  EXPECT_EQ(keeper->kept, "text");

  NSPasteboard::setGeneral(nullptr);
  EXPECT_TRUE(isTheSessions(NSPasteboard::general()));
}

TEST(NSPasteboardTest, WhoHoldsOneKeepsItWhenAnotherIsSet) {
  NSPasteboard::setGeneral(std::make_shared<Keeper>());
  const auto held = NSPasteboard::general();
  NSPasteboard::setGeneral(nullptr);
  held->replaceContents("late");
  EXPECT_EQ(dynamic_cast<Keeper&>(*held).kept, "late");
}

TEST(NSPasteboardTest, ItMayBeAskedForAndSetOnAnyThread) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 500; ++round) {
        NSPasteboard::setGeneral(round % 2 == 0 ? std::make_shared<Keeper>() : nullptr);
        EXPECT_NE(NSPasteboard::general(), nullptr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  NSPasteboard::setGeneral(nullptr);
}

}  // namespace
}  // namespace kestrune::platform
