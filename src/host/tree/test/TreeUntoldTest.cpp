// Stores that compare two listings say nothing of what others have undone between them: what was sent from here, and is not
// told, may be as it was before.
#include "host/tree/test/TreeFixture.h"

namespace kestrune::host {
namespace {

using testing::ElementsAre;

class TreeUntoldTest : public TreeFixture {
 protected:
  TreeUntoldTest() { list({folder("d", "d"), file("1", "a", 3)}); }

  bool isToBeListed() {
    const bool isDoubtful = check().doubtful.contains(kRootItem);
    EXPECT_EQ(isDoubtful, !root().part()->listing.anchor);
    return isDoubtful;
  }
  void removeThere(Item& item) {
    tree().remove(item);
    tree().beginChange(item);
    tree().removedThere(item);
    tree().endChange(item);
  }
  // What a change enumeration told. It asks the tree nothing by itself.
  void tell(const std::vector<ReportedChange>& changes, const std::string& anchor = "next") {
    tree().applyChanges(root(), changes, anchor, tree().moment());
  }
};

TEST_F(TreeUntoldTest, AFileThatWasSentAndIsNotToldIsAskedFor) {
  ItemRecord sent = file("2", "b", 5);
  sent.modified = now_;
  send(make("b"), sent);
  tree().applyItem(*at("b"), sent, tree().moment());
  tell({});
  EXPECT_TRUE(isToBeListed());
  list({folder("d", "d"), file("1", "a", 3)});  // others have removed it at once
  EXPECT_THAT(names(), ElementsAre("a", "d"));
}

TEST_F(TreeUntoldTest, WhatIsToldIsNot) {
  send(make("b"), file("2", "b", 5));
  tell({update(file("2", "b", 5))});
  EXPECT_FALSE(isToBeListed());
  tell({}, "later");
  EXPECT_FALSE(isToBeListed());
}

TEST_F(TreeUntoldTest, NewContentsTooMayHaveBeenUndone) {
  fill(*at("a"), 5, 1);
  send(*at("a"), file("1", "a", 5));
  tell({update(file("3", "others", 1))});
  EXPECT_TRUE(isToBeListed());
}

TEST_F(TreeUntoldTest, AFileThatWasRemovedAndIsNotToldIsAskedFor) {
  removeThere(*at("a"));
  tell({});
  EXPECT_TRUE(isToBeListed());
  list({folder("d", "d"), file("1", "a", 3)});  // others have put it back
  EXPECT_THAT(names(), ElementsAre("a", "d"));
}

TEST_F(TreeUntoldTest, ThatItIsThereAgainIsNotThatItWasRemoved) {
  removeThere(*at("a"));
  tell({update(file("1", "a", 3))});
  EXPECT_TRUE(isToBeListed());
}

TEST_F(TreeUntoldTest, ARemovalThatIsToldIsNotAskedFor) {
  removeThere(*at("a"));
  tell({deletion("1")});
  EXPECT_FALSE(isToBeListed());
}

TEST_F(TreeUntoldTest, OfAMoveBothFoldersTell) {
  Item& d = *at("d");
  list(d, {});
  Item& a = *at("a");
  tree().move(a, d, "a");
  tree().beginChange(a, Place{d.id, "a"});
  tree().moved(a, {d.id, "a"}, file("1", "a", 3));
  tree().endChange(a);
  check();
  tree().applyChanges(d, {update(file("1", "a", 3))}, "next", tree().moment());
  EXPECT_FALSE(check().doubtful.contains(d.id));
  tell({});  // others have moved it back
  EXPECT_TRUE(isToBeListed());
  list({folder("d", "d"), file("1", "a", 3)});
  EXPECT_THAT(names(), ElementsAre("a", "d"));
}

TEST_F(TreeUntoldTest, WhatWasFoundGoneMayBeThereAgain) {
  tree().applyItem(*at("a"), std::nullopt, tree().moment());
  check();
  EXPECT_THAT(names(), ElementsAre("d"));
  tell({});
  EXPECT_TRUE(isToBeListed());
}

TEST_F(TreeUntoldTest, WhatWasFoundChangedMayBeAsBefore) {
  tree().applyItem(*at("a"), file("1", "a", 3), tree().moment());
  tell({});
  EXPECT_FALSE(isToBeListed());
  tree().applyItem(*at("a"), file("1", "a", 4), tree().moment());
  tell({}, "later");
  EXPECT_TRUE(isToBeListed());
  list({folder("d", "d"), file("1", "a", 3)});
  EXPECT_EQ(at("a")->sizeBytes, 3);
}

TEST_F(TreeUntoldTest, AListingFromAfterItTellsEverything) {
  send(make("b"), file("2", "b", 5));
  list({folder("d", "d"), file("1", "a", 3), file("2", "b", 5)});
  tell({});
  EXPECT_FALSE(isToBeListed());
}

TEST_F(TreeUntoldTest, AnAnswerFromBeforeItNeedNotTell) {
  const std::uint64_t asOf = tree().moment();
  send(make("b"), file("2", "b", 5));
  tree().applyChanges(root(), {}, "next", asOf);
  EXPECT_FALSE(isToBeListed());
  tell({}, "later");
  EXPECT_TRUE(isToBeListed());
}

TEST_F(TreeUntoldTest, AnAnswerWithTheSameAnchorTellsNothing) {
  send(make("b"), file("2", "b", 5));
  tell({}, "anchor");
  EXPECT_FALSE(isToBeListed());
}

TEST_F(TreeUntoldTest, AfterARestartAListingTells) {
  send(make("b"), file("2", "b", 5));
  restart();
  EXPECT_FALSE(root().part()->listing.anchor);
}

}  // namespace
}  // namespace kestrune::host
