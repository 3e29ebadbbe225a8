#include "desktop/StateWord.h"

#include <gtest/gtest.h>

namespace kestrune::desktop {
namespace {

using host::ItemState;

TEST(StateWordTest, SaysWhatMattersMost) {
  ItemState state;
  state.sizeBytes = 10;
  EXPECT_STREQ(stateWord(state), "online-only");
  state.bytesHere = 9;
  state.isPinned = true;  // not kept before all of it has come
  EXPECT_STREQ(stateWord(state), "partly");
  state.bytesHere = 10;
  EXPECT_STREQ(stateWord(state), "kept");
  state.isPinned = false;
  EXPECT_STREQ(stateWord(state), "here");
  state.isConflictCopy = true;
  EXPECT_STREQ(stateWord(state), "conflict");
  state.pending.emplace();
  EXPECT_STREQ(stateWord(state), "sending");
  state.pending->attempts = 3;  // nobody could be reached
  EXPECT_STREQ(stateWord(state), "sending");
  state.pending->isRefused = true;
  EXPECT_STREQ(stateWord(state), "failing");
  ItemState folder;
  folder.isFolder = true;
  EXPECT_STREQ(stateWord(folder), "folder");
  EXPECT_STREQ(stateWord(ItemState()), "here");  // an empty file
}

}  // namespace
}  // namespace kestrune::desktop
