// Deletions of much at once: held, and believed or taken back when somebody says so.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TreeHeldTest : public TreeFixture {
 protected:
  static constexpr int kFiles = 21;
  TreeHeldTest() {
    std::vector<ItemRecord> files = {folder("d", "d"), file("absent", "absent")};
    for (int i = 0; i < kFiles; ++i) files.push_back(file(name(i), name(i), i + 1));
    list(files);
    for (int i = 0; i < kFiles; ++i) fill(*at(name(i)), i + 1);
  }
  static std::string name(int number) { return "f" + std::to_string(number); }
};

TEST_F(TreeHeldTest, MuchAtOnceIsHeld) {
  list({});
  EXPECT_EQ(tree().heldDeletions().size(), kFiles + 2U);
  EXPECT_EQ(names().size(), kFiles + 2U);
  list({});
  tree().applyItem(*at("absent"), std::nullopt, tree().moment());
  EXPECT_EQ(tree().heldDeletions().size(), kFiles + 2U);
  restart();
  EXPECT_EQ(tree().heldDeletions().size(), kFiles + 2U);
}

TEST_F(TreeHeldTest, LittleIsBelieved) {
  list({file(name(0), name(0), 1)});
  EXPECT_THAT(tree().heldDeletions(), IsEmpty());
  EXPECT_THAT(names(), ElementsAre(name(0)));
}

TEST_F(TreeHeldTest, WhatShowsAgainIsHeldNoMore) {
  list({});
  list({file(name(3), name(3), 4)});
  EXPECT_EQ(tree().heldDeletions().size(), kFiles + 1U);
  tree().applyItem(*at(name(4)), file(name(4), name(4), 5), tree().moment());
  EXPECT_EQ(tree().heldDeletions().size(), static_cast<std::size_t>(kFiles));
  EXPECT_TRUE(at(name(4))->isWhole());
}

TEST_F(TreeHeldTest, WhatWasSentAndNotSeenSinceIsMadeAgainAndNotHeld) {
  for (int i = 0; i < kFiles; ++i) {
    fill(*at(name(i)), 100 + i, 1);
    send(*at(name(i)), file(name(i), name(i), 100 + i));
  }
  list({});
  EXPECT_THAT(tree().heldDeletions(), IsEmpty());
  EXPECT_EQ(names().size(), static_cast<std::size_t>(kFiles));
  EXPECT_EQ(ready().size(), static_cast<std::size_t>(kFiles));
}

TEST_F(TreeHeldTest, BelievedTheirContentsAreRescued) {
  list({});
  fill(*at(name(1)), 50, 1);
  tree().settleHeldDeletions(true);
  check();
  EXPECT_EQ(effects_.rescued.size(), kFiles - 1U);
  EXPECT_THAT(effects_.dropped, IsEmpty());
  EXPECT_THAT(names(), ElementsAre(name(1)));
  EXPECT_THAT(tree().heldDeletions(), IsEmpty());
}

TEST_F(TreeHeldTest, KeptTheyAreSentAgain) {
  list({});
  Item& removed = *at(name(2));
  const ItemId id = removed.id;
  tree().remove(removed);
  tree().beginChange(*at(name(3)));
  tree().settleHeldDeletions(false);
  EXPECT_EQ(tree().heldDeletions().size(), 1U);
  tree().endChange(*at(name(3)));
  tree().settleHeldDeletions(false);
  check();
  EXPECT_EQ(at("absent"), nullptr);
  EXPECT_EQ(tree().find(id), nullptr);
  EXPECT_EQ(names().size(),
            static_cast<std::size_t>(kFiles));  // with the folder, without the removed one
  EXPECT_EQ(ready().size(), static_cast<std::size_t>(kFiles));
}

}  // namespace
}  // namespace kestrune::host
