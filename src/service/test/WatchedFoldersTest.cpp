#include "service/WatchedFolders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kestrune::service {
namespace {

using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::UnorderedElementsAre;

class WatchedFoldersTest : public ::testing::Test {
 protected:
  WatchedFoldersTest() {
    folders.put(1, WatchedFolders::kNone, "");
    folders.put(2, 1, "Docs");
    folders.put(3, 2, "2024");
    folders.put(4, 3, "May");
    folders.put(5, 1, "Old");
  }
  WatchedFolders folders;
};

TEST_F(WatchedFoldersTest, KnowTheirPaths) {
  EXPECT_THAT(folders.pathOf(1), Optional(std::string()));
  EXPECT_THAT(folders.pathOf(4), Optional(std::string("/Docs/2024/May")));
  EXPECT_EQ(folders.pathOf(6), std::nullopt);
  EXPECT_EQ(folders.pathOf(WatchedFolders::kNone), std::nullopt);
}

TEST_F(WatchedFoldersTest, WhatMovesTakesAlongWhatIsBelow) {
  EXPECT_TRUE(folders.put(3, 5, "2023"));
  EXPECT_THAT(folders.pathOf(4), Optional(std::string("/Old/2023/May")));
  EXPECT_EQ(folders.count(), 5U);
  EXPECT_THAT(folders.forget(2), UnorderedElementsAre(2));
  EXPECT_THAT(folders.forget(5), UnorderedElementsAre(5, 3, 4));
  EXPECT_EQ(folders.count(), 1U);
}

TEST_F(WatchedFoldersTest, NothingLiesInItself) {
  EXPECT_FALSE(folders.put(2, 4, "Docs"));
  EXPECT_FALSE(folders.put(2, 2, "Docs"));
  EXPECT_FALSE(folders.put(1, 5, "root"));
  EXPECT_THAT(folders.pathOf(4), Optional(std::string("/Docs/2024/May")));
}

TEST_F(WatchedFoldersTest, AFolderIsForgottenWithAllBelowIt) {
  EXPECT_THAT(folders.forget(2), UnorderedElementsAre(2, 3, 4));
  EXPECT_FALSE(folders.has(4));
  EXPECT_TRUE(folders.has(5));
  EXPECT_THAT(folders.forget(2), IsEmpty());
  // Nothing is left of it that a later folder of the same watch would inherit.
  folders.put(2, 1, "Docs");
  EXPECT_THAT(folders.forget(2), UnorderedElementsAre(2));
}

}  // namespace
}  // namespace kestrune::service
