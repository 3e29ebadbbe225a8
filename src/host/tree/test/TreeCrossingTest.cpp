// Folders are asked one by one, and their answers come in any order: what an older one says of an item that a newer one has shown
// elsewhere is not believed.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TreeCrossingTest : public TreeFixture {
 protected:
  TreeCrossingTest() {
    list({file("1", "a", 3), folder("d", "d")});
    d_ = at("d");
    a_ = at("a");
    list(*d_, {});
  }
  void listAsOf(Item& folder, const std::vector<ItemRecord>& items, std::uint64_t asOf) {
    tree().applyListing(folder, items, "old", asOf);
    check();
  }
  Item* d_ = nullptr;
  Item* a_ = nullptr;
};

TEST_F(TreeCrossingTest, AFolderThatWasAskedEarlierDoesNotTakeBackWhatMovedToAnother) {
  const std::uint64_t asOf = tree().moment();
  list(*d_, {file("1", "a", 3)});
  listAsOf(root(), {file("1", "a", 3), folder("d", "d")}, asOf);
  EXPECT_EQ(tree().child(*d_, "a"), a_);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
  EXPECT_FALSE(root().part()->listing.anchor);
  list({folder("d", "d")});
  EXPECT_EQ(tree().child(*d_, "a"), a_);
}

TEST_F(TreeCrossingTest, AFolderThatWasAskedEarlierDoesNotTakeWhatOnlyPassedThroughIt) {
  const std::uint64_t asOf = tree().moment();
  list({file("1", "a", 3), folder("d", "d")});  // it is back
  listAsOf(*d_, {file("1", "a", 3)}, asOf);
  EXPECT_EQ(at("a"), a_);
  EXPECT_TRUE(effects_.doubtful.contains(d_->id));
}

TEST_F(TreeCrossingTest, AFolderThatWasAskedEarlierDoesNotMissWhatCameFromAnother) {
  list(*d_, {file("1", "a", 3)});
  const std::uint64_t asOf = tree().moment();
  list({file("1", "a", 3), folder("d", "d")});
  listAsOf(root(), {folder("d", "d")}, asOf);
  EXPECT_EQ(at("a"), a_);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
}

TEST_F(TreeCrossingTest, AnItemThatWasAskedForEarlierIsNotTakenBackToWhatItWas) {
  const std::uint64_t asOf = tree().moment();
  list({file("1", "a", 4), folder("d", "d")});
  tree().applyItem(*a_, file("1", "a", 3), asOf);
  check();
  EXPECT_EQ(a_->there->version.contentVersion, "v4");
  tree().applyItem(*a_, std::nullopt, asOf);
  check();
  EXPECT_EQ(at("a"), a_);
}

TEST_F(TreeCrossingTest, WhatChangedIsNotBelievedWhenTheFolderWasListedSinceItWasAskedFor) {
  const std::uint64_t asOf = tree().moment();
  list({file("1", "a", 3), folder("d", "d")});
  tree().applyChanges(root(), {}, "next", asOf);
  check();
  EXPECT_EQ(root().part()->listing.anchor, "anchor");
  EXPECT_THAT(effects_.doubtful, IsEmpty());
  tree().applyChanges(root(), {update(file("2", "was", 1))}, "next", asOf);
  check();
  EXPECT_EQ(at("was"), nullptr);
  EXPECT_FALSE(root().part()->listing.anchor);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
}

TEST_F(TreeCrossingTest, ChangesThatWereAskedForBeforeAListingWasNeededDoNotReplaceIt) {
  root().part()->listing.anchor = std::nullopt;
  change({update(file("2", "b"))});
  EXPECT_NE(at("b"), nullptr);
  EXPECT_FALSE(root().part()->listing.anchor);
  EXPECT_TRUE(effects_.doubtful.contains(kRootItem));
}

TEST_F(TreeCrossingTest, AFolderThatWasShownMeanwhileCanBeListed) {
  const std::uint64_t asOf = tree().moment();
  list({file("1", "a", 3), folder("d", "d")});
  listAsOf(*d_, {file("2", "new")}, asOf);
  EXPECT_THAT(names(*d_), ElementsAre("new"));
  EXPECT_THAT(effects_.doubtful, IsEmpty());
}

}  // namespace
}  // namespace kestrune::host
